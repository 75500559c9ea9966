#include "wfpanelmanager.h"

#include "utils.h"

namespace panel {

namespace {
const char program[] = "wf-panel-pi";
}

WfPanelManager::WfPanelManager()
{
    takeOver();
}

WfPanelManager::~WfPanelManager()
{
    giveBack();
}

bool WfPanelManager::hideImpl()
{
    return Utils::runAndWait(QStringLiteral("pkill"),
                             {QStringLiteral("-x"), QString::fromLatin1(program)})
           == 0;
}

QStringList WfPanelManager::startCommand() const
{
    return {QString::fromLatin1(program)};
}

} // namespace panel
