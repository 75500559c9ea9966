#pragma once

#include "desktoptakeover.h"

#include <memory>

// Takes the desktop's own keyboard shortcuts away from a locked-down kiosk (the Super keys, which
// open menus and launchers) and gives them back when the kiosk ends. A subclass knows one way
// of taking them.
class SystemShortcutManager : public DesktopTakeover
{
public:
    // None unless the kiosk is full screen and locked by a password.
    static std::unique_ptr<SystemShortcutManager> create(bool fullscreen, bool passwordSet);

protected:
    SystemShortcutManager();
    bool takeOverImpl() final;
    void giveBackImpl() final;
    // True when the shortcuts may have changed and must be restored.
    virtual bool disableImpl() = 0;
    virtual void restoreImpl() = 0;
};
