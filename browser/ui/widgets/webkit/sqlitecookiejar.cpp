#include "sqlitecookiejar.h"

#include "cookiedatabase.h"

SqliteCookieJar::SqliteCookieJar(QObject *parent)
    : QNetworkCookieJar(parent)
{
    setAllCookies(CookieDatabase::read());
}
