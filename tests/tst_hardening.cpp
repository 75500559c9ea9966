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

// The real program meeting hostile content, datagrams and signals.
class TestHardening : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void pagesNeverOpenDialogs();
    void datagramsThatRunCodeCannotFreezeTheRemote();
    void overlaysAreFreed();
    void endlessScriptEndsTheProgramNotTheShow();
    void slowHookIsNoStall();

private:
    // Full screen on a desktop with a panel, which the program hides while it runs.
    bool start(KioskProcess &kiosk, const QByteArray &playlist);
    // The signal ends the program as before, but with the desktop given back first.
    void endsGivingTheDesktopBack(KioskProcess &kiosk, int signal);
    QByteArray picture(KioskProcess &kiosk, const char *name, const QColor &color,
                       const QByteArray &time)
    {
        return "file://" + kiosk.picture(name, color).toUtf8() + " " + time + "\n";
    }
};

bool TestHardening::start(KioskProcess &kiosk, const QByteArray &playlist)
{
    kiosk.fakes().add("lxpanel");
    kiosk.setEnvironment("XDG_CURRENT_DESKTOP", "LXDE-pi");
    return kiosk.start("#Vorsane playlist\n" + playlist,
                       "fullscreen=true\n[slideshow]\nmute=true\n");
}

void TestHardening::endsGivingTheDesktopBack(KioskProcess &kiosk, int signal)
{
    QVERIFY(kiosk.log().contains("Desktop panel hidden."));
    QVERIFY(kiosk.fakes().callLines("lxpanel").isEmpty());
    ::kill(pid_t(kiosk.process().processId()), signal);
    QVERIFY(kiosk.process().waitForFinished(10000));
    QCOMPARE(kiosk.process().exitStatus(), QProcess::CrashExit);
    QTRY_COMPARE(kiosk.fakes().callLines("lxpanel"), QStringList{"--profile LXDE-pi"});
    QCOMPARE(kiosk.fakes().callLines("amixer").last(), QStringLiteral("set PCM unmute"));
    for (const char *line : {"Desktop panel restored.", "Mouse pointer shown again.",
                             "Sound restored on channel: \"PCM\""})
        QVERIFY2(kiosk.log().contains(line), line);
}

void TestHardening::pagesNeverOpenDialogs()
{
    HttpServer server;
    server.setRoute("/secret", "no", 401, {{"WWW-Authenticate", "Basic realm=\"kiosk\""}});
    // One dialog after the other; a dialog left open would hold every later script.
    const QByteArray script = "setTimeout(function(){alert('hello')},300);"
                              "setTimeout(function(){confirm('sure?'); prompt('name?','x')},600);"
                              "setTimeout(function(){window.print()},900);"
                              "setTimeout(function(){new Image().src='"
                              + server.url("/secret").toEncoded()
                              + "'},1200);"
                                "window.onbeforeunload=function(){return 'leave?'};"
                                "setTimeout(function(){location.href='other.html'},1500);";
    KioskProcess kiosk;
    const QString page = kiosk.home().filePath("pages/page.html");
    QVERIFY(writeFile(page, "<html><body style='background:#00f'><script>" + script
                                + "</script></body></html>"));
    QVERIFY(
        writeFile(kiosk.home().filePath("pages/other.html"), "<html><body>other</body></html>"));
    QVERIFY(start(kiosk, "file://" + page.toUtf8() + " 3\n"
                             + picture(kiosk, "green.png", Qt::green, "30")));
    QVERIFY2(kiosk.waitForLog("Suppressed alert", 20000), kiosk.log().right(3000));
    // The page keeps its three seconds; then the picture, with the program still running.
    QElapsedTimer clock;
    clock.start();
    for (const char *line : {"Suppressed prompt", "Suppressed print request",
                             "Suppressed authentication request", "answered yes: \"leave?\""})
        QVERIFY2(kiosk.waitForLog(line, 10000), line);
    QVERIFY2(kiosk.screenShows(Qt::green, 20000), kiosk.log().right(3000));
    QVERIFY2(clock.elapsed() < 7000, QByteArray::number(clock.elapsed()));
    QCOMPARE(kiosk.process().state(), QProcess::Running);
    endsGivingTheDesktopBack(kiosk, SIGHUP);
}

void TestHardening::datagramsThatRunCodeCannotFreezeTheRemote()
{
    KioskProcess kiosk;
    // The red picture's time is too large for milliseconds: it must be clamped, not wrapped.
    QVERIFY(start(kiosk, picture(kiosk, "red.png", Qt::red, "4294968")
                             + picture(kiosk, "green.png", Qt::green, "600")));
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
    endsGivingTheDesktopBack(kiosk, SIGTERM);
}

void TestHardening::overlaysAreFreed()
{
    KioskProcess::Templates templates;
    TempHome home;
    FakePrograms fakes;
    fakes.addDesktopCommands();
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

void TestHardening::slowHookIsNoStall()
{
    HttpServer server;
    server.setRoute("/home", "<p>WELCOME</p>", 200, {{"Content-Type", "text/html"}});
    KioskProcess kiosk;
    // Longer than the watchdog's stall limit, as a hook may be.
    const QString done = kiosk.home().filePath("hook-done");
    const QString hook = kiosk.confDir() + "/hooks/session-start";
    QVERIFY(writeFile(hook, "#!/bin/sh\nsleep 9\ntouch '" + done.toUtf8() + "'\n"));
    QFile::setPermissions(hook, QFileDevice::ReadOwner | QFileDevice::ExeOwner);
    QVERIFY(kiosk.start("#Vorsane playlist\n",
                        "mode=kiosk\nstart_with_session=true\ndefault_url="
                            + server.url("/home").toEncoded() + "\n"));
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(done), 20000);
    // The wait is the program's own: the web session goes on in the same process.
    QVERIFY(!kiosk.waitForLog("has held the program", 1500));
    QCOMPARE(kiosk.process().state(), QProcess::Running);
    QCOMPARE(kiosk.interrupt(6000), 2);
}

QTEST_MAIN(TestHardening)
#include "tst_hardening.moc"

void TestHardening::endlessScriptEndsTheProgramNotTheShow()
{
    HttpServer server;
    server.setRoute("/started", "ok");
    for (const char *path : {"/endless.html", "/again.html"})
        server.setRoute(path,
                        "<html><body><script>var r=new XMLHttpRequest();r.open('GET','/started',"
                        "false);r.send();while(true){}</script></body></html>",
                        200, {{"Content-Type", "text/html"}});
    KioskProcess kiosk;
    kiosk.fakes().add("lxpanel");
    kiosk.setEnvironment("XDG_CURRENT_DESKTOP", "LXDE-pi");
    const QByteArray playlist = "#Vorsane playlist\n" + server.url("/endless.html").toEncoded()
                                + " 1\n" + server.url("/again.html").toEncoded() + " 60\n";

    // Left alone, the program ends itself for the session to start it again (the server must go
    // on answering meanwhile, hence no blocking wait)...
    QVERIFY(kiosk.start(playlist, "fullscreen=true\n"));
    QTRY_COMPARE_WITH_TIMEOUT(kiosk.process().state(), QProcess::NotRunning, 25000);
    QCOMPARE(kiosk.process().exitCode(), 3);
    QCOMPARE(server.requestCount("/started"), 1);
    // ...which shows that page without its scripts, for its time only, and goes on.
    QVERIFY(kiosk.start(playlist, "fullscreen=true\n"));
    QTRY_VERIFY_WITH_TIMEOUT(server.requestCount("/started") == 2, 20000);
    QVERIFY(kiosk.log().contains("Showing " + server.url("/endless.html").toEncoded()
                                 + " without scripts"));
    // Ctrl-C while the next one holds the program still ends it, the desktop given back.
    QCOMPARE(kiosk.interrupt(6000), 2);
    // Both ends gave the desktop panel back.
    QCOMPARE(kiosk.fakes().callLines("lxpanel"),
             QStringList({"--profile LXDE-pi", "--profile LXDE-pi"}));
}
