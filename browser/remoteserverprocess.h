#pragma once

#include "childprocess.h"

#include <QElapsedTimer>
#include <QObject>
#include <QProcess>
#include <QTimer>

#include <memory>

class Settings;
class QLockFile;

// Runs the companion remote-control server "vorsane-remote" as a child of the kiosk: one per
// user (a lock file held while it runs), restarted when it dies, ended with the kiosk. The key
// goes in the child's environment, never on its command line where every user could read it.
class RemoteServerProcess : public QObject
{
    Q_OBJECT

public:
    static constexpr const char *KeyVariable = "VORSANE_REMOTE_KEY";
    static constexpr int FirstRestartDelayMs = 1000;
    static constexpr int MaxRestartDelayMs = 60000;

    explicit RemoteServerProcess(QObject *parent = nullptr);
    ~RemoteServerProcess() override;

    // Does nothing while our server runs or while another kiosk's server holds the lock.
    // With the port, the key and the preference and playlist files of these settings.
    void startFor(const Settings &settings);
    void start(int port, const QString &key, const QStringList &kioskArguments);
    void stop();
    bool isRunning() const;
    qint64 processId() const;

    // The server beside the kiosk's own executable, else the one on PATH.
    static QString program();

private:
    void launch();
    void onFinished(int exitCode, QProcess::ExitStatus status);

    // Ends the server when the kiosk dies without cleaning up (SIGTERM, SIGKILL, a crash).
    ChildProcess m_process{ChildProcess::EndsWithParent};
    std::unique_ptr<QLockFile> m_lock;
    QStringList m_arguments;
    QString m_key;
    QTimer m_restartTimer;
    QElapsedTimer m_runningSince;
    int m_restartDelayMs = FirstRestartDelayMs;
    bool m_wanted = false;
};
