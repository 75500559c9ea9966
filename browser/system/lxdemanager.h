#pragma once

#include "desktop.h"
#include "panelmanager.h"

namespace panel {

// The LXDE panel, lxpanel, started again with the profile it ran with.
class LxdeManager final : public Manager
{
public:
    explicit LxdeManager(Desktop::Kind desktop);
    ~LxdeManager() override;

protected:
    bool hideImpl() override;
    QStringList startCommand() const override;

private:
    QString m_profile;
};

} // namespace panel
