#include "frozenpages.h"

#include "logger.h"
#include "watchdog.h"

#include <QDebug>
#include <QUrl>

#include <csignal>
#include <sys/types.h>

namespace {
bool kill(qint64 pid, const QString &why)
{
    if (pid <= 0 || ::kill(pid_t(pid), SIGKILL) != 0)
        return false;
    qWarning().noquote() << why;
    Logger::logWarning(why);
    return true;
}
} // namespace

namespace FrozenPages {

bool endSlideshowPage(qint64 rendererPid, const QUrl &url)
{
    const bool ended
        = kill(rendererPid, QStringLiteral("Web page %1 did not answer (a script that never "
                                           "ends?); its renderer %2 was ended, the page will be "
                                           "shown without scripts.")
                                .arg(url.toString())
                                .arg(rendererPid));
    if (ended)
        Watchdog::recordStall(url);
    return ended;
}

bool endTab(qint64 rendererPid, const QUrl &url)
{
    return kill(rendererPid, QStringLiteral("Tab %1 did not answer (a script that never ends?); "
                                            "its renderer %2 was ended and the tab closed.")
                                 .arg(url.toString())
                                 .arg(rendererPid));
}

} // namespace FrozenPages
