#include "memoryceiling.h"

#include "frozenpages.h"
#include "watchdog.h"
#include "webview.h"

#include <QFile>

namespace {
// A page that allocates as fast as it can gains some 100 MB in this time.
constexpr int checkEveryMs = 200;
} // namespace

MemoryCeiling::MemoryCeiling(WebView *view, qint64 limitMb)
    : QObject(view)
    , m_view(view)
    , m_limitKiB(limitMb * 1024)
{
    m_timer.setInterval(checkEveryMs);
    connect(&m_timer, &QTimer::timeout, this, &MemoryCeiling::check);
    if (m_limitKiB > 0)
        m_timer.start();
}

qint64 MemoryCeiling::residentKiB(qint64 pid)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (pid <= 0 || !status.open(QIODevice::ReadOnly))
        return 0;
    for (QByteArray line = status.readLine(); !line.isEmpty(); line = status.readLine()) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).simplified().split(' ').value(0).toLongLong();
    }
    return 0;
}

void MemoryCeiling::check()
{
    const qint64 pid = m_view->renderProcessPid();
    const qint64 resident = residentKiB(pid);
    if (resident <= m_limitKiB)
        return;
    // The address asked for, which the stalled-pages list is checked against, not where it led.
    const QUrl url = m_view->requestedUrl();
    const bool ended = FrozenPages::killRenderer(
        pid, QStringLiteral("Web page %1 passed its memory ceiling of %2 MB (%3 MB); its "
                            "renderer %4 was ended, the page will be shown without scripts.")
                 .arg(url.toString())
                 .arg(m_limitKiB / 1024)
                 .arg(resident / 1024)
                 .arg(pid));
    if (!ended)
        return;
    Watchdog::recordStall(url, QStringLiteral("memory"));
    emit passed();
}
