#include "customqwebpage.h"

#include "settings.h"

#include <QLocale>
#include <QWebSettings>

#include <sys/utsname.h>

namespace {
const char kioskVersion[] = "16.04.a";
}

CustomQWebPage::CustomQWebPage(QObject *parent)
    : QWebPage(parent)
{
}

QString CustomQWebPage::userAgentForUrl(const QUrl &url) const
{
    Q_UNUSED(url)
    const QString configured
        = Settings::load(false, nullptr)->get(QStringLiteral("main/user_agent")).toString();
    if (!configured.isEmpty())
        return configured;

    struct utsname system;
    const QString systemName
        = ::uname(&system) == 0 ? QString::fromLocal8Bit(system.sysname) : QString();
    return QStringLiteral("Mozilla/5.0 (X11; %1; %2) AppleWebKit/%3 (KHTML, like Gecko) "
                          "Chrome/36.0.1985.125 Safari/%3 VorsaneKiosk/%4")
        .arg(systemName, QLocale().name(), qWebKitVersion(), QString::fromLatin1(kioskVersion));
}
