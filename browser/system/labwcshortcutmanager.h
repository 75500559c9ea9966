#pragma once

#include "configfileshortcutmanager.h"

// The labwc compositor: its rc.xml gets a keyboard section with no binding that does anything.
class LabwcShortcutManager final : public ConfigFileShortcutManager
{
public:
    LabwcShortcutManager();
    ~LabwcShortcutManager() override;

    static QByteArray withoutKeyBindings(const QByteArray &configuration);
};
