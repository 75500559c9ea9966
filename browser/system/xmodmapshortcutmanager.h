#pragma once

#include "systemshortcutmanager.h"

// Empties the Super keys in the X key map through xmodmap; the saved key map brings back the
// exact layout, whatever it was.
class XmodmapShortcutManager final : public SystemShortcutManager
{
public:
    XmodmapShortcutManager();
    ~XmodmapShortcutManager() override;

protected:
    bool disableImpl() override;
    void restoreImpl() override;
    QList<QStringList> giveBackCommands() const override;

private:
    QString m_backup;
};
