#include "subprocessmanager.h"

#include "settings.h"
#include "watchdog.h"

#include <QDebug>
#include <QElapsedTimer>

#include <csignal>
#include <sys/types.h>
#include <unistd.h>
#include <utility>

namespace {
const int terminateWaitMs = 1000;

bool groupAlive(qint64 group)
{
    return ::kill(pid_t(-group), 0) == 0;
}
} // namespace

RProcess::RProcess(QObject *parent)
    : ChildProcess(OwnGroup, parent)
{
}

SubprocessManager::SubprocessManager(QObject *parent)
    : QObject(parent)
{
}

SubprocessManager::~SubprocessManager()
{
    empty();
}

QString SubprocessManager::programFor(const QString &mimeType)
{
    const QString table
        = Settings::load(false, nullptr)->get(QStringLiteral("main/open_with")).toString();
    for (const QString &entry : table.split(QLatin1Char(';'), Qt::SkipEmptyParts)) {
        const int equals = entry.indexOf(QLatin1Char('='));
        if (equals > 0 && !mimeType.isEmpty()
            && entry.left(equals).trimmed() == mimeType.trimmed()) {
            const QString program = entry.mid(equals + 1).trimmed();
            if (!program.isEmpty())
                return program;
        }
    }
    return QStringLiteral("xdg-open");
}

bool SubprocessManager::open(const QString &path, const QString &mimeType)
{
    const QString program = programFor(mimeType);
    auto *process = new RProcess(this);
    process->setProcessChannelMode(QProcess::ForwardedChannels);
    connect(process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), process,
            &QObject::deleteLater);
    process->start(program, {path}, QIODevice::NotOpen);
    if (!process->waitForStarted(5000)) {
        qWarning() << "Cannot open" << path << "with" << program << process->errorString();
        process->deleteLater();
        return false;
    }
    qDebug() << "Opened" << path << "(" << mimeType << ") with" << program;
    m_processes << process;
    // The group outlives xdg-open itself when it has handed the file on.
    m_groups << process->processId();
    return true;
}

int SubprocessManager::running() const
{
    int alive = 0;
    for (qint64 group : m_groups) {
        if (groupAlive(group))
            ++alive;
    }
    return alive;
}

void SubprocessManager::empty()
{
    for (qint64 group : std::as_const(m_groups))
        ::kill(pid_t(-group), SIGTERM);
    const Watchdog::OwnWait wait;
    QElapsedTimer waited;
    waited.start();
    for (const QPointer<RProcess> &process : std::as_const(m_processes)) {
        if (process && process->state() != QProcess::NotRunning)
            process->waitForFinished(qMax(1, terminateWaitMs - int(waited.elapsed())));
    }
    for (qint64 group : std::as_const(m_groups)) {
        if (groupAlive(group))
            ::kill(pid_t(-group), SIGKILL);
    }
    for (const QPointer<RProcess> &process : std::as_const(m_processes)) {
        if (process) {
            process->waitForFinished(terminateWaitMs);
            delete process.data();
        }
    }
    m_processes.clear();
    m_groups.clear();
}
