#include "useragent.h"

#include "settings.h"

#include <QLocale>

#include <sys/utsname.h>

namespace {
const char kioskVersion[] = "16.04.a";
}

namespace UserAgent {

QString forPages(const QString &engineVersion)
{
    const QString configured = Settings::load(false, nullptr)->userAgent();
    return configured.isEmpty() ? builtIn(engineVersion) : configured;
}

QString builtIn(const QString &engineVersion)
{
    struct utsname system;
    const QString systemName
        = ::uname(&system) == 0 ? QString::fromLocal8Bit(system.sysname) : QString();
    return QStringLiteral("Mozilla/5.0 (X11; %1; %2) AppleWebKit/%3 (KHTML, like Gecko) "
                          "Chrome/36.0.1985.125 Safari/%3 VorsaneKiosk/%4")
        .arg(systemName, QLocale().name(), engineVersion, QString::fromLatin1(kioskVersion));
}

} // namespace UserAgent
