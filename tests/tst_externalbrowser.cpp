#include "commandlineparser.h"
#include "externalbrowser.h"
#include "playlistitem.h"
#include "settings.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QtTest>

#include <memory>

#include <signal.h>

using namespace testsupport;

namespace {
const QString address = "https://example.org/board?a=1&b=2";

bool processAlive(qint64 pid)
{
    return pid > 0 && ::kill(pid_t(pid), 0) == 0;
}
} // namespace

class TestExternalBrowser : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void commandLine_data();
    void commandLine();
    void closedBrowserEndsTheItem_data();
    void closedBrowserEndsTheItem();
    void stopTerminatesWithoutEnd();
    void durationEndsTheItem();
    void missingProgramWaitsForTheDuration();
    void changedCommandAppliesToTheNextItem();
    void mouseButtons_data();
    void mouseButtons();

private:
    TempHome m_home;
    std::unique_ptr<FakePrograms> m_fakes;
    std::unique_ptr<CommandLineParser> m_parser;
    Settings *m_settings = nullptr;
};

void TestExternalBrowser::initTestCase()
{
    FakePrograms launcher;
    launcher.add("launchdock");
    m_parser = makeParser(m_home.path());
    m_settings = Settings::load(true, m_parser.get());
}

void TestExternalBrowser::init()
{
    // The old stand-ins go first: each set puts PATH back as it found it.
    m_fakes.reset();
    m_fakes = std::make_unique<FakePrograms>();
}

void TestExternalBrowser::commandLine_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("logLine");

    QTest::newRow("address in one argument")
        << "browser -kiosk %u" << QStringList{"-kiosk", address}
        << "Running external browser: browser, -kiosk, " + address;
    QTest::newRow("address in several arguments")
        << "browser --app=%u %u --title=%u!"
        << QStringList{"--app=" + address, address, "--title=" + address + "!"}
        << "Running external browser: browser, --app=" + address + ", " + address
               + ", --title=" + address + "!";
    QTest::newRow("two blanks give an empty argument")
        << "browser  %u" << QStringList{"", address}
        << "Running external browser: browser, , " + address;
    QTest::newRow("no place-holder")
        << "browser" << QStringList{} << "Running external browser: browser";
}

void TestExternalBrowser::commandLine()
{
    QFETCH(QString, command);
    QFETCH(QStringList, arguments);
    QFETCH(QString, logLine);
    m_fakes->addHanging("browser");
    m_settings->set("main/external_browser_cmd", command);

    PlaylistItem item(address, PlaylistItem::Webpage, 0, false, {});
    ExternalBrowser browser(&item, nullptr);
    LogCapture log;
    QVERIFY(browser.start());
    QTRY_COMPARE(m_fakes->calls("browser").size(), 1);
    QCOMPARE(m_fakes->calls("browser").first(), arguments);
    QVERIFY2(log.lines().contains(logLine), qPrintable(log.lines().join('\n')));
    browser.stop();
}

void TestExternalBrowser::closedBrowserEndsTheItem_data()
{
    QTest::addColumn<int>("exitCode");
    QTest::newRow("closed normally") << 0;
    QTest::newRow("exited with an error") << 3;
}

void TestExternalBrowser::closedBrowserEndsTheItem()
{
    QFETCH(int, exitCode);
    // The program name holds "%u", which is not replaced there.
    m_fakes->addScript("br%uwser", "exec sleep 0.3; exit " + QByteArray::number(exitCode));
    m_settings->set("main/external_browser_cmd", "br%uwser %u");

    PlaylistItem item(address, PlaylistItem::Webpage, 30, false, {});
    ExternalBrowser browser(&item, nullptr);
    QSignalSpy end(&browser, &ExternalBrowser::end);
    QVERIFY(browser.start());
    QVERIFY(end.wait(5000));
    QCOMPARE(end.count(), 1);
    QCOMPARE(m_fakes->calls("br%uwser"), QList<QStringList>{QStringList{address}});
    browser.stop();
}

void TestExternalBrowser::stopTerminatesWithoutEnd()
{
    const QString pidFile = m_home.filePath("browser.pid");
    m_fakes->addScript("browser", "echo $$ > '" + pidFile.toUtf8() + "'; exec sleep 3600");
    m_settings->set("main/external_browser_cmd", "browser %u");

    PlaylistItem item(address, PlaylistItem::Webpage, 0, false, {});
    ExternalBrowser browser(&item, nullptr);
    QSignalSpy end(&browser, &ExternalBrowser::end);
    QVERIFY(browser.start());
    QTRY_VERIFY(!readFile(pidFile).trimmed().isEmpty());
    const qint64 pid = readFile(pidFile).trimmed().toLongLong();
    QVERIFY(processAlive(pid));

    QElapsedTimer clock;
    clock.start();
    browser.stop();
    QVERIFY(clock.elapsed() < 10000);
    QVERIFY(!processAlive(pid));
    QVERIFY(!end.wait(500));
    QCOMPARE(end.count(), 0);
}

void TestExternalBrowser::durationEndsTheItem()
{
    m_fakes->addHanging("browser");
    m_settings->set("main/external_browser_cmd", "browser %u");
    PlaylistItem item(address, PlaylistItem::Webpage, 1, false, {});
    ExternalBrowser browser(&item, nullptr);
    QSignalSpy end(&browser, &ExternalBrowser::end);

    QElapsedTimer clock;
    clock.start();
    QVERIFY(browser.start());
    QVERIFY(end.wait(5000));
    QVERIFY(clock.elapsed() >= 900);
    QCOMPARE(end.count(), 1);
    // The timer's own stop terminated the browser; its exit is not a second end.
    QVERIFY(!browser.isActive());
    QVERIFY(!end.wait(500));
}

void TestExternalBrowser::missingProgramWaitsForTheDuration()
{
    m_settings->set("main/external_browser_cmd", "no-such-browser-here %u");
    PlaylistItem item(address, PlaylistItem::Webpage, 1, false, {});
    ExternalBrowser browser(&item, nullptr);
    QSignalSpy end(&browser, &ExternalBrowser::end);

    QElapsedTimer clock;
    clock.start();
    QVERIFY(browser.start());
    QVERIFY(end.wait(5000));
    QVERIFY(clock.elapsed() >= 900);
    QCOMPARE(end.count(), 1);

    m_settings->set("main/external_browser_cmd", "");
    ExternalBrowser empty(&item, nullptr);
    QVERIFY(empty.start());
    empty.stop();
}

void TestExternalBrowser::changedCommandAppliesToTheNextItem()
{
    m_fakes->addHanging("first");
    m_fakes->addHanging("second");
    PlaylistItem item(address, PlaylistItem::Webpage, 0, false, {});

    m_settings->set("main/external_browser_cmd", "first %u");
    ExternalBrowser browser(&item, nullptr);
    m_settings->set("main/external_browser_cmd", "second --kiosk %u");
    QVERIFY(browser.start());
    QTRY_COMPARE(m_fakes->calls("second").size(), 1);
    browser.stop();

    QCOMPARE(m_fakes->calls("first").size(), 0);
    QCOMPARE(m_fakes->calls("second").first(), (QStringList{"--kiosk", address}));
}

void TestExternalBrowser::mouseButtons_data()
{
    QTest::addColumn<int>("button");
    QTest::addColumn<QList<int>>("counts"); // right, middle, left

    QTest::newRow("right") << int(Qt::RightButton) << QList<int>{1, 0, 0};
    QTest::newRow("middle") << int(Qt::MiddleButton) << QList<int>{0, 1, 0};
    QTest::newRow("left") << int(Qt::LeftButton) << QList<int>{0, 0, 1};
    QTest::newRow("back") << int(Qt::BackButton) << QList<int>{0, 0, 0};
}

void TestExternalBrowser::mouseButtons()
{
    QFETCH(int, button);
    QFETCH(QList<int>, counts);
    PlaylistItem item(address, PlaylistItem::Webpage, 0, false, {});
    ExternalBrowser browser(&item, nullptr);
    QSignalSpy right(&browser, &ExternalBrowser::rightclick);
    QSignalSpy middle(&browser, &ExternalBrowser::middleclick);
    QSignalSpy left(&browser, &ExternalBrowser::leftclick);

    QTest::mouseClick(&browser, Qt::MouseButton(button));
    QCOMPARE((QList<int>{right.count(), middle.count(), left.count()}), counts);
}

QTEST_MAIN(TestExternalBrowser)
#include "tst_externalbrowser.moc"
