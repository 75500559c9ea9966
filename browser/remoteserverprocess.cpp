#include "remoteserverprocess.h"

#include "logger.h"
#include "settings.h"
#include "statepaths.h"
#include "watchdog.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <QLockFile>
#include <QProcessEnvironment>

namespace {
// A server that ran this long was healthy: a later death restarts it quickly again.
const int healthyRunMs = 30000;
} // namespace

RemoteServerProcess::RemoteServerProcess(QObject *parent)
    : QObject(parent)
{
    m_process.setProcessChannelMode(QProcess::ForwardedChannels);
    connect(&m_process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), this,
            &RemoteServerProcess::onFinished);
    connect(&m_process, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
        if (error != QProcess::FailedToStart)
            return;
        // Not installed: trying again would fail the same way.
        m_wanted = false;
        if (m_lock)
            m_lock->unlock();
        qDebug() << "Remote server could not be started: vorsane-remote is missing.";
    });
    m_restartTimer.setSingleShot(true);
    connect(&m_restartTimer, &QTimer::timeout, this, &RemoteServerProcess::launch);
}

RemoteServerProcess::~RemoteServerProcess()
{
    stop();
}

QString RemoteServerProcess::program()
{
    const QString beside
        = QCoreApplication::applicationDirPath() + QLatin1String("/vorsane-remote");
    if (QFileInfo(beside).isExecutable())
        return beside;
    return QStringLiteral("vorsane-remote");
}

void RemoteServerProcess::startFor(const Settings &settings)
{
    // The server reads the same preference and playlist files as the kiosk.
    start(settings.remotePort(), settings.remoteKey(),
          {QStringLiteral("--preference"), settings.preferencesFilename(),
           QStringLiteral("--playlist"), settings.playlistFilename()});
}

void RemoteServerProcess::start(int port, const QString &key, const QStringList &kioskArguments)
{
    m_arguments = QStringList{QStringLiteral("--port"), QString::number(port)} + kioskArguments;
    m_key = key;
    if (m_wanted)
        return;
    if (!m_lock) {
        StatePaths::ensureRoot();
        m_lock = std::make_unique<QLockFile>(StatePaths::remoteServerLock());
        // Only a dead holder makes the lock stale, however long a kiosk runs.
        m_lock->setStaleLockTime(0);
    }
    if (!m_lock->tryLock(0)) {
        qint64 pid = 0;
        m_lock->getLockInfo(&pid, nullptr, nullptr);
        qDebug() << "Remote server not started: another kiosk runs it (process" << pid << ").";
        return;
    }
    m_wanted = true;
    m_restartDelayMs = FirstRestartDelayMs;
    launch();
}

void RemoteServerProcess::launch()
{
    if (!m_wanted || m_process.state() != QProcess::NotRunning)
        return;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QString::fromLatin1(KeyVariable), m_key);
    m_process.setProcessEnvironment(environment);
    m_process.start(program(), m_arguments);
    m_runningSince.start();
    qDebug() << "Remote server started:" << program() << m_arguments;
}

void RemoteServerProcess::onFinished(int exitCode, QProcess::ExitStatus status)
{
    if (!m_wanted)
        return;
    if (m_runningSince.isValid() && m_runningSince.elapsed() >= healthyRunMs)
        m_restartDelayMs = FirstRestartDelayMs;
    const QString line = QStringLiteral("Remote server ended (%1 %2); restarting it in %3 s.")
                             .arg(status == QProcess::CrashExit ? QStringLiteral("signal")
                                                                : QStringLiteral("exit code"))
                             .arg(exitCode)
                             .arg(m_restartDelayMs / 1000.0);
    qDebug().noquote() << line;
    Logger::logWarning(line);
    m_restartTimer.start(m_restartDelayMs);
    m_restartDelayMs = qMin(m_restartDelayMs * 2, MaxRestartDelayMs);
}

void RemoteServerProcess::stop()
{
    m_wanted = false;
    m_restartTimer.stop();
    if (m_process.state() != QProcess::NotRunning) {
        m_process.terminate();
        const Watchdog::OwnWait wait;
        if (!m_process.waitForFinished(5000)) {
            m_process.kill();
            m_process.waitForFinished(5000);
        }
    }
    if (m_lock)
        m_lock->unlock();
}

bool RemoteServerProcess::isRunning() const
{
    return m_process.state() != QProcess::NotRunning;
}

qint64 RemoteServerProcess::processId() const
{
    return m_process.processId();
}
