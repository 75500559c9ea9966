#include "dispatcher.h"

#include "cleanser.h"
#include "commandlineparser.h"
#include "contentfactory.h"
#include "deferreddelete.h"
#include "displaypower.h"
#include "idle.h"
#include "logger.h"
#include "loopdownloads.h"
#include "nextitem.h"
#include "playlistparser.h"
#include "remote.h"
#include "remoteserverprocess.h"
#include "runnable.h"
#include "screensaverblocker.h"
#include "screenshot.h"
#include "setupretry.h"
#include "settings.h"
#include "signalrelay.h"
#include "utils.h"
#include "viewer.h"

#include <QCoreApplication>
#include <QDebug>
#include <QGuiApplication>
#include <QPointer>
#include <QScreen>

#include <utility>

Dispatcher::Dispatcher(Viewer *viewer, const CommandLineParser *parser, QObject *parent)
    : QObject(parent)
    , m_settings(Settings::load(false, parser))
    , m_commandLine(parser)
    , m_viewer(viewer)
    , m_lastEdit(m_settings)
{
    m_ready = true;

    m_remote = new Remote(this);
    m_remoteServer = new RemoteServerProcess(this);
    m_cleanser = new Cleanser(m_settings, this);
    m_content = new ContentFactory(m_viewer, m_settings, this);
    m_downloads = new LoopDownloads(this);
    m_retry = new SetUpRetry(this);
    m_screensaver = new ScreensaverBlocker(this);
    m_next = new NextItem(m_viewer, m_content, m_downloads, this);
    connect(m_downloads, &LoopDownloads::failedBehindShow, m_retry, &SetUpRetry::failed);
    connect(m_retry, &SetUpRetry::retry, this, &Dispatcher::startSlideshow);
    connect(m_remote, &Remote::restart, this, &Dispatcher::startSlideshow);
    connect(m_remote, &Remote::next, this, [this] {
        if (!deferWhileSettingUp([this] { next(); }))
            next();
    });
    connect(m_remote, QOverload<int, int>::of(&Remote::goTo), this,
            QOverload<int, int>::of(&Dispatcher::goTo));
    connect(m_remote, QOverload<QString>::of(&Remote::goTo), this,
            QOverload<QString>::of(&Dispatcher::goTo));
    connect(m_remote, &Remote::pause, m_viewer, &Viewer::pause);
    connect(m_remote, &Remote::screenshot, this, &Dispatcher::shootScreen);
    connect(m_remote, &Remote::text, m_viewer, &Viewer::showText);
    connect(m_remote, &Remote::readUrl, m_viewer, &Viewer::showUrl);
    connect(m_remote, &Remote::screenPower, this, &DisplayPower::setOn);

    m_mode = m_settings->mode();

    connect(m_viewer, &Viewer::restart, this, &Dispatcher::startSlideshow);
    // Queued: content that fails while starting ends at once, and advancing from inside its
    // start would nest one call per broken item.
    connect(m_viewer, &Viewer::end, this, &Dispatcher::next, Qt::QueuedConnection);
    connect(m_viewer, &Viewer::end, this, [this] { m_endedBySelf = true; });
    connect(m_viewer, &Viewer::mouseEvent, this, &Dispatcher::onMouseEvent);
    connect(m_viewer, &Viewer::leftclick, this, &Dispatcher::onLeftClick);
    connect(m_viewer, &Viewer::terminate, this, &Dispatcher::finalize);
    connect(m_viewer, &Viewer::startInlineRemote, this, &Dispatcher::startInlineRemote);
    connect(m_viewer, &Viewer::readyToShoot, this, &Dispatcher::shootScreen, Qt::QueuedConnection);
    endIdle();
    connect(m_viewer, &Viewer::terminate, this, &Dispatcher::endIdle);

    if (m_settings->fullscreen()) {
        const QScreen *screen = QGuiApplication::primaryScreen();
        m_viewer->setFixedSize(screen ? screen->geometry().size() : QSize(800, 600));
    }
    if (m_settings->get(QStringLiteral("main/no_screensaver")).toBool())
        m_screensaver->takeOver();
    Screenshot::removeOld();
}

Dispatcher::~Dispatcher()
{
    // Content widgets belong to the viewer's stack; only the pending one is still ours.
    delete m_nextWidget;
    // Every way out of the program passes here or finalize(): no server outlives the kiosk.
    m_remoteServer->stop();
}

bool Dispatcher::next()
{
    switch (m_state) {
    case 0:
        return startup();
    case 1:
        disconnect(m_viewer, &Viewer::mouseEvent, this, &Dispatcher::onMouseEvent);
        execHook(QStringLiteral("session-stop"));
        afterBrowser();
        return true;
    case 2:
        if (m_settings->get(QStringLiteral("main/after_web_session")).toString()
            != QLatin1String("session")) {
            QTimer::singleShot(1000, this, &Dispatcher::onReconnectMouseEventTimeout);
            startSlideshow();
        } else {
            Logger::logInfo("STARTING: web session");
            startBrowser(QUrl());
        }
        return true;
    default:
        showLoopNext();
        return true;
    }
}

bool Dispatcher::startup()
{
    if (m_lastEdit.serverMode()) {
        connect(&m_playlistTimer, &QTimer::timeout, this, &Dispatcher::onPlTimeout,
                Qt::UniqueConnection);
        // Zero or nonsense would ask the server as fast as it answers.
        const int minutes
            = qMax(1, m_settings->get(QStringLiteral("slideshow/refresh_after_minutes")).toInt());
        m_playlistTimer.start(60000 * minutes);
    }
    if (m_mode == Settings::Mode::Kiosk
        && m_settings->get(QStringLiteral("main/start_with_session")).toBool())
        return startBrowser(QUrl());
    startSlideshow();
    return true;
}

void Dispatcher::startSlideshow()
{
    // A restart asked for while the set-up waits on downloads runs once that set-up is over.
    if (m_settingUp) {
        m_retry->soon();
        return;
    }
    m_settingUp = true;
    m_retry->cancel();
    m_cleanser->check();
    if (m_settings->remoteEnabled())
        startRemote();
    m_settings = Settings::load(true, m_commandLine);
    m_content->setSettings(m_settings);
    m_lastEdit.setSettings(m_settings);
    m_positions.restartSchedule();

    const bool local = m_settings->playlistUpdateMode() == Settings::UpdateMode::LocalPlaylist;
    m_positions.setSingleKey(local);
    const QUrl url = local ? QUrl(QStringLiteral("file://%1").arg(m_settings->playlistFilename()))
                           : QUrl(m_settings->playlistPages());
    const int defaultDuration = m_settings->defaultTime();

    if (!m_parser && !local && startFromKeptCopy(defaultDuration))
        return;
    // With a show on screen, a new playlist is cached behind it and takes over at the next item.
    m_behindShow = m_parser && !local;
    std::unique_ptr<PlaylistParser> parser(PlaylistParser::get(defaultDuration, url, m_viewer));
    if (m_lastEdit.serverMode())
        m_lastEdit.updateRevalidateFlag();

    const bool allDownloaded = m_downloads->downloadLoops(*parser, m_lastEdit.revalidate());
    m_parser = std::move(parser);
    m_positions.dropForcedLoop();
    m_settingUp = false;
    const bool behindShow = std::exchange(m_behindShow, false);
    if (SignalRelay::caughtSignal())
        return;
    if (allDownloaded)
        m_retry->succeeded();
    else
        m_retry->failed();

    qDebug() << "NB LOOPS : " << m_parser->getLoops().size();
    if (!behindShow)
        showLoopNext();
    else if (m_state == 3)
        m_next->prepareAfter(m_positions, *m_parser);

    const QList<std::function<void()>> pending = std::exchange(m_pending, {});
    for (const std::function<void()> &action : pending)
        action();
}

bool Dispatcher::startFromKeptCopy(int defaultDuration)
{
    PlaylistParser *kept = PlaylistParser::fromKeptCopy(defaultDuration);
    if (!kept)
        return false;
    // A content server that answers late, or never, must not keep the screen blank: the show
    // starts from what is on disk, without asking the network, and the server is asked behind it.
    qDebug() << "Starting from the kept playlist; the content server is asked behind the show.";
    m_parser.reset(kept);
    m_downloads->downloadLoops(*m_parser, false);
    m_settingUp = false;
    showLoopNext();
    QTimer::singleShot(0, this, &Dispatcher::startSlideshow);
    return true;
}

bool Dispatcher::deferWhileSettingUp(std::function<void()> action)
{
    if (!m_settingUp || m_behindShow)
        return false;
    qDebug() << "Input during set-up: carried out when it is over.";
    m_pending << std::move(action);
    return true;
}

void Dispatcher::showLoopNext()
{
    // A web session owns the screen until it ends; set-ups and polls finishing meanwhile wait.
    if (m_state == 1)
        return;
    m_state = 3;
    // While a new playlist is being cached the current item stays on screen; the set-up
    // continues the show when it is done.
    if (!m_parser || (m_settingUp && !m_behindShow))
        return;

    // Content that played for a while clears the failure count. Content that ended by itself
    // at once (a player or browser that cannot run) counts as content that could not start:
    // a loop of nothing else must rest rather than restart it as fast as it ends.
    if (m_shownSince.isValid()) {
        if (m_shownSince.elapsed() >= QuickEndMs)
            m_failedStarts = 0;
        else if (m_endedBySelf)
            ++m_failedStarts;
    }
    m_shownSince.invalidate();
    m_endedBySelf = false;

    PlaylistItemPtr item;
    QWidget *widget = m_next->nextWidget(m_positions, *m_parser, m_failedStarts, item);
    if (m_shownWidget && qobject_cast<Idle *>(m_shownWidget)
        && (!item || item->type != PlaylistItem::Idle)) {
        qDebug() << "Stopping idle";
        endIdle();
    }
    m_nextWidget = widget;
    const PlaylistItemPtr shown = m_content->isPlaceholder(widget) ? nullptr : item;
    const int loop = m_parser->getLoops().indexOf(m_positions.currentLoop());
    if (view_next())
        Q_EMIT itemShown(shown, shown ? loop : -1);
    m_next->prepareAfter(m_positions, *m_parser);
}

bool Dispatcher::view_next()
{
    if (m_shownWidget) {
        qDebug() << "DELETE CALLED";
        // Not while a loop the widget opened (a page's dialog, a wait) still runs inside it.
        deleteAfterLoops(m_shownWidget, m_shownLevel);
        m_shownWidget = nullptr;
    }
    if (!m_nextWidget)
        return false;
    QWidget *widget = m_nextWidget;
    m_nextWidget = nullptr;
    m_shownWidget = widget;
    m_shownLevel = currentLoopLevel();
    const bool started = m_viewer->next(widget);
    if (started) {
        m_shownSince.start();
        return true;
    }
    // The item could not start (unreadable file, ...). Most content says so with end(), which
    // advances the show; for content that stays silent, move on after a moment.
    qDebug() << "Item could not start; moving on.";
    ++m_failedStarts;
    QPointer<QWidget> failed(widget);
    QTimer::singleShot(1000, this, [this, failed] {
        if (failed && m_shownWidget == failed)
            next();
    });
    return false;
}

void Dispatcher::goTo(int item, int loop)
{
    if (deferWhileSettingUp([this, item, loop] { goTo(item, loop); }))
        return;
    if (!m_parser)
        return;
    const QList<PlaylistLoopPtr> loops = m_parser->getLoops();
    if (loop < 0 || loop >= loops.size()) {
        qDebug() << "Go to: no loop" << loop;
        return;
    }
    m_positions.forceLoop(loops.at(loop), item);
    showLoopNext();
}

void Dispatcher::goTo(QString path)
{
    if (deferWhileSettingUp([this, path] { goTo(path); }))
        return;
    m_positions.forceFile(path);
    showLoopNext();
}

void Dispatcher::onLeftClick()
{
    if (deferWhileSettingUp([this] { onLeftClick(); }))
        return;
    switch (m_state) {
    case 0:
        startup();
        break;
    case 1:
    case 2:
        next();
        break;
    default:
        showLoopNext();
        break;
    }
}

void Dispatcher::onMouseEvent()
{
    if (m_mode != Settings::Mode::Kiosk)
        return;
    // One touch, one session: pointer events during a session, or while one is being opened,
    // never open another.
    if (m_state == 1 || m_openingSession)
        return;
    m_openingSession = true;
    if (Runnable *runnable = Runnable::of(m_shownWidget))
        runnable->stop();
    startBrowser(QUrl());
    m_openingSession = false;
}

bool Dispatcher::startBrowser(QUrl url)
{
    m_next->discard();
    m_nextWidget = m_content->sessionWidget(url);
    const bool started = view_next();
    execHook(QStringLiteral("session-start"));
    m_state = 1;
    Q_EMIT sessionStarted(url);
    connect(m_viewer, &Viewer::mouseEvent, this, &Dispatcher::onMouseEvent, Qt::UniqueConnection);
    return started;
}

void Dispatcher::afterBrowser()
{
    m_state = 2;
    next();
}

void Dispatcher::execHook(const QString &name)
{
    Utils::runAndWait(m_settings->hookDirname() + QStringLiteral("/%1").arg(name), QStringList());
}

void Dispatcher::shootScreen()
{
    if (m_viewer->currentContent())
        Screenshot::take(m_viewer, m_viewer->currentContent());
}

void Dispatcher::finalize()
{
    if (m_shownWidget)
        m_shownWidget->close();
    m_remoteServer->stop();
    QCoreApplication::quit();
}

void Dispatcher::endIdle()
{
    DisplayPower::ensureOn();
}

void Dispatcher::startRemote()
{
    m_remoteServer->startFor(*m_settings);
}

void Dispatcher::startInlineRemote()
{
    // The web session's own browser is never replaced by the remote page.
    if (m_state == 1)
        return;
    // It replaces the current item; its end comes back through next(), which goes on with the
    // show.
    m_next->discard();
    m_nextWidget = m_content->inlineRemote();
    view_next();
}

void Dispatcher::onPlTimeout()
{
    if (!m_lastEdit.serverMode() || !m_lastEdit.serverChanged())
        return;
    qDebug() << "Content server changed; restarting the show.";
    startSlideshow();
}

void Dispatcher::onReconnectMouseEventTimeout()
{
    connect(m_viewer, &Viewer::mouseEvent, this, &Dispatcher::onMouseEvent, Qt::UniqueConnection);
}

void Dispatcher::onScreensaverTimeout()
{
    m_screensaver->poke();
}

void Dispatcher::startNoScreensaver(int exitCode, QProcess::ExitStatus)
{
    if (exitCode == 0)
        disableScreensaver();
}

void Dispatcher::disableScreensaver()
{
    m_screensaver->start();
}
