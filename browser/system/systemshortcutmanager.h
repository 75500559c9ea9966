#pragma once

#include "desktoptakeover.h"

#include <memory>

// Takes the desktop's own keyboard shortcuts away from a locked-down kiosk (terminal, run dialog,
// menu, window switching and closing) and gives them back when the kiosk ends. One subclass per
// desktop knows how its shortcuts are taken.
class SystemShortcutManager : public DesktopTakeover
{
public:
    // The manager for the running desktop; none unless the kiosk is full screen and locked by a
    // password.
    static std::unique_ptr<SystemShortcutManager> create(bool fullscreen, bool passwordSet);

protected:
    SystemShortcutManager();
    bool takeOverImpl() final;
    void giveBackImpl() final;
    // True when the shortcuts may have changed and must be restored.
    virtual bool disableImpl() = 0;
    virtual void restoreImpl() = 0;
};
