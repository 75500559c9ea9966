#include "commandlineparser.h"
#include "httpserver.h"
#include "kioskprocess.h"
#include "settings.h"
#include "testsupport.h"
#include "viewer.h"
#include "webpage.h"

#include <QtTest>

#include <csignal>

using namespace testsupport;

// The real program meeting hostile content, datagrams, servers and signals.
class TestHardening : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void pagesNeverOpenDialogs_data();
    void pagesNeverOpenDialogs();
    void datagramsThatRunCodeCannotFreezeTheRemote();
    void stalledServerAtStartUp();
    void terminationGivesThePanelBack_data();
    void terminationGivesThePanelBack();
    void overlaysAreFreed();
    void endlessScriptEndsTheProgramNotTheShow();

private:
    QByteArray picture(KioskProcess &kiosk, const char *name, const QColor &color,
                       const QByteArray &time);
};

QByteArray TestHardening::picture(KioskProcess &kiosk, const char *name, const QColor &color,
                                  const QByteArray &time)
{
    const QString path = kiosk.home().filePath(QString("pics/") + name);
    makeImage(path, QSize(320, 240), color, "PNG");
    return "file://" + path.toUtf8() + " " + time + "\n";
}

void TestHardening::pagesNeverOpenDialogs_data()
{
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<QByteArray>("suppressed");

    QTest::newRow("alert") << QByteArray("setTimeout(function(){alert('hello')},300);")
                           << QByteArray("Suppressed alert");
    QTest::newRow("confirm and prompt")
        << QByteArray("setTimeout(function(){confirm('sure?'); prompt('name?','x')},300);")
        << QByteArray("Suppressed prompt");
    QTest::newRow("print") << QByteArray("setTimeout(function(){window.print()},300);")
                           << QByteArray("Suppressed print request");
    QTest::newRow("before unload")
        << QByteArray("window.onbeforeunload=function(){return 'leave?'};"
                      "setTimeout(function(){location.href='other.html'},300);")
        << QByteArray("Suppressed confirm");
    QTest::newRow("authentication")
        << QByteArray("setTimeout(function(){new Image().src='SERVER/secret'},300);")
        << QByteArray("Suppressed authentication request");
}

void TestHardening::pagesNeverOpenDialogs()
{
    QFETCH(QByteArray, script);
    QFETCH(QByteArray, suppressed);
    HttpServer server;
    server.setRoute("/secret", "no", 401);
    server.setHeader("/secret", "WWW-Authenticate", "Basic realm=\"kiosk\"");
    script.replace("SERVER", server.url("").toEncoded());
    KioskProcess kiosk;
    const QString page = kiosk.home().filePath("pages/page.html");
    QVERIFY(writeFile(page, "<html><body style='background:#00f'><script>" + script
                                + "</script></body></html>"));
    QVERIFY(writeFile(kiosk.home().filePath("pages/other.html"), "<html><body>other</body></html>"));
    QVERIFY(kiosk.start("#Vorsane playlist\nfile://" + page.toUtf8() + " 2\n"
                            + picture(kiosk, "green.png", Qt::green, "30"),
                        "fullscreen=false\n"));
    QVERIFY2(kiosk.waitForLog(suppressed, 20000), kiosk.log().right(3000));
    // The page keeps its two seconds; then the picture, with the program still running.
    QElapsedTimer clock;
    clock.start();
    QVERIFY2(kiosk.screenShows(Qt::green, 20000), kiosk.log().right(3000));
    QVERIFY2(clock.elapsed() < 6000, QByteArray::number(clock.elapsed()));
    QCOMPARE(kiosk.process().state(), QProcess::Running);
    QCOMPARE(kiosk.interrupt(), 2);
}

void TestHardening::datagramsThatRunCodeCannotFreezeTheRemote()
{
    KioskProcess kiosk;
    // The red picture's time is too large for milliseconds: it must be clamped, not wrapped.
    QVERIFY(kiosk.start("#Vorsane playlist\n" + picture(kiosk, "red.png", Qt::red, "4294968")
                            + picture(kiosk, "green.png", Qt::green, "600"),
                        "fullscreen=false\n"));
    QVERIFY2(kiosk.screenShows(Qt::red), kiosk.log().right(3000));

    kiosk.sendDatagram("{get action(){while(true){}}, data:{}}");
    QVERIFY(kiosk.waitForLog("evaluation aborted", 5000));
    // Wrapped round, the red picture's time would have been 704 ms, over by now.
    QCOMPARE(kiosk.screenColor(), QColor(Qt::red));
    QVERIFY(!kiosk.log().contains("Timeout"));
    kiosk.sendDatagram(R"({"action": 1})");
    QVERIFY2(kiosk.screenShows(Qt::green, 5000), kiosk.log().right(3000));

    kiosk.sendDatagram("{action:5, data:{text:{toString:function(){while(true){}}}, duration:2}}");
    QTRY_COMPARE_WITH_TIMEOUT(kiosk.log().count("evaluation aborted"), 2, 5000);
    kiosk.sendDatagram(R"({"action": 1})");
    QVERIFY2(kiosk.screenShows(Qt::red, 5000), kiosk.log().right(3000));
    QVERIFY(!kiosk.log().contains("Displaying webpage"));
}

void TestHardening::stalledServerAtStartUp()
{
    HttpServer server;
    QVERIFY(server.isListening());
    QByteArray items;
    for (const char *name : {"/a.png", "/b.png", "/c.png"}) {
        server.setRoute(name, "x");
        server.setBehaviour(name, HttpServer::Behaviour::Stall);
        items += QByteArray("<item uri=\"") + server.url(name).toEncoded()
                 + "\" type=\"image\" time=\"5\"/>\n";
    }
    const auto playlist = [&](KioskProcess &kiosk) {
        const QByteArray red = picture(kiosk, "red.png", Qt::red, "").trimmed();
        return "<?xml version=\"1.0\"?>\n<schedule name=\"t\">\n<loop id=\"0\">\n" + items
               + "<item uri=\"" + red + "\" type=\"image\" time=\"5\"/>\n</loop>\n</schedule>\n";
    };

    // Ctrl-C while the first download waits ends the program at once.
    {
        KioskProcess kiosk;
        QVERIFY(kiosk.start(playlist(kiosk), "fullscreen=false\n"));
        QVERIFY2(kiosk.waitForLog("Downloading"), kiosk.log().right(3000));
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(kiosk.interrupt(5000), 2);
        QVERIFY(clock.elapsed() < 3000);
    }
    // Left alone, the local picture shows after one shared wait, not one wait per item.
    KioskProcess kiosk;
    QVERIFY(kiosk.start(playlist(kiosk), "fullscreen=false\n"));
    QVERIFY2(kiosk.screenShows(Qt::red, 25000), kiosk.log().right(3000));
}

void TestHardening::terminationGivesThePanelBack_data()
{
    QTest::addColumn<int>("signal");
    QTest::newRow("SIGTERM") << int(SIGTERM);
    QTest::newRow("SIGHUP") << int(SIGHUP);
}

void TestHardening::terminationGivesThePanelBack()
{
    QFETCH(int, signal);
    KioskProcess kiosk;
    kiosk.fakes().add("lxpanel");
    kiosk.setEnvironment("XDG_CURRENT_DESKTOP", "LXDE");
    QVERIFY(kiosk.start("#Vorsane playlist\n" + picture(kiosk, "red.png", Qt::red, "600"),
                        "fullscreen=true\n[slideshow]\nmute=true\n"));
    QVERIFY2(kiosk.screenShows(Qt::red), kiosk.log().right(3000));
    QVERIFY(kiosk.log().contains("Desktop panel hidden."));
    QVERIFY(kiosk.fakes().callLines("lxpanel").isEmpty());

    ::kill(pid_t(kiosk.process().processId()), signal);
    QVERIFY(kiosk.process().waitForFinished(10000));
    // Ended by the signal, as before, but with the desktop given back first.
    QCOMPARE(kiosk.process().exitStatus(), QProcess::CrashExit);
    QTRY_COMPARE(kiosk.fakes().callLines("lxpanel"), QStringList{"--profile LXDE-pi"});
    QCOMPARE(kiosk.fakes().callLines("amixer").last(), QStringLiteral("set PCM unmute"));
    for (const char *line : {"Desktop panel restored.", "Mouse pointer shown again.",
                             "Sound restored on channel: \"PCM\""})
        QVERIFY2(kiosk.log().contains(line), line);
}

void TestHardening::overlaysAreFreed()
{
    KioskProcess::Templates templates;
    TempHome home;
    FakePrograms fakes;
    for (const char *name : {"launchdock", "amixer", "unclutter", "pkill", "xmodmap", "xset"})
        fakes.add(name);
    qputenv("XDG_CURRENT_DESKTOP", "none");
    auto parser = makeParser(home.path());
    writeFile(home.filePath("preferences"), "[main]\nversion=QFGLs6IVf1\nfullscreen=false\n");
    Settings::load(true, parser.get());
    const QString page = home.filePath("page.html");
    writeFile(page, "<html><body>page</body></html>");

    Viewer viewer;
    viewer.showText("hello", 1);
    QCOMPARE(viewer.findChildren<Webpage *>().size(), 1);
    for (int i = 1; i < 200; ++i)
        viewer.showText(QString("text %1").arg(i), 1);
    for (int i = 0; i < 20; ++i)
        viewer.showUrl(QUrl::fromLocalFile(page).toString(), 1);
    QTRY_COMPARE_WITH_TIMEOUT(viewer.findChildren<Webpage *>().size(), 0, 15000);
    QCOMPARE(viewer.count(), 0);
}

QTEST_MAIN(TestHardening)
#include "tst_hardening.moc"

void TestHardening::endlessScriptEndsTheProgramNotTheShow()
{
    HttpServer server;
    server.setRoute("/started", "ok");
    server.setRoute("/endless.html",
                    "<html><body style='background:#00f'><script>var r=new XMLHttpRequest();"
                    "r.open('GET','/started',false);r.send();while(true){}</script></body></html>",
                    200, {{"Content-Type", "text/html"}});
    KioskProcess kiosk;
    kiosk.fakes().add("lxpanel");
    kiosk.setEnvironment("XDG_CURRENT_DESKTOP", "LXDE");
    const QByteArray playlist = "#Vorsane playlist\n" + server.url("/endless.html").toEncoded()
                                + " 1\n" + picture(kiosk, "red.png", Qt::red, "600");

    // Ctrl-C while the script holds the program still ends it, the desktop given back.
    QVERIFY(kiosk.start(playlist, "fullscreen=true\n"));
    QTRY_VERIFY_WITH_TIMEOUT(server.requestCount("/started") == 1, 20000);
    QCOMPARE(kiosk.interrupt(6000), 2);
    QCOMPARE(kiosk.fakes().callLines("lxpanel"), QStringList{"--profile LXDE-pi"});
    // Left alone, it ends itself, for the session to start it again (the server must go on
    // answering meanwhile, hence no blocking wait)...
    QVERIFY(kiosk.start(playlist, "fullscreen=true\n"));
    QTRY_COMPARE_WITH_TIMEOUT(kiosk.process().state(), QProcess::NotRunning, 25000);
    QCOMPARE(kiosk.process().exitCode(), 3);
    // ...and then the page is shown without its scripts, for its time only.
    QVERIFY(kiosk.start(playlist, "fullscreen=true\n"));
    QVERIFY2(kiosk.screenShows(Qt::red, 20000), kiosk.log().right(3000));
    QCOMPARE(server.requestCount("/started"), 2);
    QVERIFY(kiosk.log().contains("without scripts"));
}
