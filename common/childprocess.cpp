#include "childprocess.h"

#include <csignal>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

ChildProcess::ChildProcess(Options options, QObject *parent)
    : QProcess(parent)
    , m_options(options)
{
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    setChildProcessModifier([this] { prepareChild(); });
#endif
}

#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
void ChildProcess::setupChildProcess()
{
    prepareChild();
}
#endif

void ChildProcess::prepareChild() const
{
    if (m_options & OwnGroup)
        ::setpgid(0, 0);
    if (m_options & EndsWithParent)
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);

    // Closed at exec rather than now: QProcess's own pipe that reports a failed exec is among
    // them. One call where the kernel has it, else one per possible descriptor.
    if (::close_range(3, ~0U, CLOSE_RANGE_CLOEXEC) == 0)
        return;
    rlimit limit{};
    const int last = ::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < 65536
                         ? int(limit.rlim_cur)
                         : 65536;
    for (int fd = 3; fd < last; ++fd) {
        const int flags = ::fcntl(fd, F_GETFD);
        if (flags >= 0 && !(flags & FD_CLOEXEC))
            ::fcntl(fd, F_SETFD, flags | FD_CLOEXEC);
    }
}
