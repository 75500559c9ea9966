#include "cleanser.h"
#include "commandlineparser.h"
#include "downloader.h"
#include "httpserver.h"
#include "itemdownloader.h"
#include "playlistparser.h"
#include "settings.h"
#include "testsupport.h"
#include "utils.h"

#include <QSignalSpy>
#include <QtTest>

using namespace testsupport;
using Behaviour = HttpServer::Behaviour;

Q_DECLARE_METATYPE(testsupport::HttpServer::Behaviour)

namespace {
const QByteArray monday = "Mon, 01 Jan 2024 10:00:00 GMT";
const QByteArray tuesday = "Tue, 02 Jan 2024 10:00:00 GMT";
const int testTimeoutMs = 1500;

QByteArray body(int size, char fill)
{
    QByteArray bytes(size, fill);
    for (int i = 0; i < size; i += 97)
        bytes[i] = char('a' + i % 26);
    return bytes;
}

void setAge(const QString &path, int days)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadWrite));
    QVERIFY(file.setFileTime(QDateTime::currentDateTime().addDays(-days).addSecs(-60),
                             QFileDevice::FileModificationTime));
}
} // namespace

// The content cache: one item fetched, revalidated and stored against a local server, and the
// clean-up that keeps the cache consistent and the disk from filling.
class TestCache : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void cleanup();
    void item_data();
    void item();
    void hopelessRequestKeepsTheCache();
    void cleanRemovesWhatCannotBeTrusted();
    void namedEntriesSurviveCleanUp();

private:
    QString dataPath(const QString &name) const { return m_cache + "/data/" + name; }
    QString tagPath(const QString &name) const { return m_cache + "/etag/" + name; }
    // A cache entry: body and the tag vouching for it, aged in days.
    void store(const QString &name, const QByteArray &content, const QByteArray &tag, int days = 3);

    FakePrograms m_fakes;
    QTemporaryDir m_settingsDir;
    std::unique_ptr<TempHome> m_home;
    std::unique_ptr<CommandLineParser> m_parser;
    QString m_cache;
    Settings *m_settings = nullptr;
};

void TestCache::initTestCase()
{
    m_fakes.add("launchdock");
    m_parser = makeParser(m_settingsDir.path());
    m_settings = Settings::load(true, m_parser.get());
    ItemDownloader::setTimeouts(testTimeoutMs, testTimeoutMs);
}

void TestCache::cleanupTestCase()
{
    ItemDownloader::setTimeouts(ItemDownloader::RevalidationTimeoutMs,
                                ItemDownloader::StallTimeoutMs);
}

void TestCache::init()
{
    m_home = std::make_unique<TempHome>();
    m_cache = m_home->stateDir();
    QVERIFY(QDir().mkpath(m_cache + "/data"));
    QVERIFY(QDir().mkpath(m_cache + "/etag"));
}

void TestCache::cleanup()
{
    m_home.reset();
}

void TestCache::store(const QString &name, const QByteArray &content, const QByteArray &tag,
                      int days)
{
    if (!content.isNull()) {
        QVERIFY(writeFile(dataPath(name), content));
        setAge(dataPath(name), days);
    }
    if (!tag.isNull()) {
        QVERIFY(writeFile(tagPath(name), tag));
        setAge(tagPath(name), days);
    }
}

void TestCache::item_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QByteArray>("cached");
    QTest::addColumn<QByteArray>("cachedTag");
    QTest::addColumn<QByteArray>("served");
    QTest::addColumn<QByteArray>("lastModified");
    QTest::addColumn<int>("status");
    QTest::addColumn<Behaviour>("behaviour");
    QTest::addColumn<bool>("online");
    QTest::addColumn<int>("gets");
    QTest::addColumn<int>("heads");
    QTest::addColumn<QByteArray>("after");

    const QByteArray none;
    const QByteArray old = body(3000, 'o');
    const QByteArray fresh = body(3000, 'n');
    const QByteArray bigger = body(4500, 'b');
    const auto normal = Behaviour::Normal;
    // A first GET only serves the size check; the body comes with the second.
    QTest::newRow("fresh download")
        << "/a.jpg" << none << none << fresh << monday << 200 << normal << true << 2 << 0 << fresh;
    QTest::newRow("unchanged copy revalidated") << "/a.jpg" << old << monday + ":3000" << old
                                                << monday << 200 << normal << true << 0 << 1 << old;
    QTest::newRow("copy trusted without asking")
        << "/a.jpg" << old << monday + ":3000" << fresh << tuesday << 200 << normal << false << 0
        << 0 << old;
    QTest::newRow("changed length fetched again")
        << "/a.jpg" << old << monday + ":3000" << bigger << monday << 200 << normal << true << 2
        << 1 << bigger;
    QTest::newRow("same length, new date fetched again")
        << "/a.jpg" << old << monday + ":3000" << fresh << tuesday << 200 << normal << true << 2
        << 1 << fresh;
    QTest::newRow("copy cut short fetched again")
        << "/a.jpg" << old.left(600) << monday + ":3000" << fresh << monday << 200 << normal
        << false << 2 << 0 << fresh;
    QTest::newRow("zip fetched on every walk")
        << "/update.zip" << old << monday + ":3000" << fresh << monday << 200 << normal << false
        << 2 << 0 << fresh;
    QTest::newRow("revalidation error trusts the copy")
        << "/a.jpg" << old << monday + ":3000" << none << monday << 500 << normal << true << 0 << 1
        << old;
    QTest::newRow("stalled revalidation trusts the copy")
        << "/a.jpg" << old << monday + ":3000" << fresh << monday << 200 << Behaviour::Stall << true
        << 0 << 1 << old;
    QTest::newRow("body cut short is not stored")
        << "/a.jpg" << none << none << fresh << monday << 200 << Behaviour::CutBody << true << 2
        << 0 << none;
    QTest::newRow("chunked body tagged by its stored size")
        << "/a.jpg" << none << none << fresh << monday << 200 << Behaviour::Chunked << true << 2
        << 0 << fresh;
    QTest::newRow("not found is not stored")
        << "/a.jpg" << none << none << fresh << monday << 404 << normal << true << 2 << 0 << none;
}

void TestCache::item()
{
    QFETCH(QString, path);
    QFETCH(QByteArray, cached);
    QFETCH(QByteArray, cachedTag);
    QFETCH(QByteArray, served);
    QFETCH(QByteArray, lastModified);
    QFETCH(int, status);
    QFETCH(Behaviour, behaviour);
    QFETCH(bool, online);
    QFETCH(int, gets);
    QFETCH(int, heads);
    QFETCH(QByteArray, after);

    HttpServer server;
    HttpServer::Route route{served, status, {{"Last-Modified", lastModified}}, behaviour};
    server.setRoute(path, route);
    store("x", cached, cachedTag);

    ItemDownloader item(server.url(path).toString(), dataPath("x"), tagPath("x"), online);
    QSignalSpy finished(&item, &ItemDownloader::finished);
    QSignalSpy sizeIssue(&item, &ItemDownloader::sizeIssue);
    item.start();
    QTRY_VERIFY_WITH_TIMEOUT(finished.count() + sizeIssue.count() > 0, 4 * testTimeoutMs);
    QCOMPARE(finished.count(), 1);
    QCOMPARE(sizeIssue.count(), 0);
    QCOMPARE(server.requestCount("GET", path), gets);
    QCOMPARE(server.requestCount("HEAD", path), heads);
    QCOMPARE(QFile::exists(dataPath("x")) ? readFile(dataPath("x")) : QByteArray(), after);
    if (after == served)
        QCOMPARE(readFile(tagPath("x")), lastModified + ":" + QByteArray::number(served.size()));
    // No temporary file is left beside the data.
    QCOMPARE(QDir(m_cache + "/data").entryList(QDir::Files | QDir::Hidden).size(),
             after.isNull() ? 0 : 1);
}

void TestCache::hopelessRequestKeepsTheCache()
{
    store("old", QByteArray(10000, 'x'), "x:10000", 5);
    store("older", QByteArray(20000, 'y'), "x:20000", 9);
    Cleanser cleanser(m_settings);
    QSignalSpy ok(&cleanser, &Cleanser::ok);
    QSignalSpy notOk(&cleanser, &Cleanser::notOk);

    // Like a server declaring a body larger than the whole disk.
    cleanser.checkThat(Utils::totalDiskSpace() * 4);
    QCOMPARE(ok.count(), 0);
    QCOMPARE(notOk.count(), 1);
    for (const char *name : {"old", "older"})
        QVERIFY(QFile::exists(dataPath(name)) && QFile::exists(tagPath(name)));
}

void TestCache::cleanRemovesWhatCannotBeTrusted()
{
    store("complete-old", "twelve bytes", "x:12");
    store("complete-young", "twelve bytes", "x:12", 0);
    store("tag-only-old", QByteArray(), "x:3");
    store("data-only-old", "abc", QByteArray());
    store("data-only-young", "abc", QByteArray(), 0); // a download under way
    store("cut-old", "twelve", "x:12");
    store("cut-young", "twelve", "x:12", 0);
    store("garbage-tag-old", "abc", "not a tag at all");
    store("maintenance.txt", "Update succeed!", QByteArray());

    Cleanser cleanser(m_settings);
    cleanser.clean();
    const QStringList kept = QDir(m_cache + "/data").entryList(QDir::Files, QDir::Name);
    QCOMPARE(kept, QStringList({"complete-old", "complete-young", "cut-young", "data-only-young",
                                "maintenance.txt"}));
    QCOMPARE(QDir(m_cache + "/etag").entryList(QDir::Files, QDir::Name),
             QStringList({"complete-old", "complete-young", "cut-young"}));

    // With clean_after set, the periodic check also drops complete old entries.
    m_settings->set("slideshow/clean_after", true);
    cleanser.check();
    m_settings->set("slideshow/clean_after", false);
    QVERIFY(!QFile::exists(dataPath("complete-old")));
    QVERIFY(QFile::exists(dataPath("complete-young")));
}

void TestCache::namedEntriesSurviveCleanUp()
{
    HttpServer server;
    server.setRoute("/named.png", QByteArray(100, 'n'), 200, {{"Last-Modified", "Wed"}});
    const QString named = Downloader::cacheName(server.url("/named.png").toString());
    QVERIFY(writeFile(PlaylistParser::offlineCopyPath(),
                      "<schedule><loop><i uri='" + server.url("/named.png").toEncoded()
                          + "' type='image'/></loop></schedule>"));
    store(named, QByteArray(100, 'n'), "Wed:100");
    store(Downloader::cacheName("http://127.0.0.1:1/gone.png"), QByteArray(100, 'n'), "Wed:100");

    // However old, what the playlist names stays.
    m_settings->set("slideshow/clean_after", true);
    Cleanser(m_settings).check();
    m_settings->set("slideshow/clean_after", false);
    QCOMPARE(QDir(m_cache + "/data").entryList(QDir::Files), QStringList{named});

    // A copy the server vouches for counts as fresh again.
    ItemDownloader item(server.url("/named.png").toString(), dataPath(named), tagPath(named), true);
    QSignalSpy finished(&item, &ItemDownloader::finished);
    item.start();
    QCOMPARE(finished.count(), 1);
    QCOMPARE(server.requestCount("GET", "/named.png"), 0);
    QVERIFY(QFileInfo(tagPath(named)).lastModified() > QDateTime::currentDateTime().addSecs(-60));
}

QTEST_GUILESS_MAIN(TestCache)
#include "tst_cache.moc"
