#include "runnable.h"

#include <QDebug>

#include <climits>

namespace {
// A display time too long for the timer's milliseconds runs as long as the timer can wait,
// instead of wrapping round to a few milliseconds.
int intervalMs(int seconds)
{
    return int(qMin<qint64>(qint64(seconds) * 1000, INT_MAX));
}
} // namespace

RunnableTimer::RunnableTimer(Runnable *runnable, QObject *parent)
    : QTimer(parent)
    , m_runnable(runnable)
{
    connect(this, &QTimer::timeout, this, &RunnableTimer::onTimeout);
}

void RunnableTimer::onTimeout()
{
    qDebug() << "Timeout";
    if (!m_runnable->onTimeoutImpl())
        return;
    if (m_runnable->isActive())
        m_runnable->stop();
}

Runnable::Runnable(int timeout)
    : m_timer(this, nullptr)
    , m_timeout(timeout)
{
    // A resume before any start must not run a zero-interval timer.
    if (timeout > 0)
        m_timer.setInterval(intervalMs(timeout));
}

Runnable::~Runnable() = default;

Runnable *Runnable::of(QObject *widget)
{
    return dynamic_cast<Runnable *>(widget);
}

void Runnable::setTimeout(int timeout)
{
    m_timeout = timeout;
    if (timeout > 0 && !m_timer.isActive())
        m_timer.setInterval(intervalMs(timeout));
}

bool Runnable::isActive() const
{
    if (m_timer.isActive())
        return true;
    if (m_timeout > 0)
        return false;
    return m_active;
}

bool Runnable::start()
{
    qDebug() << "Starting" << static_cast<const void *>(this);
    if (!startImpl())
        return false;
    m_stopped = false;
    if (m_timeout >= 1 && !m_timer.isActive())
        m_timer.start(intervalMs(m_timeout));
    m_active = true;
    return true;
}

void Runnable::stop()
{
    // Content that stopped already (its time ran out, then the next item replaced it) is not
    // stopped again; neither is content whose stop is still under way.
    if (m_stopped)
        return;
    qDebug() << "Stopping" << static_cast<const void *>(this);
    m_stopped = true;
    const bool stopped = stopImpl();
    if (!stopped) {
        m_stopped = false;
        return;
    }
    // Untimed content keeps its active flag on purpose; callers track its end themselves.
    if (m_timer.isActive()) {
        m_timer.stop();
        m_active = false;
    }
}

bool Runnable::pause()
{
    if (isActive()) {
        qDebug() << "Pause";
        if (m_timeout > 0)
            m_timer.stop();
        pauseImpl();
        return true;
    }
    qDebug() << "Resume";
    if (m_timeout > 0)
        m_timer.start();
    resumeImpl();
    return false;
}

bool Runnable::restart(bool stopFirst)
{
    if (stopFirst && isActive())
        stop();
    return start();
}
