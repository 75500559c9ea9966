#include "configfileshortcutmanager.h"

#include "utils.h"

ConfigFileShortcutManager::ConfigFileShortcutManager(ConfigFileEdit edit,
                                                     const QList<QStringList> &reconfigure)
    : m_edit(std::move(edit))
    , m_reconfigure(reconfigure)
{
}

bool ConfigFileShortcutManager::disableImpl()
{
    if (!m_edit.saveBackup())
        return false;
    // Recorded before the file changes: a kill right after the change still gives it back.
    registerGiveBack();
    if (!m_edit.write())
        return false;
    for (const QStringList &command : qAsConst(m_reconfigure))
        Utils::runAndWait(command.first(), command.mid(1));
    return true;
}

void ConfigFileShortcutManager::restoreImpl()
{
    runGiveBackCommands();
}

QList<QStringList> ConfigFileShortcutManager::giveBackCommands() const
{
    return m_edit.restoreCommands() + m_reconfigure;
}
