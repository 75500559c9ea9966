#pragma once

#include "pointerhider.h"

#include <QProcess>

// Runs unclutter, which hides the pointer after one second without motion, for as long as it
// is taken.
class UnclutterPointerHider final : public PointerHider
{
public:
    UnclutterPointerHider();
    ~UnclutterPointerHider() override;

protected:
    bool hideImpl() override;
    void showImpl() override;
    QList<QStringList> giveBackCommands() const override;

private:
    QProcess m_process;
    qint64 m_pid = 0;
};
