#include "xfcemanager.h"

#include "utils.h"

#include <QProcess>

namespace panel {

XfceManager::XfceManager()
{
    takeOver();
}

XfceManager::~XfceManager()
{
    giveBack();
}

bool XfceManager::hideImpl()
{
    return Utils::runAndWait(QStringLiteral("xfce4-panel"), {QStringLiteral("--quit")}) == 0;
}

void XfceManager::restoreImpl()
{
    QProcess::startDetached(QStringLiteral("xfce4-panel"), {});
}

QList<QStringList> XfceManager::giveBackCommands() const
{
    return {detached({QStringLiteral("xfce4-panel")})};
}

} // namespace panel
