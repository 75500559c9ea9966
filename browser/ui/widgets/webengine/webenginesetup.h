#pragma once

#include <QString>

class QWebEngineProfile;
class QWidget;
class Settings;

// What the web engine needs once, before the first page: the program's profile (named, kept
// under the state folder), its settings from the preferences, and the cookie file's database
// connection.
class WebEngineSetup
{
public:
    static void init(Settings *settings);
    // Called before the program's window is first shown.
    static void prepareWindow(QWidget *window);

private:
    friend class CustomQWebPage;
    friend class RestrictedWebPage;
    friend class SqliteCookieJar;
    friend class WebView;

    // The profile of every page, made on first use.
    static QWebEngineProfile *profile();
    // The engine's version as web pages know it: the AppleWebKit figure of its own user agent.
    static QString webKitVersion();
};
