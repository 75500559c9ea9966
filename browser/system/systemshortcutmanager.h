#pragma once

#include <QString>

// Takes the desktop's own keyboard shortcuts away from a locked-down kiosk (the Super keys, which
// open menus and launchers) and gives them back when the kiosk ends.
class SystemShortcutManager
{
public:
    SystemShortcutManager(bool fullscreen, bool passwordSet);
    ~SystemShortcutManager();

    bool disabled() const { return m_disabled; }

private:
    QString m_backup;
    bool m_disabled = false;
};
