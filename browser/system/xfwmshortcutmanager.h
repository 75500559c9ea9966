#pragma once

#include "systemshortcutmanager.h"
#include "xfconfedit.h"

// XFCE: the window manager's (xfwm4) and the desktop's command shortcuts live in the settings
// channel "xfce4-keyboard-shortcuts". Their custom sets are emptied and made the ones in force.
class XfwmShortcutManager final : public SystemShortcutManager
{
public:
    XfwmShortcutManager();
    ~XfwmShortcutManager() override;

protected:
    bool disableImpl() override;
    void restoreImpl() override;
    QList<QStringList> giveBackCommands() const override;

private:
    XfconfEdit m_edit;
};
