#pragma once

#include "playlistloop.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QFile>
#include <QHash>
#include <QList>
#include <QObject>
#include <QProcess>
#include <QTimer>
#include <QUrl>

#include <functional>
#include <memory>

class Cleanser;
class CommandLineParser;
class PlaylistParser;
class Remote;
class RemoteServerProcess;
class Settings;
class Viewer;

// The controller: decides between web session and slideshow, fetches the playlist, has every
// loop cached, picks the next item, builds its widget and hands it to the Viewer.
class Dispatcher : public QObject
{
    Q_OBJECT

public:
    // After this many consecutive failed set-ups the retries slow down, up to MaxRetryDelayMs.
    static constexpr int FirstRetryDelayMs = 15000;
    static constexpr int MaxRetryDelayMs = 600000;
    // A content server that does not answer its last-edit question in time is treated as down.
    static constexpr int LastEditTimeoutMs = 30000;
    // Content that ends by itself sooner than this after its start counts as not started.
    static constexpr int QuickEndMs = 500;
    // How long a set-up waits for its downloads, all loops together, before the show starts
    // with what is cached; the downloads go on behind the show.
    static constexpr int SetUpWaitMs = 15000;
    static constexpr int MinimumWalkWaitMs = 200;

    Dispatcher(Viewer *viewer, const CommandLineParser *parser, QObject *parent = nullptr);
    ~Dispatcher() override;

    bool isReady() const { return m_ready; }
    int state() const { return m_state; }
    Remote *remote() const { return m_remote; }
    PlaylistParser *playlistParser() const { return m_parser.get(); }
    QWidget *shownWidget() const { return m_shownWidget; }

public Q_SLOTS:
    bool next();
    bool startup();
    void startSlideshow();
    void showLoopNext();
    bool view_next();
    void goTo(int item, int loop);
    void goTo(QString path);
    void onLeftClick();
    void onMouseEvent();
    bool startBrowser(QUrl url);
    void afterBrowser();
    void finalize();
    void shootScreen();
    void endIdle();
    void startInlineRemote();
    void onPlTimeout();
    void onReconnectMouseEventTimeout();
    void onScreensaverTimeout();
    void startNoScreensaver(int exitCode, QProcess::ExitStatus status);
    void disableScreensaver();

private:
    bool serverMode() const;
    void execHook(const QString &name);
    void startRemote();
    QDateTime getLastEdit();
    void updateRevalidateFlag();
    bool downloadLoops();
    bool downloadLoop(const PlaylistLoopPtr &loop);
    QWidget *widgetFor(const PlaylistItemPtr &item);
    QWidget *nothingToDisplay();
    void afterFailedSetUp();
    int positionOf(int key) const;
    void setPosition(int key, int position);
    int loopKey(const PlaylistLoopPtr &loop) const;

    Settings *m_settings;
    const CommandLineParser *m_commandLine;
    Cleanser *m_cleanser;
    QWidget *m_nextWidget = nullptr;
    QWidget *m_shownWidget = nullptr;
    int m_shownLevel = 0;
    Viewer *m_viewer;
    Remote *m_remote;
    RemoteServerProcess *m_remoteServer;
    QString m_mode;
    QDateTime m_lastEdit;
    int m_state = 0;
    QTimer m_playlistTimer;
    QFile m_timestampFile;
    bool m_revalidate = true;
    bool m_ready = false;
    QTimer m_screensaverTimer;
    QDateTime m_reference;
    std::unique_ptr<PlaylistParser> m_parser;
    PlaylistLoopPtr m_currentLoop;
    int m_loopKey = 0;
    int m_position = -1;
    // Keyed by loop id: ids come from the playlist and may be negative or far apart.
    QHash<int, int> m_positions;

    // A loop chosen by a remote "go to" plays before the schedule takes over again.
    PlaylistLoopPtr m_forcedLoop;
    bool m_forcedHasOwnPosition = false;
    int m_forcedPosition = -1;
    QTimer m_retryTimer;
    int m_failedSetUps = 0;
    int m_failedStarts = 0;
    QElapsedTimer m_shownSince;
    bool m_endedBySelf = false;
    bool m_settingUp = false;
    QElapsedTimer m_setUpClock;
    int m_walksInFlight = 0;
    bool m_openingSession = false;
    // Remote commands and clicks that arrive while a set-up runs, carried out when it is over.
    QList<std::function<void()>> m_pending;
    bool deferWhileSettingUp(std::function<void()> action);
};
