#include "webenginesetup.h"

#include "cookiedatabase.h"
#include "settings.h"

#include <QFont>
#include <QWebSettings>

void WebEngineSetup::init(Settings *settings)
{
    QWebSettings *web = QWebSettings::globalSettings();
    web->setAttribute(QWebSettings::JavascriptCanOpenWindows, true);
    web->setAttribute(QWebSettings::PluginsEnabled, true);
    web->setAttribute(QWebSettings::JavaEnabled, true);
    const QString fontText = settings->get(QStringLiteral("webpage/default_font")).toString();
    if (!fontText.isEmpty()) {
        QFont font;
        font.fromString(fontText);
        web->setFontFamily(QWebSettings::StandardFont, font.family());
        web->setFontSize(QWebSettings::DefaultFontSize, font.pointSize());
    }

    CookieDatabase::open(settings->cookiesFilename());
}
