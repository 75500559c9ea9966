#pragma once

#include <QList>
#include <QStringList>

// The desktop the program runs on, found once from the session's environment, and what each
// kind needs to know about it. Every desktop-specific take-over is chosen from this.
class Desktop
{
public:
    enum class Kind { None, Lxde, LxdePi, Xfce, Labwc, Wayfire, Sway };

    static Kind detect();
    static QString name(Kind kind);
    static bool isWayland(Kind kind);
    // The profile of the LXDE programs (panel, file manager) of that desktop: Raspberry Pi OS
    // keeps "LXDE-pi" under its Wayland compositors too.
    static QString lxdeProfile(Kind kind);

    // Where the desktop's programs keep their configuration: $XDG_CONFIG_HOME, else ~/.config.
    static QString configHome();

    // The command lines of this user's running programs of that name.
    static QList<QStringList> running(const QString &program);
    // The value given to the option in the first of those command lines that has it.
    static QString runningOption(const QString &program, const QString &option);
};
