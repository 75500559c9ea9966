#pragma once

#include <QNetworkCookieJar>

// The cookies a page starts with, read once from the cookie file (table moz_cookies) on the
// application's default database connection. Cookies set later stay in this jar, in memory only.
class SqliteCookieJar : public QNetworkCookieJar
{
    Q_OBJECT

public:
    explicit SqliteCookieJar(QObject *parent = nullptr);
};
