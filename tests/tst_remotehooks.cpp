#include "commandlineparser.h"
#include "dispatcher.h"
#include "httpserver.h"
#include "settings.h"
#include "testsupport.h"
#include "viewer.h"

#include <QMouseEvent>
#include <QtTest>

using namespace testsupport;

// How the running show reaches the companion remote server: starting it, and showing its page
// on a right click.
class TestRemoteHooks : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void remoteServerStarted_data();
    void remoteServerStarted();
    void rightClickShowsInlineRemote();

private:
    void loadSettings(const QByteArray &preferences);
    std::unique_ptr<TempHome> m_home;
    std::unique_ptr<FakePrograms> m_fakes;
    std::unique_ptr<CommandLineParser> m_parser;
};

void TestRemoteHooks::init()
{
    m_home = std::make_unique<TempHome>();
    m_fakes = std::make_unique<FakePrograms>();
    for (const char *name : {"launchdock", "amixer", "unclutter", "pkill", "xmodmap", "xset",
                             "xscreensaver-command", "sudo", "pgrep"})
        m_fakes->add(name);
    qputenv("XDG_CURRENT_DESKTOP", "none");
    m_parser = makeParser(m_home->filePath("conf"));
    QVERIFY(makeImage(m_home->filePath("red.png"), QSize(64, 48), Qt::red, "PNG"));
    writeFile(m_home->filePath("conf/playlist"),
              "#Vorsane playlist\nfile://" + m_home->filePath("red.png").toUtf8() + " 30\n");
}

void TestRemoteHooks::cleanup()
{
    m_fakes.reset();
    m_home.reset();
}

void TestRemoteHooks::loadSettings(const QByteArray &preferences)
{
    writeFile(m_home->filePath("conf/preferences"),
              "[main]\nversion=QFGLs6IVf1\nfullscreen=false\nno_screensaver=false\n" + preferences);
    Settings::load(true, m_parser.get());
}

void TestRemoteHooks::remoteServerStarted_data()
{
    QTest::addColumn<bool>("enabled");
    QTest::addColumn<bool>("installed");
    QTest::addColumn<QByteArray>("alreadyRunning");
    QTest::addColumn<bool>("started");

    QTest::newRow("enabled and installed") << true << true << QByteArray() << true;
    QTest::newRow("already running") << true << true << QByteArray("4242\n") << false;
    QTest::newRow("enabled, program missing") << true << false << QByteArray() << false;
    QTest::newRow("disabled") << false << true << QByteArray() << false;
}

void TestRemoteHooks::remoteServerStarted()
{
    QFETCH(bool, enabled);
    QFETCH(bool, installed);
    QFETCH(QByteArray, alreadyRunning);
    QFETCH(bool, started);

    if (installed)
        m_fakes->add("vorsane-remote");
    m_fakes->add("pgrep", alreadyRunning, alreadyRunning.isEmpty() ? 1 : 0);
    loadSettings(enabled ? "[remote]\nenabled=true\nport=7611\n" : "");
    LogCapture log;
    Viewer viewer;
    Dispatcher dispatcher(&viewer, m_parser.get());
    QVERIFY(dispatcher.next());
    QVERIFY(log.contains("NB LOOPS"));

    if (started)
        QTRY_COMPARE(m_fakes->callLines("vorsane-remote"), QStringList{"--port 7611"});
    else
        QVERIFY(m_fakes->calls("vorsane-remote").isEmpty());
    QCOMPARE(log.contains("Remote server could not be started"), enabled && !installed);
    // The show goes on whatever happened to the remote server.
    QVERIFY(dispatcher.shownWidget());
}

void TestRemoteHooks::rightClickShowsInlineRemote()
{
    HttpServer server;
    server.setRoute("/remote", "<html><body style='background:#000'>remote</body></html>", 200,
                    {{"Content-Type", "text/html"}});
    const QString localUrl = server.url("/remote").toString();
    loadSettings("[remote]\nenabled=true\nkey=abc123\nlocal_url=" + localUrl.toUtf8() + "\n");
    m_fakes->add("vorsane-remote");
    Viewer viewer;
    Dispatcher dispatcher(&viewer, m_parser.get());
    QVERIFY(dispatcher.next());

    QMouseEvent press(QEvent::MouseButtonPress, QPointF(5, 5), Qt::RightButton, Qt::RightButton,
                      Qt::NoModifier);
    QCoreApplication::sendEvent(&viewer, &press);
    QTRY_COMPARE_WITH_TIMEOUT(server.requestCount("/remote"), 1, 10000);
    QCOMPARE(server.lastRequest("/remote").target, QByteArray("/remote?k=abc123"));
    QVERIFY(m_fakes->callLines("pkill").contains("-9 omxplayer"));
    // The page takes the item's place in a browser that can be used.
    QCOMPARE(viewer.currentWidget()->metaObject()->className(), "Browser");
}

QTEST_MAIN(TestRemoteHooks)
#include "tst_remotehooks.moc"
