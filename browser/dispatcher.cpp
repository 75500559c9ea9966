#include "dispatcher.h"

#include "browser.h"
#include "cleanser.h"
#include "commandlineparser.h"
#include "displaypower.h"
#include "deferreddelete.h"
#include "document.h"
#include "downloader.h"
#include "externalbrowser.h"
#include "gif.h"
#include "idle.h"
#include "image.h"
#include "logger.h"
#include "maintenance.h"
#include "pdf.h"
#include "playlistparser.h"
#include "remote.h"
#include "remoteserverprocess.h"
#include "runnable.h"
#include "settings.h"
#include "signalrelay.h"
#include "utils.h"
#include "video.h"
#include "viewer.h"
#include "webpage.h"

#include <QApplication>
#include <QDebug>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QGuiApplication>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPixmap>
#include <QPointer>
#include <QRegularExpression>
#include <QSaveFile>
#include <QScreen>

#include <utility>

namespace {
const char screenshotPath[] = "/tmp/screen.png";
const char nothingToDisplayUrl[] = "file://:/image/nothing_to_display.png";
const char lastEditFormat[] = "yyyy;MM;dd;hh;mm;ss;";

bool skippedByExtension(const QString &url)
{
    static const char *const extensions[]
        = {".docx", ".ppt", ".doc", ".pptx", ".psd", ".db", ".ods", ".tmp", ".swf", ".cfg", ".sh"};
    for (const char *extension : extensions) {
        if (url.contains(QLatin1String(extension)))
            return true;
    }
    return false;
}
} // namespace

Dispatcher::Dispatcher(Viewer *viewer, const CommandLineParser *parser, QObject *parent)
    : QObject(parent)
    , m_settings(Settings::load(false, parser))
    , m_commandLine(parser)
    , m_viewer(viewer)
{
    m_ready = true;
    m_reference = QDateTime::currentDateTime();

    m_remote = new Remote(this);
    m_remoteServer = new RemoteServerProcess(this);
    m_cleanser = new Cleanser(m_settings, this);
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

    m_mode = m_settings->get(QStringLiteral("main/mode")).toString();

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

    if (m_settings->get(QStringLiteral("main/fullscreen")).toBool()) {
        const QRect screen = QGuiApplication::primaryScreen()
                                 ? QGuiApplication::primaryScreen()->geometry()
                                 : QRect(0, 0, 800, 600);
        m_viewer->setFixedSize(screen.right() - screen.left() + 1,
                               screen.bottom() - screen.top() + 1);
    }
    if (m_settings->get(QStringLiteral("main/no_screensaver")).toBool()) {
        Utils::runAndWait(QStringLiteral("pkill"),
                          {QStringLiteral("-9"), QStringLiteral("xscreensaver")});
        disableScreensaver();
    }
    if (QFile::exists(QString::fromLatin1(screenshotPath)))
        QFile::remove(QString::fromLatin1(screenshotPath));

    m_retryTimer.setSingleShot(true);
    connect(&m_retryTimer, &QTimer::timeout, this, &Dispatcher::startSlideshow);
}

Dispatcher::~Dispatcher()
{
    // Content widgets belong to the viewer's stack; only the pending one is still ours.
    delete m_nextWidget;
    // Every way out of the program passes here or finalize(): no server outlives the kiosk.
    m_remoteServer->stop();
}

bool Dispatcher::serverMode() const
{
    const QString mode
        = m_settings->get(QStringLiteral("slideshow/playlist_update_mode")).toString();
    return mode == QLatin1String("serverVorsaneTV")
           || mode == QLatin1String("serverVorsaneTVPrivate");
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
    if (serverMode()) {
        connect(&m_playlistTimer, &QTimer::timeout, this, &Dispatcher::onPlTimeout,
                Qt::UniqueConnection);
        // Zero or nonsense would ask the server as fast as it answers.
        const int minutes
            = qMax(1, m_settings->get(QStringLiteral("slideshow/refresh_after_minutes")).toInt());
        m_playlistTimer.start(60000 * minutes);
    }
    if (m_mode == QLatin1String("kiosk")
        && m_settings->get(QStringLiteral("main/start_with_session")).toBool())
        return startBrowser(QUrl());
    startSlideshow();
    return true;
}

void Dispatcher::startSlideshow()
{
    // A restart asked for while the set-up waits on downloads runs once that set-up is over.
    if (m_settingUp) {
        m_retryTimer.start(0);
        return;
    }
    m_settingUp = true;
    m_retryTimer.stop();
    m_cleanser->check();
    if (m_settings->get(QStringLiteral("remote/enabled")).toBool())
        startRemote();
    m_settings = Settings::load(true, m_commandLine);
    m_reference = QDateTime::currentDateTime();

    const QString updateMode
        = m_settings->get(QStringLiteral("slideshow/playlist_update_mode")).toString();
    QUrl url;
    if (updateMode == QLatin1String("localPlaylist")) {
        url = QUrl(QStringLiteral("file://%1").arg(m_settings->playlistFilename()));
    } else {
        QString pages = m_settings->get(QStringLiteral("slideshow/pages")).toString();
        if (pages.isEmpty())
            pages = m_settings->get(QStringLiteral("slideshow/url")).toString();
        url = QUrl(pages);
    }
    bool ok = false;
    int defaultDuration = m_settings->get(QStringLiteral("slideshow/default_time")).toInt(&ok);
    if (!ok)
        defaultDuration = 5;

    m_parser.reset(PlaylistParser::get(defaultDuration, url, m_viewer));
    m_forcedLoop.reset();
    if (serverMode())
        updateRevalidateFlag();

    const bool allDownloaded = downloadLoops();
    m_settingUp = false;
    if (SignalRelay::caughtSignal())
        return;
    if (allDownloaded)
        m_failedSetUps = 0;
    else
        afterFailedSetUp();

    qDebug() << "NB LOOPS : " << m_parser->getLoops().size();
    m_position = -1;
    showLoopNext();

    const QList<std::function<void()>> pending = std::exchange(m_pending, {});
    for (const std::function<void()> &action : pending)
        action();
}

bool Dispatcher::deferWhileSettingUp(std::function<void()> action)
{
    if (!m_settingUp)
        return false;
    qDebug() << "Input during set-up: carried out when it is over.";
    m_pending << std::move(action);
    return true;
}

void Dispatcher::updateRevalidateFlag()
{
    m_lastEdit = getLastEdit();
    m_timestampFile.setFileName(QString::fromLocal8Bit(qgetenv("HOME"))
                                + QLatin1String("/.vorsane-kiosk/playlist_last_timestamp.txt"));
    if (!m_timestampFile.open(QIODevice::ReadWrite))
        return;
    const QString stamp = m_lastEdit.toString();
    if (QString::fromUtf8(m_timestampFile.readAll()) == stamp) {
        m_revalidate = false;
    } else {
        m_timestampFile.resize(0);
        m_timestampFile.write(stamp.toUtf8());
        m_revalidate = true;
    }
    m_timestampFile.close();
}

bool Dispatcher::downloadLoops()
{
    bool allDone = true;
    m_setUpClock.start();
    const QList<PlaylistLoopPtr> loops = m_parser->getLoops();
    for (const PlaylistLoopPtr &loop : loops) {
        // The program is ending: no further wait would be answered.
        if (SignalRelay::caughtSignal())
            return false;
        if (loop->active)
            allDone = downloadLoop(loop) && allDone;
    }
    return allDone;
}

bool Dispatcher::downloadLoop(const PlaylistLoopPtr &loop)
{
    auto *downloader = new Downloader(loop, m_revalidate);
    downloader->setKeepPrevious(m_parser->playsOfflineCopy());
    QEventLoop wait;
    bool finished = false;
    bool done = false;
    connect(downloader, &Downloader::downloadDone, &wait, [&] {
        finished = done = true;
        wait.quit();
    });
    connect(downloader, &Downloader::downloadNotDone, &wait, [&] {
        finished = true;
        wait.quit();
    });
    // All walks of one set-up share one deadline: a server that never answers must not keep
    // the screen blank once per item, nor once per loop.
    QTimer deadline;
    deadline.setSingleShot(true);
    connect(&deadline, &QTimer::timeout, &wait, &QEventLoop::quit);
    downloader->start();
    // A walk with nothing to fetch ends before the wait would begin.
    if (!finished) {
        deadline.start(int(qMax<qint64>(MinimumWalkWaitMs, SetUpWaitMs - m_setUpClock.elapsed())));
        wait.exec();
    }
    if (!finished && !SignalRelay::caughtSignal()) {
        // The show starts with what is cached or local; the walk goes on behind it, and the
        // items it has not fetched yet are passed over until it has.
        disconnect(downloader, nullptr, &wait, nullptr);
        ++m_walksInFlight;
        qDebug() << "Loop still downloading; showing what is cached meanwhile.";
        connect(downloader, &Downloader::downloadDone, this, [this] {
            --m_walksInFlight;
            qDebug() << "Loop downloaded";
        });
        connect(downloader, &Downloader::downloadNotDone, this, [this] {
            --m_walksInFlight;
            qDebug() << "Loop not downloaded";
            afterFailedSetUp();
        });
        return true;
    }
    qDebug() << (done ? "Loop downloaded" : "Loop not downloaded");
    return done;
}

void Dispatcher::afterFailedSetUp()
{
    // Restart the set-up as soon as this one is over; when it keeps failing, wait longer each
    // time while the cached show goes on, instead of spinning on a server that keeps failing.
    const int delay = m_failedSetUps == 0
                          ? 0
                          : qMin(MaxRetryDelayMs, FirstRetryDelayMs << qMin(m_failedSetUps - 1, 8));
    ++m_failedSetUps;
    if (delay > 0)
        qDebug() << "Download failed again; next attempt in" << delay / 1000 << "s.";
    m_retryTimer.start(delay);
}

int Dispatcher::positionOf(int key) const
{
    return m_positions.value(key, -1);
}

void Dispatcher::setPosition(int key, int position)
{
    m_positions.insert(key, position);
}

int Dispatcher::loopKey(const PlaylistLoopPtr &loop) const
{
    if (m_settings->get(QStringLiteral("slideshow/playlist_update_mode")).toString()
        == QLatin1String("localPlaylist"))
        return 0;
    return loop->id.toInt();
}

void Dispatcher::showLoopNext()
{
    // A web session owns the screen until it ends; set-ups and polls finishing meanwhile wait.
    if (m_state == 1)
        return;
    m_state = 3;
    // While a new playlist is being cached the current item stays on screen; the set-up
    // continues the show when it is done.
    if (!m_parser || m_settingUp)
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

    // Items that are passed over are skipped here in a loop rather than by recursion; a loop
    // with nothing showable shows the "nothing to display" picture instead of spinning.
    const int maxAttempts = 2 * (m_parser->getLoops().size() + 1);
    int attempts = 0;
    QWidget *widget = nullptr;
    PlaylistItemPtr item;
    while (!widget) {
        // A whole pass in which nothing could start: rest on the placeholder before trying again.
        if (m_currentLoop && m_failedStarts > m_currentLoop->items.size()) {
            m_failedStarts = 0;
            widget = nothingToDisplay();
            break;
        }
        if (m_forcedLoop) {
            m_currentLoop = m_forcedLoop;
            m_loopKey = loopKey(m_currentLoop);
            const int position
                = (m_forcedHasOwnPosition ? m_forcedPosition : positionOf(m_loopKey)) + 1;
            if (position < m_currentLoop->items.size()) {
                if (m_forcedHasOwnPosition)
                    m_forcedPosition = position;
                else
                    setPosition(m_loopKey, position);
                m_position = position;
            } else {
                m_forcedLoop.reset();
                continue;
            }
        } else {
            m_currentLoop = m_parser->selectLoop(m_reference);
            if (!m_currentLoop) {
                widget = nothingToDisplay();
                break;
            }
            m_loopKey = loopKey(m_currentLoop);
            int position = positionOf(m_loopKey) + 1;
            setPosition(m_loopKey, position);
            m_position = position;
            if (position >= m_currentLoop->items.size()) {
                m_parser->refresh();
                m_reference = QDateTime::currentDateTime();
                m_currentLoop = m_parser->selectLoop(m_reference);
                if (!m_currentLoop || m_currentLoop->items.isEmpty()) {
                    widget = nothingToDisplay();
                    break;
                }
                m_loopKey = loopKey(m_currentLoop);
                position = 0;
                setPosition(m_loopKey, position);
                m_position = position;
                if (++attempts > maxAttempts) {
                    widget = nothingToDisplay();
                    break;
                }
            }
        }
        item = m_currentLoop->items.at(m_position);
        widget = widgetFor(item);
    }

    if (m_shownWidget && qobject_cast<Idle *>(m_shownWidget)
        && (!item || item->type != PlaylistItem::Idle)) {
        qDebug() << "Stopping idle";
        endIdle();
    }
    m_nextWidget = widget;
    view_next();
}

QWidget *Dispatcher::nothingToDisplay()
{
    qDebug() << "Nothing to display.";
    PlaylistItem placeholder(QString::fromLatin1(nothingToDisplayUrl), PlaylistItem::Image, 10,
                             false, QStringList());
    return new Image(&placeholder, m_viewer);
}

QWidget *Dispatcher::widgetFor(const PlaylistItemPtr &item)
{
    if (item->type == PlaylistItem::Maintenance) {
        qDebug() << "Replace maintenance file";
        qDebug() << "Start maintenance.";
        auto *maintenance = new Maintenance(this);
        // Only a script that succeeded is recorded and followed by the reboot.
        connect(maintenance, &Maintenance::scriptFinished, maintenance, [maintenance](int code) {
            if (code == 0)
                maintenance->reboot();
            else
                qDebug() << "Maintenance script failed with code" << code;
            maintenance->deleteLater();
        });
        maintenance->startMaintenance(item->url);
        return nothingToDisplay();
    }

    if (item->url.contains(QLatin1String("Screen OFF"))) {
        const QDateTime now = QDateTime::currentDateTime();
        QDateTime from = m_currentLoop->getFromIdle(item->url);
        QDateTime to = m_currentLoop->getToIdle(item->url);
        if (!from.isValid() || !to.isValid()) {
            qDebug() << "Screen OFF without a valid span:" << item->url;
            return nullptr;
        }
        // A span whose end is earlier than its start crosses midnight: after midnight it began
        // yesterday, before midnight it ends tomorrow.
        if (to < from) {
            if (now < to)
                from = from.addDays(-1);
            else
                to = to.addDays(1);
        }
        // Outside its span the item is passed over: the screen goes dark only when it should.
        if (now < from || now >= to)
            return nullptr;
        qDebug() << (to.date() > now.date() ? "Wake up : tomorrow" : "Wake up : today");
        auto *idle = new Idle(item.get(), m_viewer);
        // The screen stays off until the wake-up time, then the show goes on.
        idle->setTimeout(int(qMax<qint64>(1, now.secsTo(to))));
        return idle;
    }

    if (skippedByExtension(item->url) || item->href)
        return nullptr;
    // Cache files appear whole (written aside, then renamed), so a missing one is still coming.
    if (m_walksInFlight > 0 && item->url.startsWith(QLatin1String("file://"))
        && !item->url.startsWith(QLatin1String("file://:")) && !QFile::exists(item->url.mid(7))) {
        qDebug() << "Not downloaded yet; passed over:" << item->url;
        return nullptr;
    }

    switch (item->type) {
    case PlaylistItem::Video:
        return new Video(item.get(), m_viewer);
    case PlaylistItem::Gif:
        return new Gif(item.get(), m_viewer);
    case PlaylistItem::Image:
        return new Image(item.get(), m_viewer);
    case PlaylistItem::PDF:
        return new PDF(item.get(), m_viewer);
    case PlaylistItem::Webpage:
        if (m_settings->get(QStringLiteral("slideshow/external_browser")).toBool())
            return new ExternalBrowser(item.get(), m_viewer);
        return new Webpage(item.get(), m_viewer);
    case PlaylistItem::Document:
        return new Document(item.get(), m_viewer);
    case PlaylistItem::Idle:
        return new Idle(item.get(), m_viewer);
    default:
        return nullptr;
    }
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
    m_forcedLoop = loops.at(loop);
    m_forcedHasOwnPosition = false;
    setPosition(loopKey(m_forcedLoop), qMax(item, 0) - 1);
    showLoopNext();
}

void Dispatcher::goTo(QString path)
{
    if (deferWhileSettingUp([this, path] { goTo(path); }))
        return;
    // Widgets read the path after "file://": the address needs its third slash whether or not
    // the path came with a leading one.
    QString absolute = path;
    while (absolute.startsWith(QLatin1Char('/')))
        absolute.remove(0, 1);
    QString text
        = QStringLiteral("#Vorsane playlist\nfile:///") + absolute + QStringLiteral(" 1\n");
    m_forcedLoop = std::make_shared<PlaylistLoop>(1, text, QString());
    m_forcedHasOwnPosition = true;
    m_forcedPosition = -1;
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
    if (m_mode != QLatin1String("kiosk"))
        return;
    // One touch, one session: pointer events during a session, or while one is being opened,
    // never open another.
    if (m_state == 1 || m_openingSession)
        return;
    m_openingSession = true;
    if (auto *runnable = dynamic_cast<Runnable *>(m_shownWidget))
        runnable->stop();
    m_position = -1;
    startBrowser(QUrl());
    m_openingSession = false;
}

bool Dispatcher::startBrowser(QUrl url)
{
    QWidget *widget = nullptr;
    if (m_settings->get(QStringLiteral("main/external_browser")).toBool()) {
        const QString address
            = url.isEmpty() ? m_settings->get(QStringLiteral("main/default_url")).toString()
                            : url.toString();
        PlaylistItem item(address, PlaylistItem::Webpage, 0, false, QStringList());
        widget = new ExternalBrowser(&item, m_viewer);
    } else {
        auto *browser = new Browser(m_viewer);
        if (!url.isEmpty())
            browser->newPage(url);
        widget = browser;
    }
    m_nextWidget = widget;
    const bool started = view_next();
    execHook(QStringLiteral("session-start"));
    m_state = 1;
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
    if (!m_viewer->currentContent())
        return;
    QPixmap picture;
    if (QScreen *screen = QGuiApplication::primaryScreen())
        picture = screen->grabWindow(m_viewer->currentContent()->window()->winId());
    // Platforms without a real screen cannot grab a window; render the widgets instead.
    if (picture.isNull() || picture.width() <= 1)
        picture = m_viewer->grab();
    // Written aside and renamed, so the remote server never serves a half-written picture.
    // Light compression: a screenshot is asked for often while a video plays, and the show's
    // own thread pays for it.
    QSaveFile file(QString::fromLatin1(screenshotPath));
    if (file.open(QIODevice::WriteOnly) && picture.save(&file, "PNG", 80))
        file.commit();
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
    if (!DisplayPower::isOff())
        return;
    qDebug() << "Display was off; switching it back on.";
    DisplayPower::on();
}

void Dispatcher::startRemote()
{
    // The server reads the same preference and playlist files as the kiosk.
    m_remoteServer->start(m_settings->get(QStringLiteral("remote/port")).toInt(),
                          m_settings->get(QStringLiteral("remote/key")).toString(),
                          {QStringLiteral("--preference"), m_settings->preferencesFilename(),
                           QStringLiteral("--playlist"), m_settings->playlistFilename()});
}

void Dispatcher::startInlineRemote()
{
    // The web session's own browser is never replaced by the remote page.
    if (m_state == 1)
        return;
    const QString key = m_settings->get(QStringLiteral("remote/key")).toString();
    QString address = m_settings->get(QStringLiteral("remote/local_url")).toString();
    if (!key.isEmpty())
        address += QStringLiteral("?k=") + QString::fromLatin1(QUrl::toPercentEncoding(key));
    // It replaces the current item; its end comes back through next(), which goes on with the
    // show.
    m_nextWidget = new Browser(m_viewer, QUrl(address));
    view_next();
}

QDateTime Dispatcher::getLastEdit()
{
    QString pages = m_settings->get(QStringLiteral("slideshow/pages")).toString();
    if (pages.isEmpty())
        pages = m_settings->get(QStringLiteral("slideshow/url")).toString();
    const QUrl pagesUrl(pages);
    const QRegularExpressionMatch match
        = QRegularExpression(QStringLiteral(".*/p(/[\\w-]+)/.*")).match(pages);
    if (!match.hasMatch() || !pagesUrl.isValid())
        return QDateTime();
    const bool isPrivate
        = m_settings->get(QStringLiteral("slideshow/playlist_update_mode")).toString()
          == QLatin1String("serverVorsaneTVPrivate");
    QUrl request(pagesUrl);
    request.setPath(QStringLiteral("/webapp/db/")
                    + (isPrivate ? QStringLiteral("lastEdit") : QStringLiteral("getEdit"))
                    + match.captured(1) + QStringLiteral("/playlist/"));
    request.setQuery(QString());

    QNetworkAccessManager manager;
    QNetworkReply *reply = manager.get(QNetworkRequest(request));
    QEventLoop wait;
    connect(reply, &QNetworkReply::finished, &wait, &QEventLoop::quit);
    QTimer::singleShot(LastEditTimeoutMs, &wait, &QEventLoop::quit);
    wait.exec();
    QDateTime edit;
    if (reply->isFinished() && reply->error() == QNetworkReply::NoError)
        edit = QDateTime::fromString(QString::fromUtf8(reply->readAll()).trimmed(),
                                     QString::fromLatin1(lastEditFormat));
    else
        reply->abort();
    reply->deleteLater();
    return edit;
}

void Dispatcher::onPlTimeout()
{
    if (!serverMode())
        return;
    const QDateTime edit = getLastEdit();
    if (!edit.isValid() || edit == m_lastEdit)
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
    Utils::runAndWait(QStringLiteral("xscreensaver-command"), {QStringLiteral("-deactivate")});
}

void Dispatcher::startNoScreensaver(int exitCode, QProcess::ExitStatus status)
{
    Q_UNUSED(status)
    if (exitCode != 0)
        return;
    disableScreensaver();
}

void Dispatcher::disableScreensaver()
{
    connect(&m_screensaverTimer, &QTimer::timeout, this, &Dispatcher::onScreensaverTimeout,
            Qt::UniqueConnection);
    m_screensaverTimer.start(30000);
}
