#pragma once

#include <QObject>

class QSocketNotifier;

// The handler of the signals that end the program. It only writes the signal number to a pipe,
// which is all a signal context may safely do; SignalRelay picks it up on the GUI thread.
void signal_callback_handler(int signum);

// Delivers caught signals to the event loop: logs "Caught signal N" and exits the loop with N.
class SignalRelay : public QObject
{
    Q_OBJECT

public:
    // Installs signal_callback_handler for SIGINT, SIGTERM and SIGHUP. Call before the
    // application exists.
    static bool install();
    // The last signal delivered to the event loop, 0 if none.
    static int caughtSignal();
    // After SIGTERM or SIGHUP, once everything is cleaned up: ends the process by that signal,
    // as its default action would have.
    static void finishSignal();

    // Needs the application object; watches the pipe the handler writes to.
    explicit SignalRelay(QObject *parent = nullptr);

private:
    void onActivated();

    QSocketNotifier *m_notifier = nullptr;
};
