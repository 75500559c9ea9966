#include "webenginesetup.h"

#include "cookiedatabase.h"
#include "settings.h"
#include "statepaths.h"
#include "useragent.h"

#include <QCoreApplication>
#include <QFont>
#include <QOffscreenSurface>
#include <QOpenGLContext>
#include <QOpenGLFunctions>
#include <QQuickWidget>
#include <QQuickWindow>
#include <QRegularExpression>
#include <QWebEngineProfile>
#include <QWebEngineSettings>

namespace {
QWebEngineProfile *s_profile = nullptr;

// Why OpenGL here is drawn by the processor (no graphics chip it can use, a virtual screen):
// the renderer's name, or that there is none. Empty when a chip draws it.
QString softwareOpenGl()
{
    QOpenGLContext context;
    QOffscreenSurface surface;
    if (context.create()) {
        surface.setFormat(context.format());
        surface.create();
    }
    if (!context.isValid() || !context.makeCurrent(&surface))
        return QStringLiteral("no OpenGL here");
    const QString renderer = QString::fromLatin1(
        reinterpret_cast<const char *>(context.functions()->glGetString(GL_RENDERER)));
    context.doneCurrent();
    for (const char *software : {"llvmpipe", "softpipe", "Software Rasterizer", "swrast"}) {
        if (renderer.contains(QLatin1String(software)))
            return QStringLiteral("OpenGL here is drawn by the processor: ") + renderer;
    }
    return QString();
}

// Pages are composed into the window with OpenGL, and the whole window with them. Drawn by the
// processor, that costs about 10 ms a frame at 1280x720, and more than a frame when a show
// changes item; Qt Quick's own software renderer draws the same in about 4. Chosen before the
// engine starts; QT_QUICK_BACKEND, when set, decides instead.
void chooseRenderer()
{
    if (!qEnvironmentVariableIsEmpty("QT_QUICK_BACKEND"))
        return;
    const QString why = softwareOpenGl();
    if (why.isEmpty())
        return;
    qInfo().noquote() << "Web pages are drawn in software:" << why;
    QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
}
} // namespace

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
    if (!s_profile)
        chooseRenderer();
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
