#include "commandlineparser.h"
#include "settings.h"
#include "sqlitecookiejar.h"
#include "testsupport.h"

#include <QNetworkCookie>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QtTest>

#include <memory>

using namespace testsupport;

namespace {
// Gives the test the jar's complete list, expired cookies included.
class InspectableJar : public SqliteCookieJar
{
public:
    using QNetworkCookieJar::allCookies;
};

QNetworkCookie cookie(const QByteArray &name, const QByteArray &value, const QString &domain,
                      const QString &path, qint64 expiry = 0, bool secure = false,
                      bool httpOnly = false)
{
    QNetworkCookie made(name, value);
    made.setDomain(domain);
    made.setPath(path);
    if (expiry)
        made.setExpirationDate(QDateTime::fromSecsSinceEpoch(expiry, Qt::UTC));
    made.setSecure(secure);
    made.setHttpOnly(httpOnly);
    return made;
}

QStringList describe(const QList<QNetworkCookie> &cookies)
{
    QStringList lines;
    for (const QNetworkCookie &c : cookies) {
        lines << QStringList{QString::fromLatin1(c.name().toHex()),
                             QString::fromLatin1(c.value().toHex()),
                             c.domain(),
                             c.path(),
                             c.isSessionCookie()
                                 ? QStringLiteral("session")
                                 : QString::number(c.expirationDate().toSecsSinceEpoch()),
                             c.isSecure() ? "secure" : "plain",
                             c.isHttpOnly() ? "httponly" : "scripts"}
                     .join('|');
    }
    return lines;
}

QStringList names(const QList<QNetworkCookie> &cookies)
{
    QStringList result;
    for (const QNetworkCookie &c : cookies)
        result << QString::fromLatin1(c.name());
    return result;
}

const qint64 nextYear = QDateTime::currentDateTimeUtc().addYears(1).toSecsSinceEpoch();
} // namespace

class TestSqliteCookieJar : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void roundTrip_data();
    void roundTrip();
    void servesLoadedCookies_data();
    void servesLoadedCookies();
    void handMadeTable();
    void loadedOnceNeverWrittenBack();
    void unusableDatabase_data();
    void unusableDatabase();

private:
    void openDefault(const QString &path);
    QString cookieFile() const { return m_home->filePath("cookies.sqlite"); }

    QTemporaryDir m_base;
    std::unique_ptr<CommandLineParser> m_parser;
    std::unique_ptr<TempHome> m_home;
};

void TestSqliteCookieJar::initTestCase()
{
    QVERIFY(m_base.isValid());
    m_parser = makeParser(m_base.path());
    Settings::load(true, m_parser.get());
}

void TestSqliteCookieJar::init()
{
    m_home = std::make_unique<TempHome>();
}

void TestSqliteCookieJar::cleanup()
{
    if (QSqlDatabase::contains(QSqlDatabase::defaultConnection)) {
        QSqlDatabase::database(QSqlDatabase::defaultConnection, false).close();
        QSqlDatabase::removeDatabase(QSqlDatabase::defaultConnection);
    }
    m_home.reset();
}

void TestSqliteCookieJar::openDefault(const QString &path)
{
    // As the main window does before any page is built.
    QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE");
    db.setDatabaseName(path);
    db.open();
}

void TestSqliteCookieJar::roundTrip_data()
{
    QTest::addColumn<QList<QNetworkCookie>>("written");
    QTest::addColumn<QList<QNetworkCookie>>("loaded");

    const QNetworkCookie login
        = cookie("login", "abc123", ".example.com", "/", 2000000000, true, false);
    const QNetworkCookie scoped
        = cookie("pref", "dark", "intranet.lan", "/app", nextYear, false, true);
    QTest::newRow("empty list") << QList<QNetworkCookie>() << QList<QNetworkCookie>();
    QTest::newRow("secure persistent cookie")
        << QList<QNetworkCookie>{login} << QList<QNetworkCookie>{login};
    QTest::newRow("several cookies keep their order")
        << QList<QNetworkCookie>{scoped, login} << QList<QNetworkCookie>{scoped, login};
    QTest::newRow("cookie without expiry stays for the run")
        << QList<QNetworkCookie>{cookie("sid", "s1", "example.com", "/")}
        << QList<QNetworkCookie>{cookie("sid", "s1", "example.com", "/")};
    QTest::newRow("expired cookie is loaded too")
        << QList<QNetworkCookie>{cookie("old", "1", "example.com", "/", 1000000000)}
        << QList<QNetworkCookie>{cookie("old", "1", "example.com", "/", 1000000000)};
    QTest::newRow("latin-1 bytes survive")
        << QList<QNetworkCookie>{cookie("caf\xe9", "na\xefve", "example.com", "/", nextYear)}
        << QList<QNetworkCookie>{cookie("caf\xe9", "na\xefve", "example.com", "/", nextYear)};
    QTest::newRow("apostrophe loses only that cookie")
        << QList<QNetworkCookie>{login, cookie("quote", "it's", "example.com", "/"), scoped}
        << QList<QNetworkCookie>{login, scoped};
}

void TestSqliteCookieJar::roundTrip()
{
    QFETCH(QList<QNetworkCookie>, written);
    QFETCH(QList<QNetworkCookie>, loaded);

    Settings *settings = Settings::load(false, nullptr);
    // A table from an earlier save is replaced, not added to.
    settings->setCookies({cookie("stale", "x", "example.com", "/")});
    QVERIFY(settings->writeCookies(cookieFile()));
    settings->setCookies(written);
    QVERIFY(settings->writeCookies(cookieFile()));
    settings->setCookies({});

    openDefault(cookieFile());
    InspectableJar jar;
    QCOMPARE(describe(jar.allCookies()), describe(loaded));
}

void TestSqliteCookieJar::servesLoadedCookies_data()
{
    QTest::addColumn<QString>("url");
    QTest::addColumn<QStringList>("sent");

    QTest::newRow("plain page of the domain") << "http://shop.example.com/" << QStringList{"site"};
    QTest::newRow("path cookie below its path")
        << "http://shop.example.com/cart/view" << QStringList{"cart", "site"};
    QTest::newRow("secure cookie only over https")
        << "https://shop.example.com/" << QStringList{"site", "token"};
    QTest::newRow("other domain gets nothing") << "http://example.org/" << QStringList();
}

void TestSqliteCookieJar::servesLoadedCookies()
{
    QFETCH(QString, url);
    QFETCH(QStringList, sent);

    Settings *settings = Settings::load(false, nullptr);
    settings->setCookies({cookie("site", "1", ".example.com", "/", nextYear),
                          cookie("cart", "2", ".example.com", "/cart", nextYear),
                          cookie("token", "3", ".example.com", "/", nextYear, true),
                          cookie("gone", "4", ".example.com", "/", 1000000000)});
    QVERIFY(settings->writeCookies(cookieFile()));
    settings->setCookies({});
    openDefault(cookieFile());

    SqliteCookieJar jar;
    QStringList actual = names(jar.cookiesForUrl(QUrl(url)));
    actual.sort();
    QCOMPARE(actual, sent);
}

void TestSqliteCookieJar::handMadeTable()
{
    // A table written by another tool: a BLOB name, a host with a trailing NUL and junk, numbers
    // stored as text.
    openDefault(cookieFile());
    QSqlQuery query;
    QVERIFY(query.exec("CREATE TABLE moz_cookies (id INTEGER PRIMARY KEY, name TEXT, value TEXT, "
                       "host TEXT, path TEXT, expiry INTEGER, lastAccessed INTEGER, isSecure "
                       "INTEGER,isHttpOnly INTEGER)"));
    QVERIFY(query.prepare("INSERT INTO moz_cookies (name, value, host, path, expiry, isSecure, "
                          "isHttpOnly) VALUES (?, ?, ?, ?, ?, ?, ?)"));
    query.addBindValue(QByteArray("raw\x01name", 8));
    query.addBindValue(QStringLiteral("v"));
    query.addBindValue(QString::fromLatin1("example.com\0junk", 16));
    query.addBindValue(QString::fromLatin1("/docs\0more", 10));
    query.addBindValue(QStringLiteral("2000000000"));
    query.addBindValue(QStringLiteral("1"));
    query.addBindValue(0);
    QVERIFY(query.exec());

    InspectableJar jar;
    QCOMPARE(describe(jar.allCookies()),
             describe({cookie(QByteArray("raw\x01name", 8), "v", "example.com", "/docs", 2000000000,
                              true, false)}));
}

void TestSqliteCookieJar::loadedOnceNeverWrittenBack()
{
    Settings *settings = Settings::load(false, nullptr);
    settings->setCookies({cookie("first", "1", "example.com", "/", nextYear)});
    QVERIFY(settings->writeCookies(cookieFile()));
    settings->setCookies({});
    openDefault(cookieFile());

    InspectableJar jar;
    QSqlQuery query;
    QVERIFY(query.exec("DELETE FROM moz_cookies"));
    QCOMPARE(names(jar.allCookies()), QStringList{"first"});

    QVERIFY(jar.setCookiesFromUrl({cookie("set", "by page", "example.com", "/", nextYear)},
                                  QUrl("http://example.com/")));
    QCOMPARE(names(jar.allCookies()), QStringList({"first", "set"}));
    QVERIFY(query.exec("SELECT COUNT(*) FROM moz_cookies"));
    QVERIFY(query.next());
    QCOMPARE(query.value(0).toInt(), 0);

    InspectableJar later;
    QCOMPARE(later.allCookies().size(), 0);
}

void TestSqliteCookieJar::unusableDatabase_data()
{
    QTest::addColumn<QString>("kind");

    QTest::newRow("no default connection") << "none";
    QTest::newRow("database without the table") << "empty";
    QTest::newRow("file that is not a database") << "garbage";
    QTest::newRow("directory in place of the file") << "directory";
    QTest::newRow("connection closed") << "closed";
    QTest::newRow("table without some columns") << "columns";
}

void TestSqliteCookieJar::unusableDatabase()
{
    QFETCH(QString, kind);

    if (kind == "garbage")
        QVERIFY(writeFile(cookieFile(), QByteArray(4096, 'x')));
    if (kind == "directory")
        QVERIFY(QDir().mkpath(cookieFile()));
    if (kind != "none")
        openDefault(cookieFile());
    if (kind == "closed")
        QSqlDatabase::database(QSqlDatabase::defaultConnection, false).close();
    if (kind == "columns") {
        QSqlQuery query;
        QVERIFY(query.exec("CREATE TABLE moz_cookies (id INTEGER PRIMARY KEY, name TEXT)"));
        QVERIFY(query.exec("INSERT INTO moz_cookies (name) VALUES ('lonely')"));
    }

    InspectableJar jar;
    QCOMPARE(jar.allCookies().size(), 0);
    QCOMPARE(jar.cookiesForUrl(QUrl("http://example.com/")).size(), 0);
}

QTEST_GUILESS_MAIN(TestSqliteCookieJar)
#include "tst_sqlitecookiejar.moc"
