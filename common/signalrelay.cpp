#include "signalrelay.h"

#include "watchdog.h"

#include <QCoreApplication>
#include <QDebug>
#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {
int s_pipe[2] = {-1, -1};
int s_caught = 0;
} // namespace

void signal_callback_handler(int signum)
{
    const int savedErrno = errno;
    Watchdog::signalArrived(signum);
    const unsigned char byte = static_cast<unsigned char>(signum);
    if (s_pipe[1] >= 0) {
        ssize_t written = ::write(s_pipe[1], &byte, 1);
        (void)written;
    }
    errno = savedErrno;
}

bool SignalRelay::install()
{
    if (s_pipe[0] < 0 && ::pipe2(s_pipe, O_NONBLOCK | O_CLOEXEC) != 0)
        return false;
    struct sigaction action = {};
    action.sa_handler = signal_callback_handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    // SIGTERM and SIGHUP end the program as before, but only after it has given the desktop
    // back what it took (see finishSignal()).
    bool installed = true;
    for (int signum : {SIGINT, SIGTERM, SIGHUP})
        installed = ::sigaction(signum, &action, nullptr) == 0 && installed;
    return installed;
}

int SignalRelay::caughtSignal()
{
    return s_caught;
}

void SignalRelay::finishSignal()
{
    if (s_caught != SIGTERM && s_caught != SIGHUP)
        return;
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    sigemptyset(&action.sa_mask);
    ::sigaction(s_caught, &action, nullptr);
    ::raise(s_caught);
}

SignalRelay::SignalRelay(QObject *parent)
    : QObject(parent)
{
    if (s_pipe[0] < 0)
        return;
    m_notifier = new QSocketNotifier(s_pipe[0], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &SignalRelay::onActivated);
}

void SignalRelay::onActivated()
{
    unsigned char byte = 0;
    while (::read(s_pipe[0], &byte, 1) == 1) {
        const int signum = byte;
        qDebug() << "Caught signal" << signum;
        s_caught = signum;
        Watchdog::signalTaken();
        // Leaves every running loop, nested waits included; a wait that starts afterwards
        // returns at once.
        QCoreApplication::exit(signum);
    }
}
