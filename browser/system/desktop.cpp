#include "desktop.h"

#include "statepaths.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <sys/stat.h>
#include <unistd.h>

Desktop::Kind Desktop::detect()
{
    QString names = qEnvironmentVariable("XDG_CURRENT_DESKTOP");
    if (names.isEmpty())
        names = qEnvironmentVariable("DESKTOP_SESSION");
    names = names.toUpper();
    // Raspberry Pi OS names its Wayland sessions "LXDE-pi-labwc" and "LXDE-pi-wayfire": the
    // compositor decides, so it is looked for first.
    const auto has = [&names](const char *name) {
        return names.contains(QLatin1String(name));
    };
    if (has("LABWC") || (names.isEmpty() && qEnvironmentVariableIsSet("LABWC_PID")))
        return Kind::Labwc;
    if (has("WAYFIRE") || (names.isEmpty() && qEnvironmentVariableIsSet("WAYFIRE_CONFIG_FILE")))
        return Kind::Wayfire;
    if (has("SWAY") || (names.isEmpty() && qEnvironmentVariableIsSet("SWAYSOCK")))
        return Kind::Sway;
    if (has("XFCE"))
        return Kind::Xfce;
    if (has("LXDE-PI"))
        return Kind::LxdePi;
    if (has("LXDE"))
        return Kind::Lxde;
    return Kind::None;
}

QString Desktop::name(Kind kind)
{
    switch (kind) {
    case Kind::Lxde:
        return QStringLiteral("LXDE");
    case Kind::LxdePi:
        return QStringLiteral("LXDE-pi");
    case Kind::Xfce:
        return QStringLiteral("XFCE");
    case Kind::Labwc:
        return QStringLiteral("labwc");
    case Kind::Wayfire:
        return QStringLiteral("wayfire");
    case Kind::Sway:
        return QStringLiteral("sway");
    case Kind::None:
        break;
    }
    return QStringLiteral("none");
}

bool Desktop::isWayland(Kind kind)
{
    return kind == Kind::Labwc || kind == Kind::Wayfire || kind == Kind::Sway;
}

QString Desktop::lxdeProfile(Kind kind)
{
    return kind == Kind::Lxde ? QStringLiteral("LXDE") : QStringLiteral("LXDE-pi");
}

QString Desktop::configHome()
{
    const QString configured = qEnvironmentVariable("XDG_CONFIG_HOME");
    return configured.isEmpty() ? StatePaths::home() + QLatin1String("/.config") : configured;
}

QList<QStringList> Desktop::running(const QString &program)
{
    QList<QStringList> found;
    const QStringList pids = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs);
    for (const QString &pid : pids) {
        if (pid.isEmpty() || !pid.at(0).isDigit())
            continue;
        const QString dir = QStringLiteral("/proc/") + pid;
        struct stat info;
        if (::stat(QFile::encodeName(dir).constData(), &info) != 0 || info.st_uid != ::getuid())
            continue;
        QFile comm(dir + QLatin1String("/comm"));
        if (!comm.open(QIODevice::ReadOnly) || comm.readAll().trimmed() != program.toLocal8Bit())
            continue;
        QFile cmdline(dir + QLatin1String("/cmdline"));
        if (!cmdline.open(QIODevice::ReadOnly))
            continue;
        QStringList arguments;
        for (const QByteArray &argument : cmdline.readAll().split('\0'))
            arguments << QString::fromLocal8Bit(argument);
        if (!arguments.isEmpty() && arguments.last().isEmpty())
            arguments.removeLast();
        // A program that is a script runs as its interpreter: the arguments that count start
        // at the program itself.
        while (!arguments.isEmpty() && QFileInfo(arguments.first()).fileName() != program)
            arguments.removeFirst();
        if (!arguments.isEmpty())
            found << arguments;
    }
    return found;
}

QString Desktop::runningOption(const QString &program, const QString &option)
{
    for (const QStringList &arguments : running(program)) {
        for (int i = 1; i < arguments.size(); ++i) {
            if (arguments.at(i) == option && i + 1 < arguments.size())
                return arguments.at(i + 1);
            if (arguments.at(i).startsWith(option + QLatin1Char('=')))
                return arguments.at(i).mid(option.size() + 1);
        }
    }
    return QString();
}
