#pragma once

#include "configfileshortcutmanager.h"
#include "desktop.h"

// LXDE's window manager, openbox: its key bindings (terminal, run dialog, menu, window
// switching and closing) are taken out of the desktop's openbox configuration.
class OpenboxShortcutManager final : public ConfigFileShortcutManager
{
public:
    explicit OpenboxShortcutManager(Desktop::Kind desktop);
    ~OpenboxShortcutManager() override;

    static QByteArray withoutKeyBindings(const QByteArray &configuration);
};
