#pragma once

#include "lasteditpoller.h"
#include "looppositions.h"
#include "playlistloop.h"
#include "settings.h"

#include <QElapsedTimer>
#include <QList>
#include <QObject>
#include <QProcess>
#include <QTimer>
#include <QUrl>

#include <functional>
#include <memory>

class Cleanser;
class NextItem;
class CommandLineParser;
class ContentFactory;
class LoopDownloads;
class PlaylistParser;
class Remote;
class ScreensaverBlocker;
class RemoteServerProcess;
class SetUpRetry;
class Settings;
class Viewer;

// The controller: decides between web session and slideshow, fetches the playlist, has every
// loop cached, picks the next item, has its widget built (ahead of its turn where it can, by
// NextItem) and hands it to the Viewer.
class Dispatcher : public QObject
{
    Q_OBJECT

public:
    // Content that ends by itself sooner than this after its start counts as not started.
    static constexpr int QuickEndMs = 500;

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

Q_SIGNALS:
    // What the screen shows from now on: an item (null for the "nothing to display" picture) at
    // the position of its loop among the playlist's loops (-1: none), or a web session.
    void itemShown(PlaylistItemPtr item, int loop);
    void sessionStarted(QUrl url);

private:
    void execHook(const QString &name);
    void startRemote();

    Settings *m_settings;
    const CommandLineParser *m_commandLine;
    Cleanser *m_cleanser;
    ContentFactory *m_content;
    NextItem *m_next;
    LoopDownloads *m_downloads;
    ScreensaverBlocker *m_screensaver = nullptr;
    SetUpRetry *m_retry;
    QWidget *m_nextWidget = nullptr;
    QWidget *m_shownWidget = nullptr;
    int m_shownLevel = 0;
    Viewer *m_viewer;
    Remote *m_remote;
    RemoteServerProcess *m_remoteServer;
    Settings::Mode m_mode = Settings::Mode::Display;
    LastEditPoller m_lastEdit;
    int m_state = 0;
    QTimer m_playlistTimer;
    bool m_ready = false;
    std::unique_ptr<PlaylistParser> m_parser;
    LoopPositions m_positions;
    int m_failedStarts = 0;
    QElapsedTimer m_shownSince;
    bool m_endedBySelf = false;
    bool m_settingUp = false;
    // The set-up under way fetches a new playlist while the current one goes on playing.
    bool m_behindShow = false;
    bool m_openingSession = false;
    // Remote commands and clicks that arrive while a set-up runs, carried out when it is over.
    QList<std::function<void()>> m_pending;
    bool deferWhileSettingUp(std::function<void()> action);
    bool startFromKeptCopy(int defaultDuration);
};
