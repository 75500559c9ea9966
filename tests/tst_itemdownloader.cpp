#include "commandlineparser.h"
#include "downloader.h"
#include "httpserver.h"
#include "itemdownloader.h"
#include "settings.h"
#include "testsupport.h"
#include "utils.h"

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QSignalSpy>
#include <QTcpServer>
#include <QtTest>

#include <csignal>
#include <sys/resource.h>

using namespace testsupport;
using Behaviour = HttpServer::Behaviour;

Q_DECLARE_METATYPE(testsupport::HttpServer::Route)

namespace {
const QByteArray monday = "Mon, 01 Jan 2024 10:00:00 GMT";
const QByteArray tuesday = "Tue, 02 Jan 2024 10:00:00 GMT";
// Short enough for quick tests, long enough for a loaded machine.
const int testTimeoutMs = 1500;

QByteArray body(int size, char fill)
{
    QByteArray bytes(size, fill);
    for (int i = 0; i < size; i += 97)
        bytes[i] = char('a' + i % 26);
    return bytes;
}

struct Outcome
{
    int finished = 0;
    int sizeIssue = 0;
    int errors = 0;
    qint64 elapsedMs = 0;
};
} // namespace

class TestItemDownloader : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void cleanup();

    void freshDownload();
    void emptyBody();
    void followsRedirect();
    void cachedCopy_data();
    void cachedCopy();
    void changedResourceIsFetchedAgain();
    void zipIsAlwaysFetched();
    void invalidCache_data();
    void invalidCache();
    void revalidationFailureTrustsCache_data();
    void revalidationFailureTrustsCache();
    void failure_data();
    void failure();
    void failureWithEmptyCache();
    void declaredLengthLargerThanDisk();
    void nameTooLong();
    void diskFullWhileWriting();
    void connectionLost();

private:
    QString dataPath(const QString &name) const { return m_cache + "/data/" + name; }
    QString tagPath(const QString &name) const { return m_cache + "/etag/" + name; }
    QString url(const QString &path) const { return m_server->url(path).toString(); }
    // Stores a copy in the cache the way a download would.
    void store(const QString &name, const QByteArray &content, const QByteArray &tag);
    Outcome run(const QString &address, const QString &name, bool checkOnline);

    FakePrograms m_fakes;
    QTemporaryDir m_settingsDir;
    std::unique_ptr<TempHome> m_home;
    std::unique_ptr<CommandLineParser> m_parser;
    std::unique_ptr<HttpServer> m_server;
    QString m_cache;
};

void TestItemDownloader::initTestCase()
{
    m_fakes.add("launchdock");
    m_parser = makeParser(m_settingsDir.path());
    Settings::load(true, m_parser.get());
    ItemDownloader::setTimeouts(testTimeoutMs, testTimeoutMs);
}

void TestItemDownloader::cleanupTestCase()
{
    ItemDownloader::setTimeouts(ItemDownloader::RevalidationTimeoutMs,
                                ItemDownloader::StallTimeoutMs);
}

void TestItemDownloader::init()
{
    m_home = std::make_unique<TempHome>();
    m_cache = m_home->stateDir();
    QVERIFY(QDir().mkpath(m_cache + "/data"));
    QVERIFY(QDir().mkpath(m_cache + "/etag"));
    m_server = std::make_unique<HttpServer>();
    QVERIFY(m_server->isListening());
}

void TestItemDownloader::cleanup()
{
    m_server.reset();
    m_home.reset();
}

void TestItemDownloader::store(const QString &name, const QByteArray &content,
                               const QByteArray &tag)
{
    QVERIFY(writeFile(dataPath(name), content));
    QVERIFY(writeFile(tagPath(name), tag));
}

Outcome TestItemDownloader::run(const QString &address, const QString &name, bool checkOnline)
{
    ItemDownloader item(address, dataPath(name), tagPath(name), checkOnline);
    QSignalSpy finished(&item, &ItemDownloader::finished);
    QSignalSpy sizeIssue(&item, &ItemDownloader::sizeIssue);
    QSignalSpy errors(&item, &ItemDownloader::onError);
    QElapsedTimer clock;
    clock.start();
    item.start();
    if (finished.isEmpty() && sizeIssue.isEmpty()) {
        QEventLoop loop;
        connect(&item, &ItemDownloader::finished, &loop, &QEventLoop::quit);
        connect(&item, &ItemDownloader::sizeIssue, &loop, &QEventLoop::quit);
        QTimer::singleShot(15000, &loop, &QEventLoop::quit);
        loop.exec();
    }
    Outcome outcome{finished.count(), sizeIssue.count(), errors.count(), clock.elapsed()};
    // Whatever is still under way must not report anything more.
    QTest::qWait(50);
    outcome.finished = finished.count();
    outcome.sizeIssue = sizeIssue.count();
    outcome.errors = errors.count();
    return outcome;
}

void TestItemDownloader::freshDownload()
{
    const QByteArray content = body(200000, 'j');
    m_server->setRoute("/a.jpg", content, 200, {{"Last-Modified", monday}});
    LogCapture log;

    const Outcome outcome = run(url("/a.jpg"), "a", true);

    QCOMPARE(outcome.finished, 1);
    QCOMPARE(outcome.sizeIssue, 0);
    QCOMPARE(outcome.errors, 0);
    QCOMPARE(readFile(dataPath("a")), content);
    QCOMPARE(readFile(tagPath("a")), monday + ":200000");
    QVERIFY(log.contains("Downloading"));
    QVERIFY(log.contains("Tag file:"));
    // The first transfer only serves the size check; the body comes from the second.
    QCOMPARE(m_server->requestCount("GET", "/a.jpg"), 2);
    QCOMPARE(m_server->requestCount("HEAD", "/a.jpg"), 0);
    QCOMPARE(m_server->lastRequest("/a.jpg").header("Accept-Encoding"), QByteArray("identity"));
    // No temporary file is left beside the data.
    QCOMPARE(QDir(m_cache + "/data").entryList(QDir::Files | QDir::Hidden), QStringList{"a"});
}

void TestItemDownloader::emptyBody()
{
    m_server->setRoute("/empty.txt", QByteArray());

    const Outcome outcome = run(url("/empty.txt"), "empty", false);

    QCOMPARE(outcome.finished, 1);
    QCOMPARE(outcome.errors, 0);
    QVERIFY(QFile::exists(dataPath("empty")));
    QCOMPARE(QFileInfo(dataPath("empty")).size(), 0);
    QCOMPARE(readFile(tagPath("empty")), QByteArray(":0"));
}

void TestItemDownloader::followsRedirect()
{
    m_server->setRoute("/moved.png", "moved", 301, {{"Location", url("/here.png").toUtf8()}});
    m_server->setRoute("/here.png", "the picture", 200, {{"Last-Modified", monday}});

    const Outcome outcome = run(url("/moved.png"), "moved", false);

    QCOMPARE(outcome.finished, 1);
    QCOMPARE(outcome.errors, 0);
    QCOMPARE(readFile(dataPath("moved")), QByteArray("the picture"));
}

void TestItemDownloader::cachedCopy_data()
{
    QTest::addColumn<bool>("checkOnline");
    QTest::addColumn<int>("heads");

    QTest::newRow("revalidated with the server") << true << 1;
    QTest::newRow("trusted without asking") << false << 0;
}

void TestItemDownloader::cachedCopy()
{
    QFETCH(bool, checkOnline);
    QFETCH(int, heads);

    const QByteArray content = body(3000, 'c');
    m_server->setRoute("/c.png", content, 200, {{"Last-Modified", monday}});
    store("c", content, monday + ":3000");
    LogCapture log;

    const Outcome outcome = run(url("/c.png"), "c", checkOnline);

    QCOMPARE(outcome.finished, 1);
    QCOMPARE(outcome.errors, 0);
    QVERIFY(log.contains("NOT downloading"));
    QCOMPARE(m_server->requestCount("HEAD", "/c.png"), heads);
    QCOMPARE(m_server->requestCount("GET", "/c.png"), 0);
    QCOMPARE(readFile(dataPath("c")), content);
}

void TestItemDownloader::changedResourceIsFetchedAgain()
{
    store("c", body(3000, 'o'), monday + ":3000");
    const QByteArray fresh = body(4500, 'n');
    m_server->setRoute("/c.png", fresh, 200, {{"Last-Modified", tuesday}});

    const Outcome outcome = run(url("/c.png"), "c", true);

    QCOMPARE(outcome.finished, 1);
    QCOMPARE(m_server->requestCount("HEAD", "/c.png"), 1);
    QCOMPARE(m_server->requestCount("GET", "/c.png"), 2);
    QCOMPARE(readFile(dataPath("c")), fresh);
    QCOMPARE(readFile(tagPath("c")), tuesday + ":4500");

    // Same length, new date: still a change.
    const QByteArray sameLength = body(4500, 's');
    m_server->setRoute("/c.png", sameLength, 200, {{"Last-Modified", monday}});
    QCOMPARE(run(url("/c.png"), "c", true).finished, 1);
    QCOMPARE(readFile(dataPath("c")), sameLength);
    QCOMPARE(readFile(tagPath("c")), monday + ":4500");
}

void TestItemDownloader::zipIsAlwaysFetched()
{
    const QByteArray package = body(1000, 'z');
    m_server->setRoute("/update.zip", package, 200, {{"Last-Modified", monday}});
    store("zip", package, monday + ":1000");

    const Outcome outcome = run(url("/update.zip"), "zip", false);

    QCOMPARE(outcome.finished, 1);
    QCOMPARE(m_server->requestCount("GET", "/update.zip"), 2);
    QCOMPARE(readFile(dataPath("zip")), package);

    // The suffix test is case-sensitive.
    m_server->setRoute("/UPDATE.ZIP", package, 200, {{"Last-Modified", monday}});
    store("upper", package, monday + ":1000");
    QCOMPARE(run(url("/UPDATE.ZIP"), "upper", false).finished, 1);
    QCOMPARE(m_server->requestCount("/UPDATE.ZIP"), 0);
}

void TestItemDownloader::invalidCache_data()
{
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<QByteArray>("tag");
    QTest::addColumn<bool>("dataKept");

    const QByteArray whole = body(1000, 'w');
    QTest::newRow("data missing") << QByteArray() << monday + ":1000" << false;
    QTest::newRow("tag missing") << whole << QByteArray() << true;
    QTest::newRow("data cut short") << whole.left(600) << monday + ":1000" << false;
    QTest::newRow("data longer than tag") << whole + "x" << monday + ":1000" << false;
    QTest::newRow("garbage tag") << whole << QByteArray("\xff\xfe garbage") << false;
    QTest::newRow("empty tag, empty data") << QByteArray("") << QByteArray("") << false;
    QTest::newRow("tag without length") << whole << monday + ":" << false;
    QTest::newRow("negative length") << whole << QByteArray("x:-1") << false;
    QTest::newRow("huge tag ending in the right length")
        << whole << QByteArray(100000, ':') + "1000" << false;
}

void TestItemDownloader::invalidCache()
{
    QFETCH(QByteArray, data);
    QFETCH(QByteArray, tag);
    QFETCH(bool, dataKept);

    if (!data.isNull())
        QVERIFY(writeFile(dataPath("x"), data));
    if (!tag.isNull())
        QVERIFY(writeFile(tagPath("x"), tag));

    ItemDownloader item(url("/x.jpg"), dataPath("x"), tagPath("x"), false);
    QVERIFY(!item.inCache());
    QCOMPARE(QFile::exists(dataPath("x")), !data.isNull() && dataKept);
    QCOMPARE(m_server->totalRequests(), 0);

    // Through the whole item the copy is replaced by a fresh download.
    if (!data.isNull())
        QVERIFY(writeFile(dataPath("x"), data));
    const QByteArray fresh = body(1000, 'f');
    m_server->setRoute("/x.jpg", fresh, 200, {{"Last-Modified", monday}});
    QCOMPARE(run(url("/x.jpg"), "x", false).finished, 1);
    QCOMPARE(readFile(dataPath("x")), fresh);
    QCOMPARE(readFile(tagPath("x")), monday + ":1000");
}

void TestItemDownloader::revalidationFailureTrustsCache_data()
{
    QTest::addColumn<QString>("how");

    QTest::newRow("server error") << "500";
    QTest::newRow("not found") << "404";
    QTest::newRow("server down") << "down";
    QTest::newRow("server stalls") << "stall";
}

void TestItemDownloader::revalidationFailureTrustsCache()
{
    QFETCH(QString, how);

    const QByteArray content = body(2000, 't');
    store("t", content, monday + ":2000");
    QString address = url("/t.jpg");
    if (how == "down")
        address = QString("http://127.0.0.1:%1/t.jpg").arg(closedPort());
    else if (how == "stall")
        m_server->setRoute("/t.jpg", {content, 200, {}, Behaviour::Stall});
    else
        m_server->setRoute("/t.jpg", "gone", how.toInt());

    const Outcome outcome = run(address, "t", true);

    QCOMPARE(outcome.finished, 1);
    QCOMPARE(outcome.errors, 0);
    QCOMPARE(m_server->requestCount("GET", "/t.jpg"), 0);
    QCOMPARE(readFile(dataPath("t")), content);
    QCOMPARE(readFile(tagPath("t")), monday + ":2000");
    QVERIFY(outcome.elapsedMs < testTimeoutMs + 5000);
}

void TestItemDownloader::failure_data()
{
    QTest::addColumn<HttpServer::Route>("route");
    QTest::addColumn<bool>("serverDown");
    QTest::addColumn<bool>("oldCopy");

    const QByteArray content = body(100000, 'b');
    const HttpServer::Route normal{content, 200, {{"Last-Modified", tuesday}}};
    HttpServer::Route route = normal;

    for (bool oldCopy : {false, true}) {
        const char *suffix = oldCopy ? ", older copy cached" : "";
        route = normal;
        route.status = 404;
        QTest::addRow("not found%s", suffix) << route << false << oldCopy;
        route.status = 500;
        QTest::addRow("server error%s", suffix) << route << false << oldCopy;
        QTest::addRow("server down%s", suffix) << normal << true << oldCopy;
        route = normal;
        route.behaviour = Behaviour::Stall;
        QTest::addRow("server stalls%s", suffix) << route << false << oldCopy;
        route.behaviour = Behaviour::CutBody;
        QTest::addRow("connection cut mid-body%s", suffix) << route << false << oldCopy;
        route.behaviour = Behaviour::LongerLength;
        QTest::addRow("declared length longer than body%s", suffix) << route << false << oldCopy;
    }
}

void TestItemDownloader::failure()
{
    QFETCH(HttpServer::Route, route);
    QFETCH(bool, serverDown);
    QFETCH(bool, oldCopy);

    // Another entry makes the cache non-empty.
    store("other", "other", monday + ":5");
    const QByteArray old = body(777, 'o');
    if (oldCopy)
        store("f", old, monday + ":777");
    const QByteArray stamp = "Mon Jan 1 10:00:00 2024";
    QVERIFY(writeFile(m_cache + "/playlist_last_timestamp.txt", stamp));
    m_server->setRoute("/f.mp4", route);
    const QString address
        = serverDown ? QString("http://127.0.0.1:%1/f.mp4").arg(closedPort()) : url("/f.mp4");
    LogCapture log;

    const Outcome outcome = run(address, "f", true);

    QCOMPARE(outcome.finished, 1);
    QCOMPARE(outcome.sizeIssue, 0);
    QVERIFY(outcome.elapsedMs < 2 * testTimeoutMs + 5000);
    const bool headFails = serverDown || route.status != 200 || route.behaviour == Behaviour::Stall;
    if (oldCopy && headFails) {
        // A revalidation that fails trusts the cached copy: nothing is fetched.
        QCOMPARE(outcome.errors, 0);
        QCOMPARE(m_server->requestCount("GET", "/f.mp4"), 0);
        QCOMPARE(readFile(m_cache + "/playlist_last_timestamp.txt"), stamp);
    } else {
        QCOMPARE(outcome.errors, 1);
        QCOMPARE(readFile(m_cache + "/playlist_last_timestamp.txt"), QByteArray());
        QVERIFY(!log.contains("Network error, nothing in cache. Exit."));
    }
    // The older copy survives a failed download whole; a partial body is kept nowhere.
    QCOMPARE(readFile(dataPath("f")), oldCopy ? old : QByteArray());
    QCOMPARE(QFile::exists(tagPath("f")), oldCopy);
    if (oldCopy)
        QCOMPARE(readFile(tagPath("f")), monday + ":777");
    QStringList files = QDir(m_cache + "/data").entryList(QDir::Files | QDir::Hidden);
    files.removeAll("other");
    QCOMPARE(files, oldCopy ? QStringList{"f"} : QStringList());
}

void TestItemDownloader::failureWithEmptyCache()
{
    m_server->setRoute("/missing.jpg", "no such thing", 404);
    QVERIFY(writeFile(m_cache + "/playlist_last_timestamp.txt", "Mon Jan 1 10:00:00 2024"));
    LogCapture log;

    const Outcome outcome = run(url("/missing.jpg"), "m", true);

    QCOMPARE(outcome.finished, 1);
    QCOMPARE(outcome.errors, 0);
    QVERIFY(log.contains("Network error, nothing in cache. Exit."));
    QCOMPARE(readFile(m_cache + "/playlist_last_timestamp.txt"),
             QByteArray("Mon Jan 1 10:00:00 2024"));
    QVERIFY(!QFile::exists(dataPath("m")));
}

void TestItemDownloader::declaredLengthLargerThanDisk()
{
    // Old entries that cleaning could delete: even all of them would not make room.
    for (const char *name : {"old1", "old2"}) {
        store(name, body(5000, 'x'), monday + ":5000");
        for (const QString &path : {dataPath(name), tagPath(name)}) {
            QFile file(path);
            QVERIFY(file.open(QIODevice::ReadWrite));
            file.setFileTime(QDateTime::currentDateTime().addDays(-5),
                             QFileDevice::FileModificationTime);
        }
    }
    const QByteArray huge = QByteArray::number(Utils::totalDiskSpace() * 8);
    m_server->setRoute("/huge.mp4", body(4000, 'h'), 200, {{"Content-Length", huge}});
    LogCapture log;

    const Outcome outcome = run(url("/huge.mp4"), "huge", false);

    QCOMPARE(outcome.sizeIssue, 1);
    QCOMPARE(outcome.finished, 0);
    QCOMPARE(outcome.errors, 0);
    QVERIFY(log.contains("Not enough space..."));
    QVERIFY(log.contains("Size cleansing"));
    QVERIFY(!QFile::exists(dataPath("huge")));
    QVERIFY(!QFile::exists(tagPath("huge")));
    for (const char *name : {"old1", "old2"})
        QVERIFY(QFile::exists(dataPath(name)));
}

void TestItemDownloader::nameTooLong()
{
    const QString address = url("/" + QString(600, 'l') + ".jpg");
    m_server->setRoute("/" + QString(600, 'l') + ".jpg", "picture");
    const QString name = Downloader::cacheName(address);
    QVERIFY(name.size() > 255);
    LogCapture log;

    const Outcome outcome = run(address, name, true);

    QCOMPARE(outcome.sizeIssue, 1);
    QCOMPARE(outcome.finished, 0);
    QVERIFY(log.contains("too long"));
    QCOMPARE(m_server->totalRequests(), 0);
}

void TestItemDownloader::diskFullWhileWriting()
{
    const QByteArray old = body(900, 'o');
    store("full", old, monday + ":900");
    m_server->setRoute("/full.mp4", body(2 * 1024 * 1024, 'F'), 200, {{"Last-Modified", tuesday}});

    // A file-size limit makes writes past it fail as on a full disk.
    struct rlimit previous = {};
    QCOMPARE(getrlimit(RLIMIT_FSIZE, &previous), 0);
    const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
    struct rlimit limited = previous;
    limited.rlim_cur = 256 * 1024;
    QCOMPARE(setrlimit(RLIMIT_FSIZE, &limited), 0);
    LogCapture log;
    const Outcome outcome = run(url("/full.mp4"), "full", true);
    setrlimit(RLIMIT_FSIZE, &previous);
    std::signal(SIGXFSZ, previousHandler);

    QCOMPARE(outcome.sizeIssue, 1);
    QCOMPARE(outcome.finished, 0);
    QVERIFY(log.contains("Cannot store"));
    QCOMPARE(readFile(dataPath("full")), old);
    QCOMPARE(readFile(tagPath("full")), monday + ":900");
    QCOMPARE(QDir(m_cache + "/data").entryList(QDir::Files | QDir::Hidden), QStringList{"full"});
}

void TestItemDownloader::connectionLost()
{
    store("other", "other", monday + ":5");
    m_server->setRoute("/slow.mp4", {body(1000, 's'), 200, {}, Behaviour::Stall});
    ItemDownloader item(url("/slow.mp4"), dataPath("slow"), tagPath("slow"), false);
    QSignalSpy finished(&item, &ItemDownloader::finished);
    QSignalSpy errors(&item, &ItemDownloader::onError);
    QSignalSpy request(m_server.get(), &HttpServer::requestReceived);
    LogCapture log;

    item.start();
    QVERIFY(request.wait());
    item.namChanged();

    QCOMPARE(finished.count(), 1);
    QCOMPARE(errors.count(), 1);
    QVERIFY(log.contains("CONNECTION LOST"));
    QVERIFY(!QFile::exists(dataPath("slow")));
    // The abandoned transfer reports nothing more.
    QTest::qWait(testTimeoutMs + 500);
    QCOMPARE(finished.count(), 1);
}

QTEST_GUILESS_MAIN(TestItemDownloader)
#include "tst_itemdownloader.moc"
