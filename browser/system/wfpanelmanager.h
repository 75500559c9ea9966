#pragma once

#include "panelmanager.h"

namespace panel {

// The panel of Raspberry Pi OS's Wayland desktops (labwc, wayfire), wf-panel-pi.
class WfPanelManager final : public Manager
{
public:
    WfPanelManager();
    ~WfPanelManager() override;

protected:
    bool hideImpl() override;
    QStringList startCommand() const override;
};

} // namespace panel
