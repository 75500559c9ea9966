#pragma once

#include <QObject>

// The bridge between the cookie file (table moz_cookies, read on the application's default
// database connection) and the web engine's cookie store, which all pages share. Made for a page
// or a browsing session, it starts the store afresh with the file's cookies, as a session of its
// own would start: cookies that pages set before are gone.
class SqliteCookieJar : public QObject
{
    Q_OBJECT

public:
    explicit SqliteCookieJar(QObject *parent = nullptr);
};
