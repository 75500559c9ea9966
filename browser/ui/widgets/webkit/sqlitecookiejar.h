#pragma once

#include <QNetworkCookieJar>

// The cookies every browsing session starts with, read once from the table moz_cookies on the
// application's default database connection. Cookies set later stay in memory only.
class SqliteCookieJar : public QNetworkCookieJar
{
    Q_OBJECT

public:
    explicit SqliteCookieJar(QObject *parent = nullptr);

private:
    void load();
};
