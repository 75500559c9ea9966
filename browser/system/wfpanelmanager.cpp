#include "wfpanelmanager.h"

#include "utils.h"

#include <QProcess>

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

void WfPanelManager::restoreImpl()
{
    QProcess::startDetached(QString::fromLatin1(program), {});
}

QList<QStringList> WfPanelManager::giveBackCommands() const
{
    return {detached({QString::fromLatin1(program)})};
}

} // namespace panel
