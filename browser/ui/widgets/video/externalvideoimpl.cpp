#include "externalvideoimpl.h"

#include "childprocess.h"

#include "playlistitem.h"
#include "video.h"

#include <QDebug>
#include <QSet>

#include <utility>

namespace {
const int processWaitMs = 30000;
const int killWaitMs = 5000;

// Players of this process whose program runs now.
QSet<const ExternalVideoImpl *> &runningPlayers()
{
    static QSet<const ExternalVideoImpl *> players;
    return players;
}
} // namespace

ExternalVideoImpl::ExternalVideoImpl(Video *video, const QStringList &command, PlaylistItem *item)
    : m_video(video)
    , m_location(item->url)
    , m_command(command)
{
    video->setBlackBackground();
}

ExternalVideoImpl::~ExternalVideoImpl()
{
    m_startFailed = false;
    killPlayers();
}

void ExternalVideoImpl::pause() {}

void ExternalVideoImpl::resume() {}

bool ExternalVideoImpl::onTimeout()
{
    emit m_video->end();
    return true;
}

bool ExternalVideoImpl::start()
{
    if (m_process)
        releaseProcess();
    m_startFailed = false;

    m_process = new ChildProcess;
    connect(m_process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), this,
            &ExternalVideoImpl::onMediaEndReached);
    connect(m_process, &QProcess::errorOccurred, this, &ExternalVideoImpl::onErrorOccurred);

    const QString path = QString(m_location).remove(QStringLiteral("file://"));
    QStringList arguments;
    for (const QString &part : std::as_const(m_command))
        arguments << QString(part).replace(QLatin1String("%f"), path);
    const QString program = arguments.isEmpty() ? QString() : arguments.takeFirst();

    qDebug() << "Launching command:" << program << arguments;
    m_process->start(program, arguments, QIODevice::ReadWrite);
    if (m_process && m_process->waitForStarted(processWaitMs))
        runningPlayers().insert(this);
    return true;
}

bool ExternalVideoImpl::stop()
{
    m_startFailed = false;
    killPlayers();
    return true;
}

void ExternalVideoImpl::onMediaEndReached(int exitCode)
{
    if (!m_process)
        return;
    m_exitCode = exitCode;
    qDebug() << "Video player ended with exit code" << exitCode;
    releaseProcess();
    emit m_video->end();
}

void ExternalVideoImpl::readyReadStandardOutput()
{
    if (m_process)
        qDebug() << m_process->readAllStandardOutput();
}

void ExternalVideoImpl::readyReadStandardError()
{
    if (!m_process)
        return;
    if (!m_process->readAllStandardError().contains("ERROR"))
        return;
    qDebug() << "An error occured";
    releaseProcess();
    qDebug() << "Resolved!";
    emit m_video->end();
}

void ExternalVideoImpl::onErrorOccurred(QProcess::ProcessError error)
{
    // A program that never ran gives no finished(); the item must end all the same.
    if (error != QProcess::FailedToStart || !m_process)
        return;
    qWarning() << "Cannot start the video player" << m_process->program() << ":"
               << m_process->errorString();
    releaseProcess();
    // Reported from inside start(): the end waits until the start is over.
    m_startFailed = true;
    QMetaObject::invokeMethod(this, &ExternalVideoImpl::onStartFailed, Qt::QueuedConnection);
}

void ExternalVideoImpl::onStartFailed()
{
    if (!m_startFailed)
        return;
    m_startFailed = false;
    emit m_video->end();
}

void ExternalVideoImpl::releaseProcess()
{
    if (!m_process)
        return;
    runningPlayers().remove(this);
    m_process->disconnect(this);
    if (m_process->state() != QProcess::NotRunning) {
        m_process->kill();
        m_process->waitForFinished(killWaitMs);
    }
    m_process->deleteLater();
    m_process = nullptr;
}

void ExternalVideoImpl::killPlayers()
{
    bool othersRunning = false;
    for (const ExternalVideoImpl *player : std::as_const(runningPlayers()))
        othersRunning = othersRunning || player != this;
    if (!othersRunning) {
        releaseProcess();
        // Kills every player of that name on purpose, also those started by someone else.
        QProcess::execute(QStringLiteral("pkill"),
                          {QStringLiteral("-9"), QStringLiteral("omxplayer")});
        return;
    }
    // The next item's player is already running and must survive: only this player goes, with
    // its children (omxplayer is a wrapper around omxplayer.bin), before they lose their parent.
    if (m_process && m_process->processId() > 0) {
        QProcess::execute(QStringLiteral("pkill"), {QStringLiteral("-9"), QStringLiteral("-P"),
                                                    QString::number(m_process->processId())});
    }
    releaseProcess();
}
