#include "frozenpages.h"

#include "logger.h"
#include "watchdog.h"

#include <QDebug>
#include <QUrl>

#include <csignal>
#include <sys/types.h>

namespace FrozenPages {

bool killRenderer(qint64 pid, const QString &why)
{
    if (pid <= 0 || ::kill(pid_t(pid), SIGKILL) != 0)
        return false;
    qWarning().noquote() << why;
    Logger::logWarning(why);
    return true;
}

bool endSlideshowPage(qint64 rendererPid, const QUrl &url)
{
    const bool ended = killRenderer(
        rendererPid, QStringLiteral("Web page %1 did not answer (a script that never "
                                    "ends?); its renderer %2 was ended, the page will be "
                                    "shown without scripts.")
                         .arg(url.toString())
                         .arg(rendererPid));
    if (ended)
        Watchdog::recordStall(url, QStringLiteral("script"));
    return ended;
}

bool endTab(qint64 rendererPid, const QUrl &url)
{
    return killRenderer(rendererPid,
                        QStringLiteral("Tab %1 did not answer (a script that never ends?); "
                                       "its renderer %2 was ended and the tab closed.")
                            .arg(url.toString())
                            .arg(rendererPid));
}

} // namespace FrozenPages
