#include "signalrelay.h"

#include <QCoreApplication>
#include <QDebug>
#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {
int s_pipe[2] = {-1, -1};
}

void signal_callback_handler(int signum)
{
    const int savedErrno = errno;
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
    return ::sigaction(SIGINT, &action, nullptr) == 0;
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
        QCoreApplication::exit(signum);
    }
}
