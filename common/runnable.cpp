#include "runnable.h"

#include <QDebug>

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
        m_timer.setInterval(timeout * 1000);
}

Runnable::~Runnable() = default;

void Runnable::setTimeout(int timeout)
{
    m_timeout = timeout;
    if (timeout > 0 && !m_timer.isActive())
        m_timer.setInterval(timeout * 1000);
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
    if (m_timeout >= 1 && !m_timer.isActive())
        m_timer.start(m_timeout * 1000);
    m_active = true;
    return true;
}

void Runnable::stop()
{
    qDebug() << "Stopping" << static_cast<const void *>(this);
    // Untimed content keeps its active flag on purpose; callers track its end themselves.
    if (stopImpl() && m_timer.isActive()) {
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
