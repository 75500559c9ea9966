#include "sqlitecookiejar.h"

#include "cookiedatabase.h"
#include "webenginesetup.h"

#include <QNetworkCookie>
#include <QWebEngineCookieStore>
#include <QWebEngineProfile>

SqliteCookieJar::SqliteCookieJar(QObject *parent)
    : QObject(parent)
{
    // The store works in order: the file's cookies come after the old ones are gone, and before
    // any request of a page made after this.
    QWebEngineCookieStore *store = WebEngineSetup::profile()->cookieStore();
    store->deleteAllCookies();
    const QList<QNetworkCookie> cookies = CookieDatabase::read();
    for (const QNetworkCookie &cookie : cookies)
        store->setCookie(cookie);
}
