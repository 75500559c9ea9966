#pragma once

#include "configfileedit.h"
#include "desktop.h"
#include "filemanagertakeover.h"

// PCManFM (LXDE, and Raspberry Pi OS under every compositor): "autorun" off in its profile's
// configuration, which it reads again when told.
class PcmanfmTakeover final : public FileManagerTakeover
{
public:
    explicit PcmanfmTakeover(Desktop::Kind desktop);
    ~PcmanfmTakeover() override;

protected:
    bool disableImpl() override;
    QList<QStringList> giveBackCommands() const override;

private:
    QString m_profile;
    ConfigFileEdit m_edit;
    QList<QStringList> m_reconfigure;
};
