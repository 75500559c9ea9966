#pragma once

#include "panelmanager.h"

namespace panel {

// The XFCE panel, which quits and starts through its own command.
class XfceManager final : public Manager
{
public:
    XfceManager();
    ~XfceManager() override;

protected:
    bool hideImpl() override;
    QStringList startCommand() const override;
};

} // namespace panel
