#include "setupretry.h"

#include <QDebug>

SetUpRetry::SetUpRetry(QObject *parent)
    : QObject(parent)
{
    m_timer.setSingleShot(true);
    connect(&m_timer, &QTimer::timeout, this, &SetUpRetry::retry);
}

void SetUpRetry::cancel()
{
    m_timer.stop();
}

void SetUpRetry::soon()
{
    m_timer.start(0);
}

void SetUpRetry::succeeded()
{
    m_failedSetUps = 0;
}

void SetUpRetry::failed()
{
    const int delay = m_failedSetUps == 0
                          ? 0
                          : qMin(MaxRetryDelayMs, FirstRetryDelayMs << qMin(m_failedSetUps - 1, 8));
    ++m_failedSetUps;
    if (delay > 0)
        qDebug() << "Download failed again; next attempt in" << delay / 1000 << "s.";
    m_timer.start(delay);
}
