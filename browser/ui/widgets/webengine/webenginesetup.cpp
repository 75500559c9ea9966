#include "webenginesetup.h"

#include "cookiedatabase.h"
#include "settings.h"
#include "statepaths.h"
#include "useragent.h"

#include <QCoreApplication>
#include <QFont>
#include <QQuickWidget>
#include <QRegularExpression>
#include <QWebEngineProfile>
#include <QWebEngineSettings>

namespace {
QWebEngineProfile *s_profile = nullptr;
}

void WebEngineSetup::prepareWindow(QWidget *window)
{
    // The first web view in a window turns on the window's OpenGL composition, and the window is
    // made anew for it: a black flash over whatever shows. A scene widget that is never shown
    // makes the window so from the start.
    auto *scene = new QQuickWidget(window);
    scene->hide();
}

void WebEngineSetup::init(Settings *settings)
{
    // Read when the engine starts, which is when the profile below is first made.
    if (settings->webLowMemory() && !s_profile) {
        QByteArray flags = qgetenv("QTWEBENGINE_CHROMIUM_FLAGS");
        flags += " --renderer-process-limit=1 --process-per-site --enable-low-end-device-mode"
                 " --js-flags=--max-old-space-size=64 --disable-dev-shm-usage";
        qputenv("QTWEBENGINE_CHROMIUM_FLAGS", flags.trimmed());
    }
    QWebEngineSettings *web = profile()->settings();
    web->setAttribute(QWebEngineSettings::JavascriptCanOpenWindows, true);
    web->setAttribute(QWebEngineSettings::PluginsEnabled, true);
    const QString fontText = settings->get(QStringLiteral("webpage/default_font")).toString();
    if (!fontText.isEmpty()) {
        QFont font;
        font.fromString(fontText);
        web->setFontFamily(QWebEngineSettings::StandardFont, font.family());
        web->setFontSize(QWebEngineSettings::DefaultFontSize, font.pointSize());
    }
    profile()->setHttpUserAgent(UserAgent::forPages(webKitVersion()));
    if (settings->webDiskCacheMb() > 0)
        profile()->setHttpCacheMaximumSize(settings->webDiskCacheMb() * 1024 * 1024);

    CookieDatabase::open(settings->cookiesFilename());
}

QWebEngineProfile *WebEngineSetup::profile()
{
    if (!s_profile) {
        // The default profile keeps nothing on disk; a named one does, in the state folder.
        s_profile = new QWebEngineProfile(QStringLiteral("vorsane"), QCoreApplication::instance());
        s_profile->setPersistentStoragePath(StatePaths::webProfile());
        s_profile->setCachePath(StatePaths::webProfile() + QStringLiteral("/cache"));
        QObject::connect(s_profile, &QObject::destroyed, QCoreApplication::instance(),
                         [] { s_profile = nullptr; });
    }
    return s_profile;
}

QString WebEngineSetup::webKitVersion()
{
    static const QString version = [] {
        const QRegularExpression token(QStringLiteral("AppleWebKit/([0-9.]+)"));
        const QRegularExpressionMatch match
            = token.match(QWebEngineProfile::defaultProfile()->httpUserAgent());
        return match.hasMatch() ? match.captured(1) : QStringLiteral("537.36");
    }();
    return version;
}
