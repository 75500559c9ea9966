#pragma once

#include <QTimer>

class Runnable;

// Repeating display-time timer that asks its content whether it is finished.
class RunnableTimer : public QTimer
{
    Q_OBJECT

public:
    RunnableTimer(Runnable *runnable, QObject *parent);

public Q_SLOTS:
    void onTimeout();

private:
    Runnable *m_runnable;
};

// What content tells whoever shows it. Each content class declares its own end() and relays it
// here, so that the viewer connects to one typed signal whatever the class.
class RunnableNotifier : public QObject
{
    Q_OBJECT

Q_SIGNALS:
    void end();
    // Content that changes in place (a PDF turning a page).
    void pageChanged();
    // Content prepared ahead of its turn is ready to be shown at once.
    void ready();
};

// Life cycle shared by every piece of content: start, stop, pause/resume toggle, restart, and an
// optional display time in seconds.
class Runnable
{
public:
    explicit Runnable(int timeout);
    virtual ~Runnable();

    // The content behind a widget, or null for a widget that is no content.
    static Runnable *of(QObject *widget);

    RunnableNotifier *notifier() { return &m_notifier; }

    void setTimeout(int timeout);
    int timeout() const { return m_timeout; }
    bool isActive() const;
    bool start();
    void stop();
    bool pause();
    bool restart(bool stopFirst);

    // Content built ahead of its turn gets ready off screen (decoded, rendered, loaded and
    // painted), so that its start shows it at once. Content that gets ready later than its
    // prepare() says so with notifier()->ready().
    virtual void prepare() {}
    virtual bool isReady() const { return true; }

protected:
    virtual bool stopImpl() = 0;
    virtual bool startImpl() = 0;
    virtual bool onTimeoutImpl() = 0;
    virtual bool pauseImpl() = 0;
    virtual bool resumeImpl() = 0;

private:
    friend class RunnableTimer;

    RunnableTimer m_timer;
    RunnableNotifier m_notifier;
    int m_timeout;
    bool m_active = false;
    bool m_stopped = false;
};
