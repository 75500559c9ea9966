// A cookie row of any content and column types, read from the cookie file, put into a jar and
// served.
#include "cookiedatabase.h"
#include "fuzzsupport.h"

#include <QNetworkCookie>
#include <QNetworkCookieJar>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QUrl>
#include <QVariant>

namespace {
// What every engine's cookie bridge does with the rows: all of them become the jar's cookies.
class Jar : public QNetworkCookieJar
{
public:
    using QNetworkCookieJar::setAllCookies;
};

// One column value; the low bits of the selector give its type as SQLite stores it.
QVariant columnValue(quint8 selector, const QByteArray &bytes)
{
    switch (selector % 5) {
    case 0:
        return QString::fromUtf8(bytes);
    case 1:
        return bytes;
    case 2:
        return bytes.toLongLong();
    case 3:
        return bytes.toDouble();
    default:
        return QVariant();
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::application();
    static const bool prepared = [] {
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"));
        db.setDatabaseName(QStringLiteral(":memory:"));
        return db.open()
               && QSqlQuery(db).exec(QStringLiteral(
                   "CREATE TABLE moz_cookies (id INTEGER PRIMARY KEY, name TEXT, value TEXT, "
                   "host TEXT, path TEXT, expiry INTEGER, lastAccessed INTEGER, "
                   "isSecure INTEGER,isHttpOnly INTEGER)"));
    }();
    if (!prepared || size < 1)
        return 0;

    // The first byte chooses the column types; the rest is seven fields split at "|".
    const quint8 types = data[0];
    const QList<QByteArray> fields
        = QByteArray(reinterpret_cast<const char *>(data) + 1, int(size - 1)).split('|');
    QSqlQuery query(QSqlDatabase::database());
    query.exec(QStringLiteral("DELETE FROM moz_cookies"));
    query.prepare(QStringLiteral("INSERT INTO moz_cookies (name, value, host, path, expiry, "
                                 "lastAccessed, isSecure, isHttpOnly) "
                                 "VALUES (?, ?, ?, ?, ?, '', ?, ?)"));
    for (int i = 0; i < 7; ++i)
        query.addBindValue(columnValue(quint8(types >> (i % 4)) + quint8(i), fields.value(i)));
    query.exec();

    Jar jar;
    jar.setAllCookies(CookieDatabase::read());
    const QList<QNetworkCookie> cookies = jar.cookiesForUrl(QUrl(QStringLiteral("https://example.com/a")));
    for (const QNetworkCookie &cookie : cookies)
        cookie.toRawForm();
    return 0;
}
