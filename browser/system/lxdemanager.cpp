#include "lxdemanager.h"

#include "utils.h"

#include <QProcess>

namespace panel {

namespace {
QStringList lxpanelCommand()
{
    return {QStringLiteral("lxpanel"), QStringLiteral("--profile"), QStringLiteral("LXDE-pi")};
}
} // namespace

LxdeManager::LxdeManager()
{
    takeOver();
}

LxdeManager::~LxdeManager()
{
    giveBack();
}

bool LxdeManager::hideImpl()
{
    // pkill answers 0 only when a panel was running, so nothing is restarted that never ran.
    return Utils::runAndWait(QStringLiteral("pkill"), {QStringLiteral("lxpanel")}) == 0;
}

void LxdeManager::restoreImpl()
{
    const QStringList command = lxpanelCommand();
    QProcess::startDetached(command.first(), command.mid(1));
}

QList<QStringList> LxdeManager::giveBackCommands() const
{
    return {lxpanelCommand()};
}

} // namespace panel
