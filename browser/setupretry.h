#pragma once

#include <QObject>
#include <QTimer>

// When the slideshow set-up runs again: at once when one is asked for while another is under
// way, and after a failed one. When set-ups keep failing, each retry waits longer while the
// cached show goes on, instead of spinning on a server that keeps failing.
class SetUpRetry : public QObject
{
    Q_OBJECT

public:
    // After this many consecutive failed set-ups the retries slow down, up to MaxRetryDelayMs.
    static constexpr int FirstRetryDelayMs = 15000;
    static constexpr int MaxRetryDelayMs = 600000;

    explicit SetUpRetry(QObject *parent = nullptr);

    // A set-up begins: a retry that was due is this set-up.
    void cancel();
    // A set-up asked for while one runs follows as soon as that one is over.
    void soon();
    void succeeded();
    // The first retry follows at once, later ones wait longer each time.
    void failed();

Q_SIGNALS:
    void retry();

private:
    QTimer m_timer;
    int m_failedSetUps = 0;
};
