#pragma once

#include "configfileshortcutmanager.h"

// The wayfire compositor: the bindings of its configuration file that leave the show are set to
// "none". Wayfire notices the changed file by itself.
class WayfireShortcutManager final : public ConfigFileShortcutManager
{
public:
    WayfireShortcutManager();
    ~WayfireShortcutManager() override;

    static QByteArray withoutKeyBindings(const QByteArray &configuration);
};
