#include "lxdemanager.h"

#include "utils.h"

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

QStringList LxdeManager::startCommand() const
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

} // namespace panel
