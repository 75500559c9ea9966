#include "systemshortcutmanager.h"

#include "desktop.h"
#include "labwcshortcutmanager.h"
#include "openboxshortcutmanager.h"
#include "wayfireshortcutmanager.h"
#include "xfwmshortcutmanager.h"
#include "xmodmapshortcutmanager.h"

#include <QDebug>

std::unique_ptr<SystemShortcutManager> SystemShortcutManager::create(bool fullscreen,
                                                                     bool passwordSet)
{
    if (!fullscreen || !passwordSet)
        return nullptr;
    const Desktop::Kind desktop = Desktop::detect();
    switch (desktop) {
    case Desktop::Kind::Lxde:
    case Desktop::Kind::LxdePi:
        return std::make_unique<OpenboxShortcutManager>(desktop);
    case Desktop::Kind::Xfce:
        return std::make_unique<XfwmShortcutManager>();
    case Desktop::Kind::Labwc:
        return std::make_unique<LabwcShortcutManager>();
    case Desktop::Kind::Wayfire:
        return std::make_unique<WayfireShortcutManager>();
    case Desktop::Kind::Sway:
        qDebug() << "System shortcuts of sway are left as they are.";
        return nullptr;
    case Desktop::Kind::None:
        break;
    }
    // A bare X session: only the key map can be changed.
    return std::make_unique<XmodmapShortcutManager>();
}

SystemShortcutManager::SystemShortcutManager()
    : DesktopTakeover(QStringLiteral("System shortcuts"))
{
}

bool SystemShortcutManager::takeOverImpl()
{
    if (!disableImpl())
        return false;
    qDebug() << "System shortcuts disabled.";
    return true;
}

void SystemShortcutManager::giveBackImpl()
{
    restoreImpl();
    qDebug() << "System shortcuts restored.";
}
