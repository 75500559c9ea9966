#include "maintenance.h"

#include "childprocess.h"
#include "utils.h"
#include "watchdog.h"

#include <QDebug>
#include <QProcess>

namespace {
const int processWaitMs = 30000;

// A child still running after the wait goes on in the background; deleting it now would kill it.
void waitAndRelease(QProcess *process)
{
    bool finished = false;
    {
        const Watchdog::OwnWait wait;
        finished = process->waitForFinished(processWaitMs);
    }
    if (finished || process->state() == QProcess::NotRunning) {
        process->deleteLater();
        return;
    }
    QObject::connect(process, qOverload<int, QProcess::ExitStatus>(&QProcess::finished), process,
                     &QObject::deleteLater);
}
} // namespace

Maintenance::Maintenance(QObject *parent)
    : QObject(parent)
{
}

void Maintenance::startMaintenance(QString location)
{
    const QString archive = location.mid(7);
    qDebug() << archive;

    m_unzip = new ChildProcess(ChildProcess::NoOption, this);
    // Runs the script even when unzip fails: a package left on the desktop earlier still counts.
    connect(m_unzip, qOverload<int, QProcess::ExitStatus>(&QProcess::finished), this,
            &Maintenance::launchScript);
    m_unzip->start(QStringLiteral("unzip"),
                   {QStringLiteral("-o"), archive, QStringLiteral("-d"), m_desktopDir});
    waitAndRelease(m_unzip);
}

void Maintenance::launchScript()
{
    m_script = new ChildProcess(ChildProcess::NoOption, this);
    connect(m_script, &QProcess::readyReadStandardOutput, this, &Maintenance::readyread);
    connect(m_script, &QProcess::readyReadStandardError, this, &Maintenance::readyread);
    connect(m_script, qOverload<int, QProcess::ExitStatus>(&QProcess::finished), this,
            [this](int code, QProcess::ExitStatus status) {
                Q_EMIT scriptFinished(status == QProcess::NormalExit ? code : -1);
            });
    connect(m_script, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart)
            Q_EMIT scriptFinished(-1);
    });
    m_script->start(QStringLiteral("sh"),
                    {m_desktopDir + QStringLiteral("maintenance_vorsane-kiosk.sh")});
    waitAndRelease(m_script);
}

void Maintenance::readyread()
{
    if (!m_script)
        return;
    const QByteArray output = m_script->readAllStandardOutput();
    const QByteArray errors = m_script->readAllStandardError();
    if (!output.isEmpty())
        qDebug() << QString::fromLocal8Bit(output);
    if (!errors.isEmpty())
        qDebug() << QString::fromLocal8Bit(errors);
}

void Maintenance::reboot()
{
    // The data directory ends in a slash already; the double slash is harmless.
    Utils::writeWhole(m_dataDir + QStringLiteral("/maintenance.txt"), "Update succeed!");
    QProcess::startDetached(QStringLiteral("sudo"),
                            {QStringLiteral("reboot"), QStringLiteral("now")});
}
