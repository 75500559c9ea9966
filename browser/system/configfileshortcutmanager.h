#pragma once

#include "configfileedit.h"
#include "systemshortcutmanager.h"

// Takes the shortcuts away by changing the window manager's configuration file and asking it to
// read it again; the file as it was comes back byte for byte.
class ConfigFileShortcutManager : public SystemShortcutManager
{
protected:
    // reconfigure: the commands that make the window manager read the file again.
    ConfigFileShortcutManager(ConfigFileEdit edit, const QList<QStringList> &reconfigure);

    bool disableImpl() final;
    void restoreImpl() final;
    QList<QStringList> giveBackCommands() const final;

private:
    ConfigFileEdit m_edit;
    QList<QStringList> m_reconfigure;
};
