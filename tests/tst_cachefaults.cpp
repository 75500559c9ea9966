// Faults of the content server, the disk and the process while the cache is filled: the show
// goes on and the cache only ever holds complete files.
#include "commandlineparser.h"
#include "downloader.h"
#include "httpserver.h"
#include "itemdownloader.h"
#include "kioskprocess.h"
#include "playedqueue.h"
#include "playlistparser.h"
#include "settings.h"
#include "statepaths.h"
#include "testsupport.h"
#include "watchdog.h"
#include "xmlplaylistparser.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QBuffer>
#include <QDir>
#include <QSignalSpy>
#include <QTest>

#include <sys/mount.h>

using namespace testsupport;
using Behaviour = HttpServer::Behaviour;
Q_DECLARE_METATYPE(testsupport::HttpServer::Route)

class TestCacheFaults : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void faults_data();
    void faults();
    void fullDisk();
    void stateFilesOnAFullDisk_data();
    void stateFilesOnAFullDisk();
    void fetchedPlaylistMustBeAPlaylist_data();
    void fetchedPlaylistMustBeAPlaylist();
    void signalMidDownloadThenRestart();
    void stalledServerAtStartUp();
    void keptPlaylistPlaysWhateverTheServer_data();
    void keptPlaylistPlaysWhateverTheServer();

private:
    PlaylistLoopPtr loopOf(const QStringList &urls);
    // 1 when the walk ended complete, 0 when it ended with errors, -1 when it did not end.
    int walk(const PlaylistLoopPtr &loop, bool checkOnline = true, bool keepPrevious = false);
    QString dataPath(const QString &url) const;
    // Data files a later start could take for complete although they are not.
    QStringList incompleteFiles() const;

    std::unique_ptr<TempHome> m_home;
    std::unique_ptr<CommandLineParser> m_parser;
    std::unique_ptr<HttpServer> m_server;
    QString m_mounted;
};

void TestCacheFaults::init()
{
    m_home = std::make_unique<TempHome>();
    m_server = std::make_unique<HttpServer>();
    m_parser = makeParser(m_home->filePath(QStringLiteral("conf")));
    Settings::load(true, m_parser.get());
    ItemDownloader::setTimeouts(500, 1500);
}

void TestCacheFaults::cleanup()
{
    m_server.reset();
    if (!m_mounted.isEmpty())
        umount2(QFile::encodeName(m_mounted).constData(), MNT_DETACH);
    m_mounted.clear();
    m_home.reset();
}

PlaylistLoopPtr TestCacheFaults::loopOf(const QStringList &urls)
{
    QString xml = QStringLiteral("<schedule><loop id='0'>");
    for (const QString &url : urls)
        xml += QStringLiteral("<i uri='%1' type='image' time='5'/>").arg(url);
    XmlPlaylistParser parser(5, xml + QStringLiteral("</loop></schedule>"), QStringLiteral("x"));
    return parser.getLoops().value(0);
}

int TestCacheFaults::walk(const PlaylistLoopPtr &loop, bool checkOnline, bool keepPrevious)
{
    auto *downloader = new Downloader(loop, checkOnline);
    downloader->setKeepPrevious(keepPrevious);
    QSignalSpy done(downloader, &Downloader::downloadDone);
    QSignalSpy notDone(downloader, &Downloader::downloadNotDone);
    downloader->start();
    if (!QTest::qWaitFor([&] { return done.count() + notDone.count() > 0; }, 30000))
        return -1;
    return done.count();
}

QString TestCacheFaults::dataPath(const QString &url) const
{
    return m_home->stateDir() + QStringLiteral("/data/") + Downloader::cacheName(url);
}

QStringList TestCacheFaults::incompleteFiles() const
{
    QStringList bad;
    const QDir data(m_home->stateDir() + QStringLiteral("/data"));
    for (const QFileInfo &file : data.entryInfoList(QDir::Files | QDir::Hidden)) {
        const QByteArray tag = readFile(m_home->stateDir() + "/etag/" + file.fileName());
        if (tag.isEmpty() || tag.split(':').last().toLongLong() != file.size())
            bad << file.fileName();
    }
    return bad;
}

void TestCacheFaults::faults_data()
{
    QTest::addColumn<HttpServer::Route>("route");
    const QByteArray body(20000, 'b');
    HttpServer::Route redirect{"", 302, {{"Location", "/b.png"}}};
    HttpServer::Route huge{body, 200, {{"Content-Length", "2147483648"}}};
    QTest::newRow("server error 500") << HttpServer::Route{"oops", 500};
    QTest::newRow("accepted, never answered") << HttpServer::Route{body, 200, {}, Behaviour::Stall};
    QTest::newRow("body shorter than its length")
        << HttpServer::Route{body, 200, {}, Behaviour::CutBody};
    QTest::newRow("redirect loop") << redirect;
    QTest::newRow("2 GB Content-Length") << huge;
    HttpServer::Route chunkedCut{body, 200, {}, Behaviour::Chunked};
    chunkedCut.cutAfter = 9000;
    QTest::newRow("chunked body cut short") << chunkedCut;
}

void TestCacheFaults::faults()
{
    QFETCH(HttpServer::Route, route);
    const QString a = m_server->url("/a.png").toString();
    const QString b = m_server->url("/b.png").toString();
    m_server->setRoute("/a.png", QByteArray(3000, 'a'), 200, {{"Last-Modified", "Mon"}});
    QCOMPARE(walk(loopOf({a})), 1);

    m_server->setRoute("/b.png", route);
    const PlaylistLoopPtr loop = loopOf({a, b});
    QVERIFY(walk(loop) >= 0);
    // The cached item plays on; the failed one is no file at all, never a part of one.
    QCOMPARE(loop->items.first()->url, "file://" + dataPath(a));
    QCOMPARE(readFile(dataPath(a)), QByteArray(3000, 'a'));
    QVERIFY(!QFile::exists(dataPath(b)));
    QCOMPARE(incompleteFiles(), QStringList());
}

void TestCacheFaults::fullDisk()
{
    m_mounted = m_home->stateDir();
    if (mount("tmpfs", QFile::encodeName(m_mounted).constData(), "tmpfs", 0, "size=2m") != 0) {
        m_mounted.clear();
        QSKIP("cannot mount a small tmpfs here (needs root)");
    }
    const QString a = m_server->url("/a.png").toString();
    const QString big = m_server->url("/big.png").toString();
    m_server->setRoute("/a.png", QByteArray(3000, 'a'));
    m_server->setRoute("/big.png", QByteArray(3 * 1024 * 1024, 'x'));
    const PlaylistLoopPtr loop = loopOf({a, big});
    QVERIFY(walk(loop) >= 0);
    QCOMPARE(readFile(dataPath(a)), QByteArray(3000, 'a'));
    QCOMPARE(loop->items.last()->url, QString("file://:/image/nothing_to_display.png"));
    QVERIFY(!QFile::exists(dataPath(big)));
    QCOMPARE(incompleteFiles(), QStringList());
}

void TestCacheFaults::stateFilesOnAFullDisk_data()
{
    // The file in the state folder that the player tries to replace once the disk is full.
    QTest::addColumn<QString>("name");
    QTest::newRow("stalled pages") << "stalled-pages";
    QTest::newRow("kept playlist copy") << "playlist";
    QTest::newRow("offline backup, not made before") << "playlist-old";
    QTest::newRow("proof-of-play journal") << "played-queue";
}

void TestCacheFaults::stateFilesOnAFullDisk()
{
    QFETCH(QString, name);
    const QString state = m_home->stateDir();
    const QString file = state + QLatin1Char('/') + name;
    SmallDisk disk;
    const QString why = disk.mount(state);
    if (!why.isEmpty())
        QSKIP(qPrintable(why));
    const QUrl stalled(QStringLiteral("http://stalled.example/"));
    QVERIFY(Watchdog::recordStall(stalled, QStringLiteral("script")));
    QVERIFY(writeFile(PlaylistParser::localCopyPath(), "#Vorsane playlist\nhttp://copy/ 5\n"));
    {
        PlayedQueue queue(StatePaths::playedQueue());
        QVERIFY(queue.open());
        queue.append(QJsonObject{{QStringLiteral("item"), QStringLiteral("a.png")}});
    }
    const QByteArray before = QFile::exists(file) ? readFile(file) : QByteArray();
    QStringList files = QDir(state).entryList(QDir::Files | QDir::Hidden);
    QVERIFY(disk.fill());

    LogCapture log;
    if (name == QLatin1String("stalled-pages")) {
        QVERIFY(!Watchdog::recordStall(QUrl(QStringLiteral("http://later.example/")),
                                       QStringLiteral("memory")));
        QVERIFY(Watchdog::stalledRecently(stalled));
    } else if (name == QLatin1String("played-queue")) {
        PlayedQueue queue(file);
        QVERIFY(!queue.open());
    } else {
        // The show goes on with what was fetched; only keeping it fails.
        m_server->setRoute("/playlist", "#Vorsane playlist\nhttp://new/ 5\n");
        std::unique_ptr<PlaylistParser> parser(
            PlaylistParser::get(5, m_server->url("/playlist"), nullptr));
        QCOMPARE(parser->getLoops().value(0)->items.value(0)->url, QString("http://new/"));
    }
    // The file as it was, or still none: nothing cut short, no temporary file beside it, and a
    // line that names it.
    QCOMPARE(QFile::exists(file), !before.isEmpty());
    QCOMPARE(readFile(file), before);
    files << QStringLiteral("filler");
    files.sort();
    QCOMPARE(QDir(state).entryList(QDir::Files | QDir::Hidden), files);
    const QRegularExpression failed("(Cannot write|cannot be written).*\""
                                    + QRegularExpression::escape(file) + '"');
    QVERIFY2(!log.lines().filter(failed).isEmpty(), qPrintable(log.lines().join('\n')));
}

void TestCacheFaults::fetchedPlaylistMustBeAPlaylist_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<bool>("replaces");
    const QByteArray schedule = "<schedule><loop id='0'><i uri='http://new/' type='url'/></loop>"
                                "</schedule>";
    QTest::newRow("captive portal page")
        << QByteArray("<html><head><title>Sign in</title></head><body><form/></body></html>")
        << false;
    QTest::newRow("proxy error page")
        << QByteArray("<!DOCTYPE html>\n<html><body><h1>502 Bad Gateway</h1><hr>") << false;
    QTest::newRow("half a schedule") << schedule.left(40) << false;
    QTest::newRow("schedule without a loop") << QByteArray("<schedule a='1'/>") << false;
    QTest::newRow("a schedule replaces the copy") << schedule << true;
    QTest::newRow("a flat list replaces the copy")
        << QByteArray("#Vorsane playlist\nhttp://new/ 5\n") << true;
}

void TestCacheFaults::fetchedPlaylistMustBeAPlaylist()
{
    QFETCH(QByteArray, body);
    QFETCH(bool, replaces);
    const QByteArray copy = "#Vorsane playlist\nhttp://copy/ 5\n";
    const QByteArray old = "#Vorsane playlist\nhttp://old/ 5\n";
    QVERIFY(writeFile(PlaylistParser::localCopyPath(), copy));
    QVERIFY(writeFile(PlaylistParser::offlineCopyPath(), old));
    m_server->setRoute("/playlist", body);

    LogCapture log;
    std::unique_ptr<PlaylistParser> parser(
        PlaylistParser::get(5, m_server->url("/playlist"), nullptr));
    const PlaylistLoopPtr loop = parser->getLoops().value(0);
    QCOMPARE(readFile(PlaylistParser::localCopyPath()), replaces ? body : copy);
    QCOMPARE(loop->items.value(0)->url, replaces ? "http://new/" : "http://old/");
    QCOMPARE(parser->playsOfflineCopy(), !replaces);
    QCOMPARE(log.count("rejected"), replaces ? 0 : 1);

    // A walk over the kept copy leaves it in place for the next start.
    QCOMPARE(walk(loop, true, parser->playsOfflineCopy()), 1);
    QCOMPARE(readFile(PlaylistParser::offlineCopyPath()), replaces ? QByteArray() : old);
}

void TestCacheFaults::signalMidDownloadThenRestart()
{
    const QString url = m_server->url("/big.png").toString();
    const QString picture = m_home->filePath("big.png");
    QVERIFY(makeImage(picture, QSize(1200, 900), Qt::green, "BMP"));
    m_server->setRoute("/big.png", HttpServer::Route{readFile(picture), 200, {}, Behaviour::Stall});
    const QByteArray playlist = "<schedule><loop id='0'><i uri='" + url.toUtf8()
                                + "' type='image' time='30'/></loop></schedule>";
    const QString data = m_home->stateDir() + QStringLiteral("/data");
    {
        KioskProcess kiosk;
        // Both runs share one cache.
        qputenv("HOME", QFile::encodeName(m_home->path()));
        QVERIFY(kiosk.start(playlist));
        QTRY_VERIFY_WITH_TIMEOUT(m_server->stalledConnections() > 0, 20000);
        // Ctrl-C while the set-up waits on the download ends the program at once.
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(kiosk.interrupt(5000), 2);
        QVERIFY(clock.elapsed() < 3000);
        QVERIFY(!QFile::exists(dataPath(url)));
        m_server->closeStalledConnections();
    }
    // What a transfer cut by power loss leaves is never taken for content.
    QVERIFY(writeFile(data + "/.download-AbCdEf", QByteArray(500, 'p')));

    m_server->setBehaviour("/big.png", Behaviour::Normal);
    KioskProcess kiosk;
    qputenv("HOME", QFile::encodeName(m_home->path()));
    QVERIFY(kiosk.start(playlist));
    QVERIFY(kiosk.waitForLog("Loop downloaded"));
    QCOMPARE(readFile(dataPath(url)), readFile(picture));
    QCOMPARE(incompleteFiles(), QStringList());
    kiosk.process().terminate();
    kiosk.process().waitForFinished(10000);
}

void TestCacheFaults::stalledServerAtStartUp()
{
    QByteArray items = xmlItem("file://" + m_home->filePath("red.png"), "image");
    QVERIFY(makeImage(m_home->filePath("red.png"), QSize(64, 48), Qt::red, "PNG"));
    for (const char *name : {"/a.png", "/b.png", "/c.png"}) {
        m_server->setRoute(name, HttpServer::Route{"x", 200, {}, Behaviour::Stall});
        items += xmlItem(m_server->url(name).toString(), "image");
    }
    KioskProcess kiosk;
    QElapsedTimer clock;
    clock.start();
    QVERIFY(kiosk.start(schedule(xmlLoop("id='0'", items))));
    QTRY_VERIFY_WITH_TIMEOUT(m_server->stalledConnections() > 0, 20000);
    // The set-up waits on the downloads: the command is kept until it is over.
    KioskProcess::sendDatagram("{\"action\":1}");
    QVERIFY(kiosk.waitForLog("carried out when it is over"));
    // The show starts after one shared wait, not one wait per item; the kept "next" moves on
    // from the first item to the demo picture.
    QTRY_VERIFY_WITH_TIMEOUT(KioskProcess::screenColor().isValid(), 40000);
    QVERIFY2(clock.elapsed() < 25000, QByteArray::number(clock.elapsed()));
    QVERIFY(QTest::qWaitFor(
        [] {
            KioskProcess::sendDatagram("{\"action\":3}");
            const QColor shot = KioskProcess::screenColor();
            return shot.isValid() && shot != QColor(Qt::red) && shot != QColor(Qt::black);
        },
        15000));
}

void TestCacheFaults::keptPlaylistPlaysWhateverTheServer_data()
{
    QTest::addColumn<bool>("playlistAnswers");
    QTest::addColumn<int>("lastEditBehaviour");
    QTest::addColumn<QByteArray>("lastEdit");
    QTest::addColumn<QByteArray>("logged");

    QTest::newRow("accepts and never answers")
        << false << int(Behaviour::Stall) << QByteArray("x") << QByteArray();
    QTest::newRow("answers the playlist, streams an endless last edit")
        << true << int(Behaviour::Chunked) << QByteArray(8 * 1024 * 1024, '7')
        << QByteArray("longer than 4096 bytes; ignored");
}

void TestCacheFaults::keptPlaylistPlaysWhateverTheServer()
{
    QFETCH(bool, playlistAnswers);
    QFETCH(int, lastEditBehaviour);
    QFETCH(QByteArray, lastEdit);
    QFETCH(QByteArray, logged);

    QByteArray png;
    {
        QImage picture(64, 48, QImage::Format_RGB32);
        picture.fill(Qt::red);
        QBuffer buffer(&png);
        picture.save(&buffer, "PNG");
    }
    m_server->setRoute("/red.png", png, 200, {{"Last-Modified", "Mon, 02 Nov 2026 10:00:00 GMT"}});
    m_server->setRoute(
        "/p/screen/list",
        schedule(xmlLoop("id='0'", xmlItem(m_server->url("/red.png").toString(), "image", 600))));
    m_server->setRoute("/webapp/db/getEdit/screen/playlist/", "2026;11;02;10;00;00;");
    const QByteArray preferences = "[slideshow]\nplaylist_update_mode=serverVorsaneTV\npages="
                                   + m_server->url("/p/screen/list").toEncoded() + "\n";
    auto shows = [](const QColor &colour, int timeoutMs) {
        return QTest::qWaitFor(
            [&] {
                KioskProcess::sendDatagram("{\"action\":3}");
                return KioskProcess::screenColor() == colour;
            },
            timeoutMs);
    };
    KioskProcess kiosk;
    // A first run keeps the playlist and its picture.
    QVERIFY(kiosk.start(QByteArray(), preferences));
    QVERIFY2(shows(Qt::red, 20000), kiosk.log().right(2000));
    QCOMPARE(kiosk.interrupt(), 2);
    QFile::remove(QStringLiteral("/tmp/screen.png"));

    // After a power cut the network is back before the server is.
    m_server->setRoute("/red.png", HttpServer::Route{"x", 200, {}, Behaviour::Stall});
    if (!playlistAnswers)
        m_server->setRoute("/p/screen/list", HttpServer::Route{"x", 200, {}, Behaviour::Stall});
    m_server->setRoute("/webapp/db/getEdit/screen/playlist/",
                       HttpServer::Route{lastEdit, 200, {}, Behaviour(lastEditBehaviour)});
    QElapsedTimer clock;
    clock.start();
    QVERIFY(kiosk.start(QByteArray(), preferences));
    QVERIFY2(shows(Qt::red, 10000), kiosk.log().right(2000));
    qDebug() << "Kept playlist on screen after" << clock.elapsed() << "ms";
    QVERIFY(kiosk.log().contains("Starting from the kept playlist"));
    // The server is asked behind the show, which stays on screen meanwhile.
    QTRY_VERIFY_WITH_TIMEOUT(m_server->stalledConnections() > 0, 10000);
    if (!logged.isEmpty())
        QVERIFY2(kiosk.waitForLog(logged, 10000), kiosk.log().right(2000));
    QVERIFY(shows(Qt::red, 2000));
    QCOMPARE(kiosk.process().state(), QProcess::Running);
    QCOMPARE(kiosk.interrupt(), 2);
}

QTEST_MAIN(TestCacheFaults)
#include "tst_cachefaults.moc"
