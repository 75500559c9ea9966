#pragma once

#include "panelmanager.h"

namespace panel {

// The LXDE panel, lxpanel with the Raspberry Pi profile.
class LxdeManager final : public Manager
{
public:
    LxdeManager();
    ~LxdeManager() override;

protected:
    bool hideImpl() override;
    void restoreImpl() override;
    QList<QStringList> giveBackCommands() const override;
};

} // namespace panel
