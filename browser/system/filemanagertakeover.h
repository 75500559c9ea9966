#pragma once

#include "desktoptakeover.h"

#include <memory>

// Keeps the desktop's file manager from opening a window over the show when a USB key is
// inserted (the volumes are still mounted, which the USB import needs), and gives its volume
// handling back when the show ends. One subclass per file manager.
class FileManagerTakeover : public DesktopTakeover
{
public:
    // The take-over for the running desktop's file manager; none when the window stays an
    // ordinary one, or on a desktop without a known file manager.
    static std::unique_ptr<FileManagerTakeover> create(bool fullscreen, bool passwordSet);

protected:
    FileManagerTakeover();
    bool takeOverImpl() final;
    void giveBackImpl() final;
    // True when the volume handling may have changed and must be given back.
    virtual bool disableImpl() = 0;
};
