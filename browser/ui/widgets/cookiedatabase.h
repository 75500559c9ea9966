#pragma once

#include <QList>
#include <QNetworkCookie>

// The cookie file (SQLite, table moz_cookies) that every browsing session starts from.
namespace CookieDatabase {

// Opens the application's default database connection on the file.
bool open(const QString &path);
// Every row of moz_cookies on the default connection, expired ones included; none when the
// connection is closed or the table is missing.
QList<QNetworkCookie> read();

} // namespace CookieDatabase
