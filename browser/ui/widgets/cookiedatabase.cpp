#include "cookiedatabase.h"

#include <QDateTime>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QVariant>

namespace {
QByteArray bytesOf(const QVariant &value)
{
    // The writer stores the cookie's bytes as Latin-1 text; a BLOB column is taken as it is.
    if (value.userType() == QMetaType::QByteArray)
        return value.toByteArray();
    return value.toString().toLatin1();
}

QString textOf(const QVariant &value)
{
    const QString text = value.toString();
    const int zero = text.indexOf(QChar(0));
    return zero < 0 ? text : text.left(zero);
}
} // namespace

namespace CookieDatabase {

bool open(const QString &path)
{
    QSqlDatabase cookies = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"));
    cookies.setDatabaseName(path);
    return cookies.open();
}

QList<QNetworkCookie> read()
{
    QList<QNetworkCookie> cookies;
    // Without an open connection there are simply no cookies, like with a missing table.
    QSqlDatabase db = QSqlDatabase::database(QLatin1String(QSqlDatabase::defaultConnection), false);
    if (!db.isOpen())
        return cookies;

    QSqlQuery query(db);
    if (!query.exec(QStringLiteral(
            "SELECT name,value,host,path,expiry,isSecure,isHttpOnly FROM moz_cookies")))
        return cookies;

    while (query.next()) {
        QNetworkCookie cookie(bytesOf(query.value(0)), bytesOf(query.value(1)));
        cookie.setDomain(textOf(query.value(2)));
        cookie.setPath(textOf(query.value(3)));
        // The writer stores 0 for a cookie without expiry; read as 1970 it would be dropped by
        // the network layer, so it stays a cookie for the whole run instead.
        const qint64 expiry = query.value(4).toLongLong();
        if (expiry != 0)
            cookie.setExpirationDate(QDateTime::fromSecsSinceEpoch(expiry, Qt::UTC));
        cookie.setSecure(query.value(5).toBool());
        cookie.setHttpOnly(query.value(6).toBool());
        cookies.append(cookie);
    }
    return cookies;
}

} // namespace CookieDatabase
