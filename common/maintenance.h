#pragma once

#include "statepaths.h"

#include <QObject>
#include <QPointer>
#include <QString>

class QProcess;

// Carries out a maintenance package met in the playlist: unpacks the archive onto the desktop
// user's desktop, runs the script it brings and can record success and reboot the machine.
class Maintenance : public QObject
{
    Q_OBJECT

public:
    explicit Maintenance(QObject *parent);

    void startMaintenance(QString location);

Q_SIGNALS:
    // The package's script has ended; -1 when it crashed or could not run.
    void scriptFinished(int exitCode);

public Q_SLOTS:
    void launchScript();
    void readyread();
    void reboot();

private:
    const QString m_desktopDir = QStringLiteral("/home/pi/Desktop/");
    const QString m_dataDir = StatePaths::maintenanceDataDir();
    QPointer<QProcess> m_unzip;
    QPointer<QProcess> m_script;
};
