#include "xfcemanager.h"

#include "utils.h"

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

QStringList XfceManager::startCommand() const
{
    return {QStringLiteral("xfce4-panel")};
}

} // namespace panel
