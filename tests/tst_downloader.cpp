#include "commandlineparser.h"
#include "downloader.h"
#include "httpserver.h"
#include "itemdownloader.h"
#include "playlistitem.h"
#include "playlistloop.h"
#include "settings.h"
#include "testsupport.h"
#include "utils.h"

#include <QDir>
#include <QDomDocument>
#include <QElapsedTimer>
#include <QFile>
#include <QPointer>
#include <QSignalSpy>
#include <QTcpServer>
#include <QtTest>

using namespace testsupport;
using Behaviour = HttpServer::Behaviour;

namespace {
const QByteArray monday = "Mon, 01 Jan 2024 10:00:00 GMT";
const QByteArray tuesday = "Tue, 02 Jan 2024 10:00:00 GMT";
const QString nothingToDisplay = "file://:/image/nothing_to_display.png";
const int testTimeoutMs = 1500;

QByteArray body(int size, char fill)
{
    QByteArray bytes(size, fill);
    for (int i = 0; i < size; i += 89)
        bytes[i] = char('A' + i % 26);
    return bytes;
}

PlaylistItemPtr item(const QString &url, PlaylistItem::Type type = PlaylistItem::Image)
{
    return std::make_shared<PlaylistItem>(url, type, 7, false, QStringList());
}

std::unique_ptr<PlaylistLoop> makeLoop(const QString &tag, const QList<PlaylistItemPtr> &items)
{
    QDomDocument document;
    document.setContent(QStringLiteral("<loop/>"));
    auto loop = std::make_unique<PlaylistLoop>(5, document.documentElement(), tag);
    loop->items = items;
    return loop;
}

struct Walk
{
    int done = 0;
    int notDone = 0;
    bool deleted = false;
    bool endedAtOnce = false;
};
} // namespace

class TestDownloader : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void cleanup();

    void cacheName_data();
    void cacheName();
    void constructorCreatesCache();
    void walkCachesAndRewrites();
    void secondWalkDownloadsNothing_data();
    void secondWalkDownloadsNothing();
    void changedResourceIsFetchedAgain();
    void zipIsFetchedOnEveryWalk();
    void truncatedCacheFileIsFetchedAgain();
    void serverRelativeAddress();
    void serverDownTrustsCache();
    void unansweredRevalidationIsNotRepeated();
    void failingItem_data();
    void failingItem();
    void failureWithoutPreviousPlaylist();
    void notEnoughSpaceShowsNothingToDisplay();
    void cantFindResource_data();
    void cantFindResource();
    void maintenance_data();
    void maintenance();
    void duplicateAddresses();
    void veryLongAddress();
    void nothingToFetch_data();
    void nothingToFetch();
    void sharedLoopOutlivesItsOwner();

private:
    QString url(const QString &path) const { return m_server->url(path).toString(); }
    QString dataPath(const QString &address) const
    {
        return m_cache + "/data/" + Downloader::cacheName(address);
    }
    QString tagPath(const QString &address) const
    {
        return m_cache + "/etag/" + Downloader::cacheName(address);
    }
    void walk(PlaylistLoop *loop, bool checkOnline, Walk &result);
    // A loop of the three pictures the server holds.
    std::unique_ptr<PlaylistLoop> pictures() const;

    FakePrograms m_fakes;
    QTemporaryDir m_settingsDir;
    std::unique_ptr<CommandLineParser> m_parser;
    std::unique_ptr<TempHome> m_home;
    std::unique_ptr<HttpServer> m_server;
    QString m_cache;
};

void TestDownloader::initTestCase()
{
    m_fakes.add("launchdock");
    m_parser = makeParser(m_settingsDir.path());
    Settings::load(true, m_parser.get());
    PlaylistItem::initStrings();
    ItemDownloader::setTimeouts(testTimeoutMs, testTimeoutMs);
}

void TestDownloader::cleanupTestCase()
{
    ItemDownloader::setTimeouts(ItemDownloader::RevalidationTimeoutMs,
                                ItemDownloader::StallTimeoutMs);
}

void TestDownloader::init()
{
    m_home = std::make_unique<TempHome>();
    m_cache = m_home->path() + "/.vorsane-kiosk";
    m_server = std::make_unique<HttpServer>();
    QVERIFY(m_server->isListening());
    m_server->setRoute("/a.jpg", body(30000, 'a'), 200, {{"Last-Modified", monday}});
    m_server->setRoute("/b.png", body(12000, 'b'), 200, {{"Last-Modified", monday}});
    m_server->setRoute("/c.gif", body(500, 'c'), 200, {{"Last-Modified", monday}});
}

void TestDownloader::cleanup()
{
    m_server.reset();
    m_home.reset();
}

std::unique_ptr<PlaylistLoop> TestDownloader::pictures() const
{
    return makeLoop(url("/p/screen/playlist"), {item(url("/a.jpg")), item(url("/b.png")),
                                                item(url("/c.gif"), PlaylistItem::Gif)});
}

void TestDownloader::walk(PlaylistLoop *loop, bool checkOnline, Walk &result)
{
    QPointer<Downloader> downloader = new Downloader(loop, checkOnline);
    QSignalSpy done(downloader.data(), &Downloader::downloadDone);
    QSignalSpy notDone(downloader.data(), &Downloader::downloadNotDone);
    downloader->start();
    result.endedAtOnce = done.count() + notDone.count() > 0;
    QTRY_VERIFY_WITH_TIMEOUT(done.count() + notDone.count() > 0, 30000);
    // Exactly one end signal, and then the downloader is gone.
    QTRY_VERIFY(downloader.isNull());
    result.done = done.count();
    result.notDone = notDone.count();
    result.deleted = downloader.isNull();
}

void TestDownloader::cacheName_data()
{
    QTest::addColumn<QString>("address");
    QTest::addColumn<QString>("name");

    QTest::newRow("slash of base64 becomes a dash") << "http://server/\u00e9.jpg"
                                                    << "aHR0cDovL3NlcnZlci-DqS5qcGc=";
    QTest::newRow("plus stays") << "http://h/?~~"
                                << "aHR0cDovL2gvP35+";
    QTest::newRow("server-relative address") << "/media/a.jpg"
                                             << "L21lZGlhL2EuanBn";
    QTest::newRow("empty") << QString() << QString();
}

void TestDownloader::cacheName()
{
    QFETCH(QString, address);
    QFETCH(QString, name);
    QCOMPARE(Downloader::cacheName(address), name);
}

void TestDownloader::constructorCreatesCache()
{
    auto loop = makeLoop(QString(), {});
    auto *downloader = new Downloader(loop.get(), true);
    QVERIFY(QFileInfo(m_cache + "/data").isDir());
    QVERIFY(QFileInfo(m_cache + "/etag").isDir());
    QVERIFY(!downloader->isDone());
    delete downloader;
}

void TestDownloader::walkCachesAndRewrites()
{
    const QString local = "file://" + m_home->path() + "/local.jpg";
    QVERIFY(makeImage(m_home->path() + "/local.jpg", QSize(8, 8), Qt::red));
    m_server->setRoute("/page.html", "<html></html>");
    auto loop = makeLoop(url("/p/screen/playlist"),
                         {item(url("/a.jpg")), item(local), item(url("/b.png")),
                          item("rtsp://camera/stream", PlaylistItem::Video),
                          item(url("/page.html"), PlaylistItem::Webpage),
                          item(url("/c.gif"), PlaylistItem::Gif)});
    const PlaylistItemPtr first = loop->items.at(0);
    QDir().mkpath(m_cache);
    QVERIFY(writeFile(m_cache + "/playlist-old", "old playlist"));
    LogCapture log;

    Walk result;
    walk(loop.get(), true, result);
    if (QTest::currentTestFailed())
        return;

    QCOMPARE(result.done, 1);
    QCOMPARE(result.notDone, 0);
    QVERIFY(result.deleted);
    QVERIFY(!result.endedAtOnce);
    for (const QString &path : {QString("/a.jpg"), QString("/b.png"), QString("/c.gif")}) {
        QCOMPARE(readFile(dataPath(url(path))), m_server->route(path).body);
        QCOMPARE(readFile(tagPath(url(path))),
                 monday + ':' + QByteArray::number(m_server->route(path).body.size()));
    }
    QCOMPARE(loop->items.at(0)->url, "file://" + dataPath(url("/a.jpg")));
    QCOMPARE(loop->items.at(2)->url, "file://" + dataPath(url("/b.png")));
    QCOMPARE(loop->items.at(5)->url, "file://" + dataPath(url("/c.gif")));
    // The item itself is pointed at the cache: whoever holds it sees the cache file.
    QCOMPARE(first->url, loop->items.at(0)->url);
    QCOMPARE(loop->items.at(5)->type, PlaylistItem::Gif);
    QCOMPARE(loop->items.at(1)->url, local);
    QCOMPARE(loop->items.at(3)->url, QString("rtsp://camera/stream"));
    QCOMPARE(loop->items.at(4)->url, url("/page.html"));
    QCOMPARE(m_server->requestCount("/page.html"), 0);
    QCOMPARE(QDir(m_cache + "/data").entryList(QDir::Files).size(), 3);
    QVERIFY(!QFile::exists(m_cache + "/playlist-old"));
    QVERIFY(log.contains("DL idx: 0 / 5"));
    QVERIFY(log.contains("DL idx: 5 / 5"));
    QCOMPARE(log.count("DL idx:"), 6);
}

void TestDownloader::secondWalkDownloadsNothing_data()
{
    QTest::addColumn<bool>("checkOnline");
    QTest::addColumn<int>("heads");

    QTest::newRow("revalidated") << true << 3;
    QTest::newRow("cache trusted") << false << 0;
}

void TestDownloader::secondWalkDownloadsNothing()
{
    QFETCH(bool, checkOnline);
    QFETCH(int, heads);

    auto first = pictures();
    Walk result;
    walk(first.get(), true, result);
    QCOMPARE(result.done, 1);
    m_server->clearRequests();
    LogCapture log;

    auto second = pictures();
    walk(second.get(), checkOnline, result);

    QCOMPARE(result.done, 1);
    int gets = 0;
    for (const HttpServer::Request &request : m_server->requests())
        gets += request.method == "GET" ? 1 : 0;
    QCOMPARE(gets, 0);
    QCOMPARE(m_server->totalRequests(), heads);
    QCOMPARE(log.count("NOT downloading"), 3);
    for (int i = 0; i < 3; ++i)
        QCOMPARE(second->items.at(i)->url, first->items.at(i)->url);
}

void TestDownloader::changedResourceIsFetchedAgain()
{
    auto first = pictures();
    Walk result;
    walk(first.get(), true, result);
    QCOMPARE(result.done, 1);
    m_server->clearRequests();

    const QByteArray fresh = body(15000, 'n');
    m_server->setBody("/b.png", fresh);
    m_server->setHeader("/b.png", "Last-Modified", tuesday);
    auto second = pictures();
    walk(second.get(), true, result);

    QCOMPARE(result.done, 1);
    QCOMPARE(m_server->requestCount("GET", "/a.jpg"), 0);
    QCOMPARE(m_server->requestCount("GET", "/c.gif"), 0);
    QVERIFY(m_server->requestCount("GET", "/b.png") > 0);
    QCOMPARE(readFile(dataPath(url("/b.png"))), fresh);
    QCOMPARE(readFile(tagPath(url("/b.png"))), tuesday + ":15000");
}

void TestDownloader::zipIsFetchedOnEveryWalk()
{
    m_server->setRoute("/update.zip", body(2000, 'z'), 200, {{"Last-Modified", monday}});
    for (int round = 1; round <= 2; ++round) {
        auto loop = makeLoop(QString(), {item(url("/update.zip"), PlaylistItem::Maintenance)});
        Walk result;
        walk(loop.get(), false, result);
        QCOMPARE(result.done, 1);
        QCOMPARE(m_server->requestCount("GET", "/update.zip"), 2 * round);
    }
    QCOMPARE(readFile(dataPath(url("/update.zip"))), body(2000, 'z'));
}

void TestDownloader::truncatedCacheFileIsFetchedAgain()
{
    QDir().mkpath(m_cache + "/data");
    QDir().mkpath(m_cache + "/etag");
    const QByteArray whole = m_server->route("/a.jpg").body;
    QVERIFY(writeFile(dataPath(url("/a.jpg")), whole.left(1000)));
    QVERIFY(writeFile(tagPath(url("/a.jpg")), monday + ":30000"));
    // Without revalidation the size check alone must catch the cut copy.
    auto loop = makeLoop(QString(), {item(url("/a.jpg"))});
    Walk result;
    walk(loop.get(), false, result);

    QCOMPARE(result.done, 1);
    QCOMPARE(readFile(dataPath(url("/a.jpg"))), whole);
}

void TestDownloader::serverRelativeAddress()
{
    m_server->setRoute("/r/media/x.jpg", "relative picture", 200, {{"Last-Modified", monday}});
    auto loop = makeLoop(url("/p/screen/playlist.xml?key=1"), {item("/media/x.jpg")});

    Walk result;
    walk(loop.get(), true, result);

    QCOMPARE(result.done, 1);
    QVERIFY(m_server->requestCount("GET", "/r/media/x.jpg") > 0);
    // The cache name comes from the address as the playlist gives it.
    QCOMPARE(readFile(dataPath("/media/x.jpg")), QByteArray("relative picture"));
    QCOMPARE(loop->items.at(0)->url, "file://" + dataPath("/media/x.jpg"));
}

void TestDownloader::serverDownTrustsCache()
{
    auto first = pictures();
    Walk result;
    walk(first.get(), true, result);
    QCOMPARE(result.done, 1);
    const quint16 port = m_server->port();
    m_server.reset();

    const QString base = QString("http://127.0.0.1:%1").arg(port);
    auto second = makeLoop(base + "/p/screen/playlist",
                           {item(base + "/a.jpg"), item(base + "/b.png"), item(base + "/c.gif")});
    LogCapture log;
    walk(second.get(), true, result);

    QCOMPARE(result.done, 1);
    QCOMPARE(result.notDone, 0);
    QCOMPARE(log.count("NOT downloading"), 3);
    QCOMPARE(second->items.at(1)->url, "file://" + dataPath(base + "/b.png"));
}

void TestDownloader::unansweredRevalidationIsNotRepeated()
{
    auto first = pictures();
    Walk result;
    walk(first.get(), true, result);
    QCOMPARE(result.done, 1);
    for (const QString &path : {QString("/a.jpg"), QString("/b.png"), QString("/c.gif")})
        m_server->setBehaviour(path, Behaviour::Stall);
    m_server->clearRequests();
    LogCapture log;
    QElapsedTimer clock;
    clock.start();

    auto second = pictures();
    walk(second.get(), true, result);

    QCOMPARE(result.done, 1);
    QCOMPARE(log.count("NOT downloading"), 3);
    // One revalidation waits out the limit; the others trust the cache at once.
    QCOMPARE(m_server->totalRequests(), 1);
    QCOMPARE(m_server->requestCount("HEAD", "/a.jpg"), 1);
    QVERIFY(clock.elapsed() < 3 * testTimeoutMs);
    QVERIFY(log.contains("Server not answering"));
}

void TestDownloader::failingItem_data()
{
    QTest::addColumn<QString>("failure");
    QTest::addColumn<bool>("cacheEmpty");

    for (const char *failure :
         {"not found", "server error", "server stalls", "connection cut mid-body",
          "declared length longer than body", "server down", "no server for a relative address"}) {
        QTest::addRow("%s", failure) << failure << false;
    }
    QTest::newRow("not found, cache empty") << "not found" << true;
}

void TestDownloader::failingItem()
{
    QFETCH(QString, failure);
    QFETCH(bool, cacheEmpty);

    HttpServer::Route route{body(50000, 'f'), 200, {{"Last-Modified", monday}}};
    QString address = url("/fail.mp4");
    QString tag = url("/p/screen/playlist");
    if (failure == "not found")
        route.status = 404;
    else if (failure == "server error")
        route.status = 500;
    else if (failure == "server stalls")
        route.behaviour = Behaviour::Stall;
    else if (failure == "connection cut mid-body")
        route.behaviour = Behaviour::CutBody;
    else if (failure == "declared length longer than body")
        route.behaviour = Behaviour::LongerLength;
    else if (failure == "server down")
        address = QString("http://127.0.0.1:%1/fail.mp4").arg(closedPort());
    else if (failure == "no server for a relative address") {
        address = "/fail.mp4";
        tag.clear();
    }
    m_server->setRoute("/fail.mp4", route);

    QDir().mkpath(m_cache + "/data");
    QDir().mkpath(m_cache + "/etag");
    const QByteArray picture = m_server->route("/c.gif").body;
    if (!cacheEmpty) {
        QVERIFY(writeFile(dataPath(url("/c.gif")), picture));
        QVERIFY(writeFile(tagPath(url("/c.gif")), monday + ":500"));
    }
    QVERIFY(writeFile(m_cache + "/playlist", "new playlist"));
    QVERIFY(writeFile(m_cache + "/playlist-old", "last good playlist"));
    QVERIFY(writeFile(m_cache + "/playlist_last_timestamp.txt", "Mon Jan 1 10:00:00 2024"));

    auto loop = makeLoop(
        tag, {item(address, PlaylistItem::Video), item(url("/c.gif")), item(url("/a.jpg"))});
    LogCapture log;
    QElapsedTimer clock;
    clock.start();
    Walk result;
    walk(loop.get(), true, result);
    if (QTest::currentTestFailed())
        return;

    // The walk always ends, within the stall bound, and goes on after the failed item.
    QVERIFY(clock.elapsed() < 3 * testTimeoutMs + 10000);
    QCOMPARE(readFile(dataPath(url("/a.jpg"))), m_server->route("/a.jpg").body);
    QCOMPARE(readFile(dataPath(url("/c.gif"))), picture);
    QVERIFY(!QFile::exists(dataPath(address)));
    QCOMPARE(loop->items.at(0)->url, "file://" + dataPath(address));
    if (cacheEmpty) {
        QCOMPARE(result.done, 1);
        QCOMPARE(result.notDone, 0);
        QVERIFY(log.contains("Network error, nothing in cache. Exit."));
        QCOMPARE(readFile(m_cache + "/playlist"), QByteArray("new playlist"));
        QVERIFY(!QFile::exists(m_cache + "/playlist-old"));
        QCOMPARE(readFile(m_cache + "/playlist_last_timestamp.txt"),
                 QByteArray("Mon Jan 1 10:00:00 2024"));
        return;
    }
    QCOMPARE(result.done, 0);
    QCOMPARE(result.notDone, 1);
    QVERIFY(log.contains("Errors occured while downloading."));
    QCOMPARE(readFile(m_cache + "/playlist"), QByteArray("last good playlist"));
    QCOMPARE(readFile(m_cache + "/playlist-old"), QByteArray("last good playlist"));
    QCOMPARE(readFile(m_cache + "/playlist_last_timestamp.txt"), QByteArray());
    // After the failure the cached copy is trusted without asking the server.
    QCOMPARE(m_server->requestCount("HEAD", "/c.gif"), 0);
    QCOMPARE(m_server->requestCount("GET", "/c.gif"), 0);
}

void TestDownloader::failureWithoutPreviousPlaylist()
{
    m_server->setRoute("/fail.mp4", "gone", 404);
    QDir().mkpath(m_cache + "/etag");
    QVERIFY(writeFile(m_cache + "/etag/unrelated", "x:1"));
    QVERIFY(writeFile(m_cache + "/data/unrelated", "y"));
    QVERIFY(writeFile(m_cache + "/playlist", "current playlist"));
    auto loop = makeLoop(QString(), {item(url("/fail.mp4"), PlaylistItem::Video)});
    LogCapture log;

    Walk result;
    walk(loop.get(), true, result);

    QCOMPARE(result.notDone, 1);
    QCOMPARE(readFile(m_cache + "/playlist"), QByteArray("current playlist"));
    QVERIFY(!QFile::exists(m_cache + "/playlist-old"));
    QVERIFY(log.contains("No previous playlist to restore"));
}

void TestDownloader::notEnoughSpaceShowsNothingToDisplay()
{
    m_server->setRoute("/huge.mp4", body(3000, 'h'), 200,
                       {{"Content-Length", QByteArray::number(Utils::totalDiskSpace() * 8)}});
    auto loop
        = makeLoop(QString(), {item(url("/a.jpg")), item(url("/huge.mp4"), PlaylistItem::Video),
                               item(url("/b.png"))});
    QVERIFY(writeFile(m_cache + "/playlist-old", "old"));
    LogCapture log;

    Walk result;
    walk(loop.get(), true, result);

    QCOMPARE(result.done, 1);
    QVERIFY(log.contains("Not enough space..."));
    const PlaylistItemPtr replaced = loop->items.at(1);
    QCOMPARE(replaced->url, nothingToDisplay);
    QCOMPARE(replaced->duration, 10);
    QCOMPARE(replaced->href, false);
    QVERIFY(replaced->parameters.isEmpty());
    QVERIFY(!QFile::exists(dataPath(url("/huge.mp4"))));
    QCOMPARE(readFile(dataPath(url("/b.png"))), m_server->route("/b.png").body);
    QVERIFY(!QFile::exists(m_cache + "/playlist-old"));
}

void TestDownloader::cantFindResource_data()
{
    QTest::addColumn<QByteArray>("marker");
    QTest::addColumn<bool>("replaced");

    QTest::newRow("marker says the resource is missing")
        << QByteArray("Error 12: can't find resource /a.jpg\n") << true;
    QTest::newRow("marker with other text") << QByteArray("all is well") << false;
    QTest::newRow("marker in other case") << QByteArray("Can't Find Resource") << false;
}

void TestDownloader::cantFindResource()
{
    QFETCH(QByteArray, marker);
    QFETCH(bool, replaced);

    // The marker is named by the third "/" part of the address, relative to the working
    // directory: for the test server that is "127.0.0.1:<port>".
    const QString previous = QDir::currentPath();
    QVERIFY(QDir::setCurrent(m_home->path()));
    QVERIFY(writeFile(m_home->path() + QString("/127.0.0.1:%1").arg(m_server->port()), marker));
    auto loop = makeLoop(QString(), {item(url("/a.jpg"))});
    LogCapture log;

    Walk result;
    walk(loop.get(), true, result);
    QDir::setCurrent(previous);

    QCOMPARE(result.done, 1);
    QCOMPARE(log.contains("Can't find resource : nothing to display."), replaced);
    if (replaced) {
        QCOMPARE(loop->items.at(0)->url, nothingToDisplay);
        QCOMPARE(loop->items.at(0)->duration, 10);
        QCOMPARE(m_server->totalRequests(), 0);
    } else {
        QCOMPARE(loop->items.at(0)->url, "file://" + dataPath(url("/a.jpg")));
        QVERIFY(QFile::exists(dataPath(url("/a.jpg"))));
    }
}

void TestDownloader::maintenance_data()
{
    QTest::addColumn<QByteArray>("result");
    QTest::addColumn<int>("type");
    QTest::addColumn<bool>("replaced");
    QTest::addColumn<bool>("resultKept");

    QTest::newRow("maintenance item after a good update")
        << QByteArray("...\nUpdate succeed!\n") << int(PlaylistItem::Maintenance) << true << true;
    QTest::newRow("maintenance item after a failed update")
        << QByteArray("Update failed") << int(PlaylistItem::Maintenance) << false << true;
    QTest::newRow("any other item drops the result")
        << QByteArray("Update succeed!") << int(PlaylistItem::Image) << false << false;
}

void TestDownloader::maintenance()
{
    QFETCH(QByteArray, result);
    QFETCH(int, type);
    QFETCH(bool, replaced);
    QFETCH(bool, resultKept);

    m_server->setRoute("/maintenance.sh", "#!/bin/sh\necho update\n", 200,
                       {{"Last-Modified", monday}});
    QVERIFY(writeFile(m_cache + "/data/maintenance.txt", result));
    auto loop = makeLoop(QString(), {item(url("/maintenance.sh"), PlaylistItem::Type(type))});
    LogCapture log;

    Walk walkResult;
    walk(loop.get(), true, walkResult);

    QCOMPARE(walkResult.done, 1);
    QCOMPARE(log.contains("Maintenance done. Wait for new playlist."), replaced);
    QCOMPARE(loop->items.at(0)->url == nothingToDisplay, replaced);
    QCOMPARE(m_server->totalRequests() == 0, replaced);
    QCOMPARE(QFile::exists(m_cache + "/data/maintenance.txt"), resultKept);
}

void TestDownloader::duplicateAddresses()
{
    auto loop
        = makeLoop(QString(), {item(url("/a.jpg")), item(url("/b.png")), item(url("/a.jpg"))});

    Walk result;
    walk(loop.get(), true, result);

    QCOMPARE(result.done, 1);
    QCOMPARE(loop->items.at(0)->url, loop->items.at(2)->url);
    QCOMPARE(readFile(dataPath(url("/a.jpg"))), m_server->route("/a.jpg").body);
    // Fetched once; the second occurrence finds the fresh copy and only revalidates it.
    QCOMPARE(m_server->requestCount("GET", "/a.jpg"), 2);
    QCOMPARE(m_server->requestCount("HEAD", "/a.jpg"), 1);
}

void TestDownloader::veryLongAddress()
{
    const QString path = "/" + QString(5000, 'v') + ".jpg";
    m_server->setRoute(path, "long picture");
    auto loop = makeLoop(QString(), {item(url(path)), item(url("/c.gif"))});
    LogCapture log;

    Walk result;
    walk(loop.get(), true, result);

    QCOMPARE(result.done, 1);
    QCOMPARE(loop->items.at(0)->url, nothingToDisplay);
    QVERIFY(log.contains("too long"));
    QCOMPARE(readFile(dataPath(url("/c.gif"))), m_server->route("/c.gif").body);
}

void TestDownloader::nothingToFetch_data()
{
    QTest::addColumn<bool>("withLoop");

    QTest::newRow("only local items") << true;
    QTest::newRow("no loop at all") << false;
}

void TestDownloader::nothingToFetch()
{
    QFETCH(bool, withLoop);

    QDir().mkpath(m_cache);
    QVERIFY(writeFile(m_cache + "/playlist-old", "old"));
    auto loop = makeLoop(QString(), {item("file:///nowhere/a.jpg"),
                                     item("rtsp://camera/one", PlaylistItem::Video),
                                     item(url("/page.html"), PlaylistItem::Webpage)});
    const QList<PlaylistItemPtr> before = loop->items;

    Walk result;
    walk(withLoop ? loop.get() : nullptr, true, result);

    QCOMPARE(result.done, 1);
    QCOMPARE(result.notDone, 0);
    // The end is reported once the caller waits for it, never from inside start().
    QVERIFY(!result.endedAtOnce);
    QVERIFY(!QFile::exists(m_cache + "/playlist-old"));
    QCOMPARE(loop->items, before);
    QCOMPARE(loop->items.at(0)->url, QString("file:///nowhere/a.jpg"));
    QVERIFY(QDir(m_cache + "/data").entryList(QDir::Files).isEmpty());
    QCOMPARE(m_server->totalRequests(), 0);
}

void TestDownloader::sharedLoopOutlivesItsOwner()
{
    PlaylistLoopPtr loop = pictures();
    const std::weak_ptr<PlaylistLoop> watch = loop;
    QPointer<Downloader> downloader = new Downloader(loop, true);
    QSignalSpy done(downloader.data(), &Downloader::downloadDone);

    downloader->start();
    loop.reset();

    QVERIFY(!watch.expired());
    QTRY_COMPARE_WITH_TIMEOUT(done.count(), 1, 30000);
    QTRY_VERIFY(downloader.isNull());
    QVERIFY(watch.expired());
    QCOMPARE(readFile(dataPath(url("/c.gif"))), m_server->route("/c.gif").body);
}

QTEST_GUILESS_MAIN(TestDownloader)
#include "tst_downloader.moc"
