#include "lxdemanager.h"

#include "utils.h"

#include <QProcess>

namespace panel {

LxdeManager::LxdeManager(Desktop::Kind desktop)
    : m_profile(Desktop::lxdeProfile(desktop))
{
    takeOver();
}

LxdeManager::~LxdeManager()
{
    giveBack();
}

QStringList LxdeManager::command() const
{
    return {QStringLiteral("lxpanel"), QStringLiteral("--profile"), m_profile};
}

bool LxdeManager::hideImpl()
{
    const QString running
        = Desktop::runningOption(QStringLiteral("lxpanel"), QStringLiteral("--profile"));
    if (!running.isEmpty())
        m_profile = running;
    // pkill answers 0 only when a panel was running, so nothing is restarted that never ran.
    return Utils::runAndWait(QStringLiteral("pkill"),
                             {QStringLiteral("-x"), QStringLiteral("lxpanel")})
           == 0;
}

void LxdeManager::restoreImpl()
{
    const QStringList start = command();
    QProcess::startDetached(start.first(), start.mid(1));
}

QList<QStringList> LxdeManager::giveBackCommands() const
{
    return {detached(command())};
}

} // namespace panel
