#pragma once

#include "filemanagertakeover.h"
#include "xfconfedit.h"

// Thunar's volume manager (XFCE): browsing, opening and running what a new volume holds are
// turned off in its settings channel; mounting stays on.
class ThunarTakeover final : public FileManagerTakeover
{
public:
    ThunarTakeover();
    ~ThunarTakeover() override;

protected:
    bool disableImpl() override;
    QList<QStringList> giveBackCommands() const override;

private:
    XfconfEdit m_edit;
};
