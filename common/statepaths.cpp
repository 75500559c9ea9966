#include "statepaths.h"

#include <QDir>

#include <pwd.h>
#include <unistd.h>

namespace StatePaths {

QString home()
{
    const QString fromEnvironment = qEnvironmentVariable("HOME");
    if (!fromEnvironment.isEmpty())
        return fromEnvironment;
    if (const passwd *account = ::getpwuid(::getuid()); account && account->pw_dir)
        return QString::fromLocal8Bit(account->pw_dir);
    return QDir::rootPath();
}

QString root(const QString &homeDir)
{
    return homeDir + QLatin1String("/.vorsane-kiosk");
}

QString path(const QString &name, const QString &homeDir)
{
    return root(homeDir) + QLatin1Char('/') + name;
}

bool ensureRoot()
{
    return QDir().mkpath(root());
}

QString dataDir()
{
    return path(QStringLiteral("data"));
}

QString tagDir()
{
    return path(QStringLiteral("etag"));
}

QString playlistCopy()
{
    return path(QStringLiteral("playlist"));
}

QString playlistOld()
{
    return path(QStringLiteral("playlist-old"));
}

QString lastEditStamp()
{
    return path(QStringLiteral("playlist_last_timestamp.txt"));
}

QString dropFolder(const QString &homeDir)
{
    return path(QStringLiteral("dragndrop"), homeDir);
}

QString uploadStaging(const QString &homeDir)
{
    return path(QStringLiteral("remote-upload"), homeDir);
}

QString usbAutoDir()
{
    return path(QStringLiteral("usbauto"));
}

QString aliasesDir()
{
    return path(QStringLiteral("aliases"));
}

QString stalledPages()
{
    return path(QStringLiteral("stalled-pages"));
}

QString webProfile()
{
    return path(QStringLiteral("webengine"));
}

QString renderedTemplate()
{
    return path(QStringLiteral("current-template.html"));
}

QString remoteServerLock()
{
    return path(QStringLiteral("remote-server.lock"));
}

QString shortcutBackup()
{
    return path(QStringLiteral("xmodmap-backup"));
}

QString giveBackDir()
{
    return path(QStringLiteral("give-back"));
}

QString desktopBackupDir()
{
    return path(QStringLiteral("desktop-backup"));
}

QString playedQueue()
{
    return path(QStringLiteral("played-queue"));
}

QString maintenanceDataDir()
{
    return QStringLiteral("/home/pi/.vorsane-kiosk/data/");
}

} // namespace StatePaths
