#pragma once

#include "desktoptakeover.h"

#include <memory>

// Hides the mouse pointer while the show runs and shows it again when the show ends. A
// subclass knows one way of hiding it.
class PointerHider : public DesktopTakeover
{
public:
    static std::unique_ptr<PointerHider> create();

protected:
    PointerHider();
    bool takeOverImpl() final;
    void giveBackImpl() final;
    // True when the pointer is, or may soon be, hidden.
    virtual bool hideImpl() = 0;
    virtual void showImpl() = 0;
};
