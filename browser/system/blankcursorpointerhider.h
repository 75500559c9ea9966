#pragma once

#include "pointerhider.h"

// Gives every window of the program a blank cursor, which hides the pointer over the show on
// X11 and under Wayland alike, with no helper program. The pointer comes back by itself when
// the program ends.
class BlankCursorPointerHider final : public PointerHider
{
public:
    BlankCursorPointerHider();
    ~BlankCursorPointerHider() override;

protected:
    bool hideImpl() override;
    void showImpl() override;
    QList<QStringList> giveBackCommands() const override;
};
