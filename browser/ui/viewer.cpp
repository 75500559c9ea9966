#include "viewer.h"

#include "browser.h"
#include "browsereventfilter.h"
#include "document.h"
#include "deferreddelete.h"
#include "exitpassworddialog.h"
#include "gif.h"
#include "image.h"
#include "filemanagertakeover.h"
#include "installpaths.h"
#include "panelmanager.h"
#include "pdf.h"
#include "playlisteventfilter.h"
#include "playlistitem.h"
#include "pointerhider.h"
#include "resources.h"
#include "runnable.h"
#include "settings.h"
#include "soundmute.h"
#include "systemshortcutmanager.h"
#include "usbauto.h"
#include "utils.h"
#include "video.h"
#include "webenginesetup.h"
#include "webpage.h"

#include <QCloseEvent>
#include <QCoreApplication>
#include <QDebug>
#include <QEventLoop>
#include <QGraphicsOpacityEffect>
#include <QLabel>
#include <QMouseEvent>
#include <QPropertyAnimation>
#include <QScreen>
#include <QSettings>
#include <QShortcut>
#include <QStackedLayout>

namespace {
const char textTemplateUrl[] = "file://" VORSANE_DATA_DIR "/text.html";

// Content drawn in the program's own window, which a picture of it stands for.
bool still(const QWidget *w)
{
    return qobject_cast<const Image *>(w) || qobject_cast<const Gif *>(w)
           || qobject_cast<const PDF *>(w) || qobject_cast<const Webpage *>(w)
           || qobject_cast<const Document *>(w);
}

// With slideshow/transition=fade, a picture of the outgoing item, to lay over the incoming one
// and fade out; null for a hard cut.
QLabel *fadeCover(QWidget *viewer, QWidget *outgoing, QWidget *incoming)
{
    if (Settings::load(false, nullptr)->fadeMs() <= 0 || !outgoing || outgoing == incoming
        || !still(outgoing) || !still(incoming))
        return nullptr;
    auto *cover = new QLabel(viewer);
    cover->setPixmap(outgoing->grab());
    cover->setGeometry(outgoing->geometry());
    return cover;
}

void fadeOut(QLabel *cover)
{
    auto *effect = new QGraphicsOpacityEffect(cover);
    cover->setGraphicsEffect(effect);
    cover->show();
    cover->raise();
    auto *animation = new QPropertyAnimation(effect, "opacity", cover);
    animation->setDuration(Settings::load(false, nullptr)->fadeMs());
    animation->setStartValue(1.0);
    animation->setEndValue(0.0);
    QObject::connect(animation, &QPropertyAnimation::finished, cover, &QObject::deleteLater);
    animation->start();
}
} // namespace

Viewer::Viewer(QWidget *parent)
    : QStackedWidget(parent)
    , m_settings(Settings::load(false, nullptr))
{
    initResources();
    connect(&m_sessionTimer, &QTimer::timeout, this, &Viewer::onTimerTimeout);

    // The filters outlive the window (they stay installed on content), so the application owns
    // them.
    m_playlistFilter = new PlaylistEventFilter(m_settings, QCoreApplication::instance());
    m_browserFilter = new BrowserEventFilter(this, this);
    m_unlockTimer.setSingleShot(true);
    connect(&m_unlockTimer, &QTimer::timeout, this, &Viewer::unlockPlaylistEventFilter);
    connect(this, &QStackedWidget::currentChanged, this, &Viewer::on_currentChanged);
    // Every widget of the stack stays shown, the current one on top: the next item waits
    // underneath, rendered, and its turn only raises it.
    static_cast<QStackedLayout *>(layout())->setStackingMode(QStackedLayout::StackAll);

    loadWindowSettings();
    setShortcuts();

    const bool fullscreen = m_settings->fullscreen();
    const int width = m_settings->fixedWidth();
    const int height = m_settings->fixedHeight();
    const bool fixed = m_settings->fixedScreen();
    // What an earlier run left taken (it was killed) comes back before it is taken again.
    DesktopTakeover::recoverAll();
    m_panelManager = panel::Manager::create(fullscreen, passwordSet());
    m_shortcutManager = SystemShortcutManager::create(fullscreen, passwordSet());
    m_fileManager = FileManagerTakeover::create(fullscreen, passwordSet());

    if (fullscreen) {
        // Without a window manager nobody acts on the full-screen request: the window takes
        // the whole screen itself first.
        setGeometry(screen()->geometry());
        showFullScreen();
    } else if (fixed) {
        // Flags first: changing them re-creates the window and would drop the geometry.
        setWindowFlags(windowFlags() | Qt::FramelessWindowHint);
        setGeometry(0, 0, width, height);
        show();
    } else {
        showNormal();
    }

    if (m_settings->get(QStringLiteral("slideshow/hide_pointer")).toBool())
        m_pointerHider = PointerHider::create();

    if (m_settings->get(QStringLiteral("slideshow/usb_auto")).toBool() && displayMode()) {
        m_usbAuto = std::make_unique<UsbAuto>(m_settings->remoteKey());
        connect(m_usbAuto.get(), &UsbAuto::finished, this, &Viewer::requestRestart);
    }

    m_soundMute = std::make_unique<SoundMute>(m_settings->mute());

    WebEngineSetup::init(m_settings);
    WebEngineSetup::prepareWindow(this);
}

// The members give the desktop back, in the order of their declaration reversed.
Viewer::~Viewer() = default;

bool Viewer::passwordSet() const
{
    return m_settings->passwordSet();
}

bool Viewer::displayMode() const
{
    return m_settings->mode() == Settings::Mode::Display;
}

bool Viewer::playlistFilterLocked() const
{
    return m_playlistFilter->locked();
}

bool Viewer::next(QWidget *w)
{
    if (!w)
        return false;
    // A start or stop that waits in a loop of its own lets timers, remote commands and clicks
    // in; a replacement asked for meanwhile waits until this one is over.
    if (m_replacing) {
        qDebug() << "Replacement in progress; the next widget waits for it.";
        m_deferred = w;
        return true;
    }
    m_replacing = true;
    const bool started = replace(w);
    m_replacing = false;
    if (QWidget *deferred = m_deferred.data()) {
        m_deferred = nullptr;
        next(deferred);
    }
    return started;
}

bool Viewer::addLowered(QWidget *w)
{
    if (!currentWidget())
        return false;
    addToStack(w);
    w->lower();
    blacken(w);
    w->show();
    return true;
}

void Viewer::addToStack(QWidget *w)
{
    addWidget(w);
    // Laid out now rather than at the next layout pass: content made ready at once (a video's
    // own window, a picture scaled to its area) needs its final size.
    w->setGeometry(contentsRect());
}

void Viewer::removeLowered(QWidget *w)
{
    w->hide();
    removeWidget(w);
}

void Viewer::blacken(QWidget *w)
{
    QPalette palette = w->palette();
    palette.setBrush(QPalette::All, QPalette::Window, QBrush(Qt::black));
    w->setPalette(palette);
    w->setAutoFillBackground(true);
}

bool Viewer::replace(QWidget *w)
{
    // Content prepared ahead is on the stack already.
    if (indexOf(w) < 0)
        addToStack(w);
    w->setMouseTracking(true);

    if (auto *browser = qobject_cast<Browser *>(w)) {
        // The remote-control page never runs the session limit.
        if (m_settings->stopSessionAfterSeconds() != 0 && !browser->isRemoteControl()) {
            m_browserFilter->watch(browser);
            setTimer();
            // A session ended from outside (a remote command) leaves no timer behind,
            // unless a new session has taken the screen meanwhile.
            browser->setProperty("sessionTimed", true);
            connect(browser, &QObject::destroyed, this, [this] {
                if (!m_currentWidget || !m_currentWidget->property("sessionTimed").toBool()) {
                    m_sessionTimer.stop();
                    m_browserFilter->watch(nullptr);
                }
            });
        }
    } else {
        w->setCursor(Qt::BlankCursor);
        if (m_settings->get(QStringLiteral("slideshow/stop_on_event")).toBool()) {
            // A web view may hand its input to widgets of its own inside it.
            if (auto *view = qobject_cast<WebView *>(w))
                view->installInputFilter(m_playlistFilter);
            else
                w->installEventFilter(m_playlistFilter);
        }
    }

    Runnable *runnable = Runnable::of(w);
    if (runnable) {
        connect(runnable->notifier(), &RunnableNotifier::end, this, &Viewer::onWidgetTimeout);
        // Content that changes in place (a PDF turning a page) needs its own screenshot.
        connect(runnable->notifier(), &RunnableNotifier::pageChanged, this,
                &Viewer::onContentChanged);
    }
    // One connection is enough: a show that runs for months must not pile them up.
    if (displayMode() && !passwordSet())
        connect(this, &Viewer::middleclick, this, &Viewer::bye, Qt::UniqueConnection);

    m_playlistFilter->setLocked(true);
    m_unlockTimer.start(1000);

    QLabel *cover = fadeCover(this, m_currentWidget, w);
    setCurrentWidget(w);
    blacken(w);
    w->show();

    const bool started = runnable && runnable->start();
    if (!started) {
        delete cover;
        return false;
    }
    if (cover)
        fadeOut(cover);
    if (m_currentWidget && m_currentWidget != w) {
        // The incoming item is on the screen before the outgoing one stops: stopping a video
        // joins libVLC's threads, several milliseconds.
        if (auto *video = qobject_cast<Video *>(m_currentWidget))
            video->hideOutput();
        w->repaint();
        if (Runnable *previous = Runnable::of(m_currentWidget))
            previous->stop();
        removeWidget(m_currentWidget);
        // The stack leaves its widgets shown; a video's own window would stay over the next item.
        m_currentWidget->hide();
    }
    m_currentWidget = w;
    return true;
}

void Viewer::pause()
{
    if (Runnable *runnable = Runnable::of(m_currentWidget))
        runnable->pause();
}

void Viewer::stop()
{
    m_sessionTimer.stop();
}

void Viewer::setTimer()
{
    m_sessionTimer.setInterval(m_settings->stopSessionAfterSeconds() * 1000);
    m_sessionTimer.start();
}

void Viewer::resetTimer()
{
    if (m_sessionTimer.isActive())
        m_sessionTimer.start();
}

void Viewer::onTimerTimeout()
{
    m_sessionTimer.stop();
    Q_EMIT end();
}

void Viewer::onWidgetTimeout()
{
    m_sessionTimer.stop();
    Q_EMIT end();
}

void Viewer::on_currentChanged(int)
{
    onContentChanged();
}

void Viewer::onContentChanged()
{
    QTimer::singleShot(100, this, &Viewer::takeScreen);
}

void Viewer::takeScreen()
{
    Q_EMIT readyToShoot();
}

void Viewer::unlockPlaylistEventFilter()
{
    m_playlistFilter->setLocked(false);
}

void Viewer::requestRestart()
{
    Q_EMIT restart();
}

void Viewer::killExternalPlayer()
{
    Utils::runAndWait(QStringLiteral("pkill"), {QStringLiteral("-9"), QStringLiteral("omxplayer")});
}

void Viewer::emitMouseEvent()
{
    Q_EMIT mouseEvent();
}

Webpage *Viewer::startPage(const QString &url, int seconds)
{
    PlaylistItem item(url, PlaylistItem::Webpage, seconds, false, QStringList());
    auto *page = new Webpage(&item, this);
    // An overlay that has ended goes, once nothing runs inside it any more.
    const int level = currentLoopLevel();
    connect(page, &Webpage::end, this, [this, page, level] {
        removeWidget(page);
        // The stack would make any of its widgets current, the one prepared ahead included.
        if (m_currentWidget && indexOf(m_currentWidget) >= 0)
            setCurrentWidget(m_currentWidget);
        deleteAfterLoops(page, level);
    });
    page->start();
    return page;
}

void Viewer::showUrl(QString url, int seconds)
{
    qDebug() << "Displaying webpage:" << QUrl(url).toString();
    qDebug() << "For" << seconds << "seconds.";
    displayWebpage(startPage(url, seconds));
}

void Viewer::showText(const QString &text, int seconds)
{
    // The logged path differs from the loaded one; kept as operators know it.
    qDebug() << "Displaying webpage:"
             << QUrl::fromLocalFile(QStringLiteral("/usr/local/share/vorsane-sitedeck/text.html"));
    qDebug() << "For" << seconds << "seconds.";
    Webpage *page = startPage(QString::fromLatin1(textTemplateUrl), seconds);

    QPointer<Webpage> guard(page);
    auto *loop = new QEventLoop;
    connect(page, &WebView::loadFinished, loop, &QEventLoop::quit);
    connect(page, &QObject::destroyed, loop, &QEventLoop::quit);
    loop->exec();
    loop->deleteLater();
    if (!guard)
        return;

    page->setElementText(QStringLiteral("text"), text);
    displayWebpage(page);
}

void Viewer::displayWebpage(Webpage *page)
{
    addWidget(page);
    connect(page, &Webpage::end, this, &Viewer::onWidgetTimeout);
    // Nothing connects a middle click here: one on an overlay page never quits; kept that way.
    page->show();
    setCurrentWidget(page);
    if (Runnable *runnable = Runnable::of(m_currentWidget)) {
        if (runnable->isActive())
            runnable->pause();
    }
}

void Viewer::bye()
{
    if (passwordSet()) {
        QPointer<ExitPasswordDialog> dialog = new ExitPasswordDialog(nullptr);
        const QString typed = dialog->run();
        // The dialog may already have scheduled its own deletion; deleting now drops that event.
        delete dialog.data();
        if (typed.isEmpty() || !Utils::validateAdminPassword(typed))
            return;
    }
    if (Runnable *runnable = Runnable::of(m_currentWidget))
        runnable->stop();
    saveWindowSettings();
    Q_EMIT terminate();
}

void Viewer::loadWindowSettings()
{
    QSettings settings;
    settings.beginGroup(QStringLiteral("Viewer"));
    resize(settings.value(QStringLiteral("size"), QSize(800, 600)).toSize());
    move(settings.value(QStringLiteral("pos"), QPoint(200, 200)).toPoint());
    settings.endGroup();
}

void Viewer::saveWindowSettings()
{
    QSettings settings;
    settings.beginGroup(QStringLiteral("Viewer"));
    settings.setValue(QStringLiteral("size"), size());
    settings.setValue(QStringLiteral("pos"), pos());
    settings.endGroup();
}

void Viewer::setShortcuts()
{
    auto *quit = new QShortcut(QKeySequence(QStringLiteral("Ctrl+Q")), this);
    quit->setContext(Qt::ApplicationShortcut);
    connect(quit, &QShortcut::activated, this, &Viewer::bye);
    if (!passwordSet()) {
        auto *escape = new QShortcut(QKeySequence(Qt::Key_Escape), this);
        escape->setContext(Qt::ApplicationShortcut);
        connect(escape, &QShortcut::activated, this, &Viewer::bye);
    }
}

void Viewer::mousePressEvent(QMouseEvent *event)
{
    switch (event->button()) {
    case Qt::RightButton:
        if (m_settings->remoteEnabled() && displayMode()) {
            killExternalPlayer();
            Q_EMIT startInlineRemote();
        }
        break;
    case Qt::MiddleButton:
        Q_EMIT middleclick();
        break;
    case Qt::LeftButton:
        if (displayMode())
            Q_EMIT leftclick();
        break;
    default:
        break;
    }
}

void Viewer::closeEvent(QCloseEvent *event)
{
    bye();
    event->ignore();
}
