#include "commandlineparser.h"
#include "externalvideoimpl.h"
#include "httpserver.h"
#include "playlistitem.h"
#include "settings.h"
#include "testsupport.h"
#include "video.h"
#include "vlcvideoimpl.h"

#include <QElapsedTimer>
#include <QGuiApplication>
#include <QScreen>
#include <QSignalSpy>
#include <QtTest>

#include <memory>

#include <signal.h>

using namespace testsupport;

namespace {
bool processAlive(qint64 pid)
{
    return pid > 0 && ::kill(pid_t(pid), 0) == 0;
}

QList<qint64> pids(const QString &file)
{
    QList<qint64> result;
    for (const QByteArray &line : readFile(file).split('\n')) {
        if (!line.trimmed().isEmpty())
            result << line.trimmed().toLongLong();
    }
    return result;
}

} // namespace

class TestVideo : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void playerChoice_data();
    void playerChoice();
    void rightClick();

    void defaultCommand_data();
    void defaultCommand();
    void configuredCommand_data();
    void configuredCommand();
    void playerEndsByItself_data();
    void playerEndsByItself();
    void playerThatCannotStart_data();
    void playerThatCannotStart();
    void stopKillsThePlayer();
    void durationEndsExternalPlayer();
    void pauseLeavesExternalPlayerAlone();
    void errorTextEndsThePlayer();
    void nextPlayerSurvivesThePreviousStop();

    void mediaAddress_data();
    void mediaAddress();
    void libVlcPlaysToTheEnd();
    void libVlcUnplayableMedia_data();
    void libVlcUnplayableMedia();
    void libVlcDurationEndsFirst();
    void libVlcStopLeavesNoLateEnd();
    void libVlcPauseAndResume_data();
    void libVlcPauseAndResume();
    void libVlcStreamAddress();
    void libVlcStalledStream_data();
    void libVlcStalledStream();

private:
    QString videoPath(const QString &name) const { return m_home.filePath("data/" + name); }

    TempHome m_home;
    std::unique_ptr<FakePrograms> m_fakes;
    std::unique_ptr<CommandLineParser> m_parser;
    Settings *m_settings = nullptr;
    QString m_clip;
};

void TestVideo::initTestCase()
{
    FakePrograms launcher;
    launcher.add("launchdock");
    m_parser = makeParser(m_home.path());
    m_settings = Settings::load(true, m_parser.get());

    QVERIFY(QDir().mkpath(m_home.filePath("data")));
    m_clip = videoPath("clip one.mp4");
    QVERIFY2(makeVideo(m_clip, 2), "ffmpeg could not make the test video");
}

void TestVideo::init()
{
    // The old stand-ins go first: each set puts PATH back as it found it.
    m_fakes.reset();
    m_fakes = std::make_unique<FakePrograms>();
    m_fakes->add("pkill");

    m_settings->set("slideshow/external_player", true);
    m_settings->set("slideshow/external_player_cmd", QString());
    m_settings->set("slideshow/mute", false);
    m_settings->set("main/fullscreen", true);
    m_settings->set("slideshow/stretch", false);
    m_settings->set("main/fixedscreen", false);
    m_settings->set("main/largeur_edit", QString());
    m_settings->set("main/hauteur_edit", QString());
}

void TestVideo::cleanup()
{
    m_fakes.reset();
}

void TestVideo::playerChoice_data()
{
    QTest::addColumn<bool>("external");
    QTest::newRow("libVLC") << false;
    QTest::newRow("external player") << true;
}

void TestVideo::playerChoice()
{
    QFETCH(bool, external);
    m_settings->set("slideshow/external_player", external);
    m_fakes->add("omxplayer");
    PlaylistItem item("file://" + m_clip, PlaylistItem::Video, 0, false, {});
    Video video(&item, nullptr);

    QCOMPARE(dynamic_cast<ExternalVideoImpl *>(video.impl()) != nullptr, external);
    QCOMPARE(dynamic_cast<VLCVideoImpl *>(video.impl()) != nullptr, !external);
    QVERIFY(video.autoFillBackground());
    QCOMPARE(video.palette().color(QPalette::Active, QPalette::Window), QColor(Qt::black));
    QCOMPARE(video.palette().color(QPalette::Disabled, QPalette::Window), QColor(Qt::black));
    QCOMPARE(m_fakes->calls("omxplayer").size(), 0);
}

void TestVideo::rightClick()
{
    PlaylistItem item("file://" + m_clip, PlaylistItem::Video, 0, false, {});
    Video video(&item, nullptr);
    QSignalSpy rightclick(&video, &Video::rightclick);
    QTest::mouseClick(&video, Qt::LeftButton);
    QTest::mouseClick(&video, Qt::MiddleButton);
    QCOMPARE(rightclick.count(), 0);
    QTest::mouseClick(&video, Qt::RightButton);
    QCOMPARE(rightclick.count(), 1);
}

void TestVideo::defaultCommand_data()
{
    QTest::addColumn<bool>("mute");
    QTest::addColumn<bool>("fullscreen");
    QTest::addColumn<bool>("stretch");
    QTest::addColumn<bool>("fixedscreen");
    QTest::addColumn<QString>("size");
    // "screen" and "widget" stand for the screen's and the widget's own size
    QTest::addColumn<QStringList>("window");

    QTest::newRow("mute, full screen, no stretch")
        << true << true << false << false << "" << QStringList{"--vol", "-10000", "-b"};
    QTest::newRow("full screen, no stretch")
        << false << true << false << true << "1024x768" << QStringList{"-b"};
    QTest::newRow("full screen, stretch")
        << false << true << true << false << "" << QStringList{"--win", "screen"};
    QTest::newRow("mute, full screen, stretch")
        << true << true << true << false << "" << QStringList{"--vol", "-10000", "--win", "screen"};
    QTest::newRow("window of fixed size")
        << false << false << true << true << "1024x768" << QStringList{"--win", "0 0 1024 768"};
    QTest::newRow("window of fixed size left empty")
        << false << false << false << true << "" << QStringList{"--win", "0 0 0 0"};
    QTest::newRow("window of the widget") << true << false << false << false << "1024x768"
                                          << QStringList{"--vol", "-10000", "--win", "widget"};
}

void TestVideo::defaultCommand()
{
    QFETCH(bool, mute);
    QFETCH(bool, fullscreen);
    QFETCH(bool, stretch);
    QFETCH(bool, fixedscreen);
    QFETCH(QString, size);
    QFETCH(QStringList, window);
    m_settings->set("slideshow/mute", mute);
    m_settings->set("main/fullscreen", fullscreen);
    m_settings->set("slideshow/stretch", stretch);
    m_settings->set("main/fixedscreen", fixedscreen);
    m_settings->set("main/largeur_edit", size.section('x', 0, 0));
    m_settings->set("main/hauteur_edit", size.section('x', 1, 1));
    m_fakes->addHanging("omxplayer");

    PlaylistItem item("file://" + m_clip, PlaylistItem::Video, 0, false, {});
    Video video(&item, nullptr);
    const QRect screen = QGuiApplication::primaryScreen()->geometry();
    const QRect own = video.rect();
    window.replaceInStrings(QRegularExpression("^screen$"),
                            QString("0 0 %1 %2").arg(screen.width()).arg(screen.height()));
    window.replaceInStrings(QRegularExpression("^widget$"),
                            QString("0 0 %1 %2").arg(own.width()).arg(own.height()));

    LogCapture log;
    QVERIFY(video.start());
    QTRY_COMPARE(m_fakes->calls("omxplayer").size(), 1);
    QCOMPARE(m_fakes->calls("omxplayer").first(), window + QStringList{m_clip});
    QVERIFY(log.contains("Launching command:"));
    QVERIFY(!log.contains("Using external command:"));
    video.stop();
}

void TestVideo::configuredCommand_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QStringList>("arguments");

    QTest::newRow("option and file") << "player --loop %f" << QStringList{"--loop", "FILE"};
    QTest::newRow("two blanks give an empty argument") << "player  %f" << QStringList{"", "FILE"};
    QTest::newRow("file inside arguments")
        << "player --input=%f --title=%f" << QStringList{"--input=FILE", "--title=FILE"};
    QTest::newRow("no place-holder") << "player" << QStringList{};
}

void TestVideo::configuredCommand()
{
    QFETCH(QString, command);
    QFETCH(QStringList, arguments);
    m_settings->set("slideshow/external_player_cmd", command);
    m_fakes->addHanging("player");
    m_fakes->addHanging("omxplayer");

    PlaylistItem item("file://" + m_clip, PlaylistItem::Video, 0, false, {});
    LogCapture log;
    Video video(&item, nullptr);
    QVERIFY(log.contains("Using external command: \"" + command + "\""));
    QVERIFY(video.start());
    QTRY_COMPARE(m_fakes->calls("player").size(), 1);
    QCOMPARE(m_fakes->calls("player").first(), arguments.replaceInStrings("FILE", m_clip));
    video.stop();
    QCOMPARE(m_fakes->calls("omxplayer").size(), 0);
}

void TestVideo::playerEndsByItself_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::newRow("exit 0") << QByteArray("exit 0");
    QTest::newRow("exit with an error") << QByteArray("exit 1");
    QTest::newRow("killed") << QByteArray("kill -9 $$");
}

void TestVideo::playerEndsByItself()
{
    QFETCH(QByteArray, body);
    m_fakes->addScript("omxplayer", body);
    PlaylistItem item("file://" + m_clip, PlaylistItem::Video, 0, false, {});
    Video video(&item, nullptr);
    QSignalSpy end(&video, &Video::end);

    QVERIFY(video.start());
    QVERIFY(end.wait(5000));
    QCOMPARE(end.count(), 1);
    QVERIFY(!end.wait(300));
    video.stop();
    QCOMPARE(m_fakes->callLines("pkill"), QStringList{"-9 omxplayer"});
}

void TestVideo::playerThatCannotStart_data()
{
    QTest::addColumn<QString>("command");
    // A player that is not installed gives way to the built-in one, which plays the clip.
    QTest::addColumn<bool>("builtIn");
    QTest::newRow("missing program") << "no-such-player-here %f" << true;
    QTest::newRow("empty program") << " %f" << true;
    QTest::newRow("not executable") << "noexec %f" << true;
    QTest::newRow("missing interpreter") << "badinterp %f" << false;
}

void TestVideo::playerThatCannotStart()
{
    QFETCH(QString, command);
    QFETCH(bool, builtIn);
    QVERIFY(writeFile(m_fakes->dir() + "/noexec", "#!/bin/sh\nexit 0\n"));
    QVERIFY(writeFile(m_fakes->dir() + "/badinterp", "#!/no/such/interpreter\n"));
    QVERIFY(QFile::setPermissions(m_fakes->dir() + "/badinterp",
                                  QFile::ReadOwner | QFile::ExeOwner));
    m_settings->set("slideshow/external_player_cmd", command);

    PlaylistItem item("file://" + m_clip, PlaylistItem::Video, 0, false, {});
    Video video(&item, nullptr);
    QCOMPARE(dynamic_cast<VLCVideoImpl *>(video.impl()) != nullptr, builtIn);
    QSignalSpy end(&video, &Video::end);
    QVERIFY(video.start());
    // Not from inside start(): the receiver is still busy starting this item.
    QCOMPARE(end.count(), 0);
    QVERIFY(end.wait(15000));
    QCOMPARE(end.count(), 1);
    video.stop();
}

void TestVideo::stopKillsThePlayer()
{
    const QString pidFile = m_home.filePath("player.pids");
    QFile::remove(pidFile);
    m_fakes->addScript("omxplayer", "echo $$ >> '" + pidFile.toUtf8() + "'; exec sleep 3600");

    PlaylistItem item("file://" + m_clip, PlaylistItem::Video, 0, false, {});
    auto video = std::make_unique<Video>(&item, nullptr);
    QSignalSpy end(video.get(), &Video::end);
    QVERIFY(video->start());
    QTRY_COMPARE(pids(pidFile).size(), 1);
    const qint64 pid = pids(pidFile).first();
    QVERIFY(processAlive(pid));

    video->stop();
    QVERIFY(!processAlive(pid));
    QCOMPARE(m_fakes->callLines("pkill"), QStringList{"-9 omxplayer"});
    QVERIFY(!end.wait(300));

    video.reset();
    QCOMPARE(m_fakes->callLines("pkill"), (QStringList{"-9 omxplayer", "-9 omxplayer"}));
    QCOMPARE(end.count(), 0);
}

void TestVideo::durationEndsExternalPlayer()
{
    m_fakes->addHanging("omxplayer");
    PlaylistItem item("file://" + m_clip, PlaylistItem::Video, 1, false, {});
    Video video(&item, nullptr);
    QSignalSpy end(&video, &Video::end);

    QElapsedTimer clock;
    clock.start();
    QVERIFY(video.start());
    QVERIFY(end.wait(5000));
    QVERIFY(clock.elapsed() >= 900);
    QCOMPARE(end.count(), 1);
    // The expiry stopped the item: the player is gone and says nothing more.
    QVERIFY(!video.isActive());
    QCOMPARE(m_fakes->callLines("pkill"), QStringList{"-9 omxplayer"});
    QVERIFY(!end.wait(300));
}

void TestVideo::pauseLeavesExternalPlayerAlone()
{
    const QString pidFile = m_home.filePath("paused.pids");
    QFile::remove(pidFile);
    m_fakes->addScript("omxplayer", "echo $$ >> '" + pidFile.toUtf8() + "'; exec sleep 3600");
    PlaylistItem item("file://" + m_clip, PlaylistItem::Video, 0, false, {});
    Video video(&item, nullptr);
    QSignalSpy end(&video, &Video::end);

    QVERIFY(video.start());
    QTRY_COMPARE(pids(pidFile).size(), 1);
    QVERIFY(video.pause());
    QVERIFY(video.pause());
    QVERIFY(processAlive(pids(pidFile).first()));
    QCOMPARE(m_fakes->calls("omxplayer").size(), 1);
    QCOMPARE(m_fakes->calls("pkill").size(), 0);
    QCOMPARE(end.count(), 0);
    video.stop();
}

void TestVideo::errorTextEndsThePlayer()
{
    const QString pidFile = m_home.filePath("failing.pids");
    QFile::remove(pidFile);
    m_fakes->addScript("omxplayer", "echo $$ >> '" + pidFile.toUtf8()
                                        + "'; echo 'ERROR: cannot open file' >&2; "
                                          "exec sleep 3600");
    PlaylistItem item("file://" + m_clip, PlaylistItem::Video, 0, false, {});
    Video video(&item, nullptr);
    auto *player = dynamic_cast<ExternalVideoImpl *>(video.impl());
    QVERIFY(player);
    QSignalSpy end(&video, &Video::end);
    LogCapture log;

    QVERIFY(video.start());
    QTRY_COMPARE(pids(pidFile).size(), 1);
    // Nothing connects the slot; it is called as a caller who wants it would do.
    QTRY_VERIFY((player->readyReadStandardError(), end.count() == 1));
    QVERIFY(log.contains("An error occured"));
    QVERIFY(log.contains("Resolved!"));
    QTRY_VERIFY(!processAlive(pids(pidFile).first()));
    player->readyReadStandardError();
    QCOMPARE(end.count(), 1);
    video.stop();
}

void TestVideo::nextPlayerSurvivesThePreviousStop()
{
    const QString pidFile = m_home.filePath("players.pids");
    QFile::remove(pidFile);
    m_fakes->addScript("omxplayer", "echo $$ >> '" + pidFile.toUtf8() + "'; exec sleep 3600");
    PlaylistItem item("file://" + m_clip, PlaylistItem::Video, 0, false, {});

    // The viewer starts the new item before it stops the old one.
    Video first(&item, nullptr);
    Video second(&item, nullptr);
    QSignalSpy secondEnd(&second, &Video::end);
    QVERIFY(first.start());
    QTRY_COMPARE(pids(pidFile).size(), 1);
    QVERIFY(second.start());
    QTRY_COMPARE(pids(pidFile).size(), 2);
    const qint64 firstPid = pids(pidFile).at(0);
    const qint64 secondPid = pids(pidFile).at(1);

    first.stop();
    QVERIFY(!processAlive(firstPid));
    QVERIFY(processAlive(secondPid));
    QCOMPARE(m_fakes->callLines("pkill"), QStringList{"-9 -P " + QString::number(firstPid)});
    QVERIFY(!secondEnd.wait(300));

    second.stop();
    QVERIFY(!processAlive(secondPid));
    QCOMPARE(m_fakes->callLines("pkill").last(), QString("-9 omxplayer"));
}

void TestVideo::mediaAddress_data()
{
    QTest::addColumn<QString>("location");
    QTest::addColumn<QByteArray>("address");

    QTest::newRow("local file") << "file:///home/pi/a b.mp4"
                                << QByteArray("file:///home/pi/a%20b.mp4");
    QTest::newRow("local file with a hash")
        << "file:///home/pi/take#2.mp4" << QByteArray("file:///home/pi/take%232.mp4");
    QTest::newRow("vlc stream") << "vlc:rtsp://camera.lan:554/live"
                                << QByteArray("rtsp://camera.lan:554/live");
    QTest::newRow("vlc http stream")
        << "vlc:http://server/a b.ts" << QByteArray("http://server/a%20b.ts");
    QTest::newRow("rtsp") << "rtsp://camera.lan/live" << QByteArray("rtsp://camera.lan/live");
    QTest::newRow("https") << "https://server/clip.mp4?x=1"
                           << QByteArray("https://server/clip.mp4?x=1");
}

void TestVideo::mediaAddress()
{
    QFETCH(QString, location);
    QFETCH(QByteArray, address);
    QCOMPARE(VLCVideoImpl::mediaAddress(location).toEncoded(), address);
}

void TestVideo::libVlcPlaysToTheEnd()
{
    m_settings->set("slideshow/external_player", false);
    PlaylistItem item("file://" + m_clip, PlaylistItem::Video, 0, false, {});
    Video video(&item, nullptr);
    QSignalSpy end(&video, &Video::end);
    LogCapture log;

    QVERIFY(video.start());
    QVERIFY(log.contains("Reading uri: \"" + QUrl::fromLocalFile(m_clip).toEncoded() + "\""));
    QVERIFY(log.contains("%20"));
    QVERIFY(end.wait(15000));
    QCOMPARE(end.count(), 1);
    QVERIFY(!end.wait(300));
    QVERIFY(!log.contains("Cannot play video"));
    video.stop();
    QCOMPARE(m_fakes->calls("pkill").size(), 0);
}

void TestVideo::libVlcUnplayableMedia_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("content");

    QByteArray noise(20000, '\0');
    for (int i = 0; i < noise.size(); ++i)
        noise[i] = char((i * 7919 + 13) % 251);
    QTest::newRow("missing file") << "missing.mp4" << QByteArray();
    QTest::newRow("zero-length file") << "empty.mp4" << QByteArray("");
    QTest::newRow("corrupt file") << "noise.mp4" << noise;
    QTest::newRow("text file") << "notes.mp4" << QByteArray("this is no video\n");
}

void TestVideo::libVlcUnplayableMedia()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, content);
    const QString path = videoPath(name);
    QFile::remove(path);
    if (!content.isNull())
        QVERIFY(writeFile(path, content));
    m_settings->set("slideshow/external_player", false);

    PlaylistItem item("file://" + path, PlaylistItem::Video, 0, false, {});
    Video video(&item, nullptr);
    QSignalSpy end(&video, &Video::end);
    QVERIFY(video.start());
    QVERIFY(end.wait(15000));
    QCOMPARE(end.count(), 1);
    video.stop();
}

void TestVideo::libVlcDurationEndsFirst()
{
    const QString longClip = videoPath("long.mp4");
    QVERIFY(makeVideo(longClip, 20));
    m_settings->set("slideshow/external_player", false);
    PlaylistItem item("file://" + longClip, PlaylistItem::Video, 1, false, {});
    Video video(&item, nullptr);
    QSignalSpy end(&video, &Video::end);

    QElapsedTimer clock;
    clock.start();
    QVERIFY(video.start());
    QVERIFY(end.wait(5000));
    QVERIFY(clock.elapsed() >= 900);
    QVERIFY(clock.elapsed() < 5000);
    QCOMPARE(end.count(), 1);
    QVERIFY(!video.isActive());
    QVERIFY(!end.wait(1000));
}

void TestVideo::libVlcStopLeavesNoLateEnd()
{
    m_settings->set("slideshow/external_player", false);
    PlaylistItem item("file://" + m_clip, PlaylistItem::Video, 0, false, {});
    Video video(&item, nullptr);
    QSignalSpy end(&video, &Video::end);

    QVERIFY(video.start());
    video.stop();
    QVERIFY(!end.wait(3500));

    // Started again, it plays again and ends once.
    QVERIFY(video.start());
    QVERIFY(end.wait(15000));
    QCOMPARE(end.count(), 1);
    video.stop();
}

void TestVideo::libVlcPauseAndResume_data()
{
    QTest::addColumn<int>("duration");
    // Without a display time every pause() takes the pause branch: the toggle resumes.
    QTest::newRow("untimed") << 0;
    QTest::newRow("timed") << 60;
}

void TestVideo::libVlcPauseAndResume()
{
    QFETCH(int, duration);
    m_settings->set("slideshow/external_player", false);
    PlaylistItem item("file://" + m_clip, PlaylistItem::Video, duration, false, {});
    Video video(&item, nullptr);
    auto *player = dynamic_cast<VLCVideoImpl *>(video.impl());
    QVERIFY(player);
    QSignalSpy end(&video, &Video::end);

    QVERIFY(video.start());
    QTRY_VERIFY_WITH_TIMEOUT(player->isPlaying(), 10000);
    QVERIFY(video.pause());
    QTRY_VERIFY(!player->isPlaying());
    // The clip lasts 2 s: paused, it does not reach its end.
    QVERIFY(!end.wait(3500));

    QCOMPARE(video.pause(), duration == 0);
    QVERIFY(end.wait(15000));
    QCOMPARE(end.count(), 1);
    video.stop();
}

void TestVideo::libVlcStreamAddress()
{
    const QString stream = videoPath("stream.ts");
    QVERIFY(makeVideo(stream, 1));
    HttpServer server;
    server.setRoute("/live/stream.ts", readFile(stream), 200, {{"Content-Type", "video/mp2t"}});
    m_settings->set("slideshow/external_player", false);

    const QString address = server.url("/live/stream.ts").toString();
    PlaylistItem item("vlc:" + address, PlaylistItem::Video, 0, false, {});
    Video video(&item, nullptr);
    QSignalSpy end(&video, &Video::end);
    LogCapture log;
    QVERIFY(video.start());
    QVERIFY(log.contains("Reading uri: \"" + address + "\""));
    QVERIFY(end.wait(15000));
    QCOMPARE(end.count(), 1);
    QVERIFY(server.requestCount("GET", "/live/stream.ts") >= 1);
    QVERIFY(!log.contains("Cannot play video"));
    video.stop();
}

void TestVideo::libVlcStalledStream_data()
{
    QTest::addColumn<int>("duration");
    QTest::addColumn<int>("atLeastMs");
    QTest::newRow("with a duration") << 2 << 1900;
    // No duration: only the opening watchdog can end it.
    QTest::newRow("without a duration") << 0 << 29000;
}

void TestVideo::libVlcStalledStream()
{
    QFETCH(int, duration);
    QFETCH(int, atLeastMs);
    HttpServer server;
    HttpServer::Route stall;
    stall.behaviour = HttpServer::Behaviour::Stall;
    server.setRoute("/stalled.ts", stall);
    m_settings->set("slideshow/external_player", false);

    PlaylistItem item(server.url("/stalled.ts").toString(), PlaylistItem::Video, duration, false,
                      {});
    Video video(&item, nullptr);
    QSignalSpy end(&video, &Video::end);
    QElapsedTimer clock;
    clock.start();
    QVERIFY(video.start());
    QVERIFY(end.wait(45000));
    QVERIFY2(clock.elapsed() >= atLeastMs, qPrintable(QString::number(clock.elapsed())));
    QCOMPARE(end.count(), 1);
    QVERIFY(server.requestCount("/stalled.ts") >= 1);
    video.stop();
}

QTEST_MAIN(TestVideo)
#include "tst_video.moc"
