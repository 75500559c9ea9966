#include "systemshortcutmanager.h"

#include "xmodmapshortcutmanager.h"

#include <QDebug>

std::unique_ptr<SystemShortcutManager> SystemShortcutManager::create(bool fullscreen,
                                                                     bool passwordSet)
{
    if (!fullscreen || !passwordSet)
        return nullptr;
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
