#include "unclutterpointerhider.h"

UnclutterPointerHider::UnclutterPointerHider()
{
    takeOver();
}

UnclutterPointerHider::~UnclutterPointerHider()
{
    giveBack();
}

bool UnclutterPointerHider::hideImpl()
{
    m_process.start(QStringLiteral("unclutter"), {QStringLiteral("-idle"), QStringLiteral("1")});
    if (m_process.waitForStarted(1000))
        m_pid = m_process.processId();
    // Taken even when it did not start in time: a slow start still hides the pointer later.
    return true;
}

void UnclutterPointerHider::showImpl()
{
    m_process.terminate();
    if (!m_process.waitForFinished(1000))
        m_process.kill();
    m_process.waitForFinished(1000);
}

QList<QStringList> UnclutterPointerHider::giveBackCommands() const
{
    if (m_pid <= 0)
        return {};
    return {{QStringLiteral("kill"), QString::number(m_pid)}};
}
