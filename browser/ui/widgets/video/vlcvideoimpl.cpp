#include "vlcvideoimpl.h"

#include "playlistitem.h"
#include "settings.h"
#include "video.h"

#include <QDebug>
#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QGuiApplication>
#include <QHash>
#include <QMetaObject>
#include <QMouseEvent>
#include <QSocketNotifier>
#include <QVector>
#include <QWindow>

#include <cstdlib>
#include <functional>
#include <utility>
#include <vector>

#include <dlfcn.h>
#include <vlc/vlc.h>
#include <xcb/xcb.h>

namespace {
// libVLC reports nothing for some media it cannot open (a stream that never answers); an item
// without a duration would then stay forever.
const int openingTimeoutMs = 30000;
// How long the item before may stay on the screen while a video opens.
const int revealTimeoutMs = 1500;
// libVLC's outputs for X open a window inside the surface just after reporting themselves; one
// that draws otherwise (into the surface itself, or on a plane of its own) counts as open after
// this.
const int outputWindowGraceMs = 300;

// The old Raspberry Pi firmware's OpenMAX output draws the video on a layer of its own; libVLC
// cannot list its outputs, so the plugin is looked for where libVLC loads its plugins from.
bool omxilOutputInstalled()
{
    QStringList directories
        = qEnvironmentVariable("VLC_PLUGIN_PATH").split(QLatin1Char(':'), Qt::SkipEmptyParts);
    Dl_info library;
    if (dladdr(reinterpret_cast<void *>(&libvlc_new), &library) && library.dli_fname) {
        directories << QFileInfo(QString::fromLocal8Bit(library.dli_fname)).absolutePath()
                           + QStringLiteral("/vlc/plugins");
    }
    for (const QString &directory : std::as_const(directories)) {
        QDirIterator plugins(directory, {QStringLiteral("libomxil_vout_plugin.so")}, QDir::Files,
                             QDirIterator::Subdirectories);
        if (plugins.hasNext())
            return true;
    }
    return false;
}

enum class Output {
    Omxil,
    // Into the Video widget's own X window.
    XWindow,
    // Nothing to draw into (offscreen platform); libVLC must not open a window of its own on
    // whatever display the environment names.
    None,
    // Another window system: libVLC opens its own window.
    Own
};

Output videoOutput()
{
    static const Output output = [] {
        if (omxilOutputInstalled())
            return Output::Omxil;
        const QString platform = QGuiApplication::platformName();
        if (platform == QLatin1String("xcb"))
            return Output::XWindow;
        if (platform == QLatin1String("offscreen") || platform == QLatin1String("minimal"))
            return Output::None;
        return Output::Own;
    }();
    return output;
}

// libVLC's X window. A native child widget would do, but once a web view has made the program's
// window compose its content with OpenGL, Qt also flushes that composition into every native
// child; a window libVLC draws into cannot take it, and the program's window stops updating
// (the last video frame stays on the screen). A bare child window is left alone by that flush.
// Clicks on it belong to the widget under it (right click, stop on event).
class VideoSurface : public QWindow
{
public:
    VideoSurface(QWindow *parent, QWidget *owner)
        : QWindow(parent)
        , m_owner(owner)
    {
    }

protected:
    void mousePressEvent(QMouseEvent *event) override { forward(event); }
    void mouseReleaseEvent(QMouseEvent *event) override { forward(event); }
    void mouseMoveEvent(QMouseEvent *event) override { forward(event); }

private:
    void forward(QMouseEvent *event)
    {
        if (!m_owner)
            return;
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
        QMouseEvent copy(event->type(), event->position(), event->scenePosition(),
                         event->globalPosition(), event->button(), event->buttons(),
                         event->modifiers());
#else
        QMouseEvent copy(event->type(), event->localPos(), event->windowPos(), event->screenPos(),
                         event->button(), event->buttons(), event->modifiers());
#endif
        QCoreApplication::sendEvent(m_owner, &copy);
    }

    QPointer<QWidget> m_owner;
};

// The program's own X connection for the video windows, apart from Qt's.
xcb_connection_t *ownConnection()
{
    static xcb_connection_t *connection = xcb_connect(nullptr, nullptr);
    return xcb_connection_has_error(connection) ? nullptr : connection;
}

// What to call when a window inside a surface (known by its X window) is mapped or moved.
QHash<xcb_window_t, std::function<void()>> &childWatchers()
{
    static QHash<xcb_window_t, std::function<void()>> watchers;
    return watchers;
}

void dispatchEvents()
{
    xcb_connection_t *connection = ownConnection();
    if (!connection)
        return;
    while (xcb_generic_event_t *event = xcb_poll_for_event(connection)) {
        std::function<void()> call;
        const uint8_t type = event->response_type & ~0x80;
        if (type == XCB_MAP_NOTIFY)
            call = childWatchers().value(reinterpret_cast<xcb_map_notify_event_t *>(event)->event);
        else if (type == XCB_CONFIGURE_NOTIFY)
            call = childWatchers().value(
                reinterpret_cast<xcb_configure_notify_event_t *>(event)->event);
        std::free(event);
        if (call)
            call();
    }
}

// Replies read on the connection may bring events along, which its socket then no longer
// announces; they are handled from the event loop, not inside the caller.
void dispatchLater()
{
    QMetaObject::invokeMethod(qApp, &dispatchEvents, Qt::QueuedConnection);
}

// Waits until the server has carried out everything asked before.
void roundTrip(xcb_connection_t *connection)
{
    std::free(xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr));
    dispatchLater();
}

// The windows inside a window; the root of its screen too, if asked.
QVector<xcb_window_t> childrenOf(xcb_connection_t *connection, xcb_window_t window,
                                 xcb_window_t *root = nullptr)
{
    QVector<xcb_window_t> children;
    xcb_query_tree_reply_t *tree
        = xcb_query_tree_reply(connection, xcb_query_tree(connection, window), nullptr);
    if (tree) {
        const xcb_window_t *ids = xcb_query_tree_children(tree);
        for (int i = 0; i < xcb_query_tree_children_length(tree); ++i)
            children.append(ids[i]);
        if (root)
            *root = tree->root;
    }
    std::free(tree);
    dispatchLater();
    return children;
}

// libVLC opens its output as a window inside the surface once it knows the picture's size, at
// that size in a corner, and moves it into place just after: the callback runs on both.
void watchChildren(WId surface, std::function<void()> changed)
{
    xcb_connection_t *connection = ownConnection();
    if (!connection)
        return;
    static QSocketNotifier *notifier = [connection] {
        auto *events
            = new QSocketNotifier(xcb_get_file_descriptor(connection), QSocketNotifier::Read, qApp);
        QObject::connect(events, &QSocketNotifier::activated, qApp, &dispatchEvents);
        return events;
    }();
    Q_UNUSED(notifier);
    const uint32_t mask = XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;
    xcb_change_window_attributes(connection, xcb_window_t(surface), XCB_CW_EVENT_MASK, &mask);
    xcb_flush(connection);
    childWatchers().insert(xcb_window_t(surface), std::move(changed));
}

// Whether libVLC's window in the surface is up and in its place: the picture fitted into the
// area spans it in one direction at least.
bool outputPlaced(WId surface)
{
    xcb_connection_t *connection = ownConnection();
    if (!connection)
        return true;
    const auto window = xcb_window_t(surface);
    const xcb_get_geometry_cookie_t areaAsked = xcb_get_geometry(connection, window);
    const QVector<xcb_window_t> children = childrenOf(connection, window);
    // Everything asked first, every answer read after: one wait for the server, not one per child.
    QVector<xcb_get_window_attributes_cookie_t> attributesAsked;
    QVector<xcb_get_geometry_cookie_t> geometryAsked;
    for (const xcb_window_t child : children) {
        attributesAsked.append(xcb_get_window_attributes(connection, child));
        geometryAsked.append(xcb_get_geometry(connection, child));
    }
    xcb_get_geometry_reply_t *area = xcb_get_geometry_reply(connection, areaAsked, nullptr);
    bool placed = false;
    for (int i = 0; i < children.size(); ++i) {
        xcb_get_window_attributes_reply_t *attributes
            = xcb_get_window_attributes_reply(connection, attributesAsked.at(i), nullptr);
        xcb_get_geometry_reply_t *child
            = xcb_get_geometry_reply(connection, geometryAsked.at(i), nullptr);
        placed = placed
                 || (area && attributes && child && attributes->map_state != XCB_MAP_STATE_UNMAPPED
                     && (child->width == area->width || child->height == area->height));
        std::free(attributes);
        std::free(child);
    }
    std::free(area);
    dispatchLater();
    return placed;
}

// X paints a window's background the moment it is mapped: libVLC's window, black, would show a
// frame of black before its next picture. Mapped with no background, its pixels stay what the
// screen showed (the item before) until libVLC draws over them. Only the margins around a
// picture that does not fill the area, outside libVLC's window, are painted black then; the
// area is left without a background afterwards, so that libVLC closing its window at the end
// does not flash black either. Done on a connection of its own, before Qt maps the window again
// (which changes nothing then).
void mapOverScreen(WId surface)
{
    xcb_connection_t *connection = ownConnection();
    if (!connection)
        return;
    const auto window = xcb_window_t(surface);
    xcb_window_t root = XCB_WINDOW_NONE;
    const uint32_t none = XCB_BACK_PIXMAP_NONE;
    for (const xcb_window_t child : childrenOf(connection, window, &root))
        xcb_change_window_attributes(connection, child, XCB_CW_BACK_PIXMAP, &none);
    if (root == XCB_WINDOW_NONE)
        return;
    uint32_t black = 0;
    for (xcb_screen_iterator_t screen = xcb_setup_roots_iterator(xcb_get_setup(connection));
         screen.rem; xcb_screen_next(&screen)) {
        if (screen.data->root == root)
            black = screen.data->black_pixel;
    }
    const uint32_t above = XCB_STACK_MODE_ABOVE;
    xcb_configure_window(connection, window, XCB_CONFIG_WINDOW_STACK_MODE, &above);
    xcb_change_window_attributes(connection, window, XCB_CW_BACK_PIXEL, &black);
    xcb_map_window(connection, window);
    xcb_change_window_attributes(connection, window, XCB_CW_BACK_PIXMAP, &none);
    roundTrip(connection);
}

// A window with no background over an area of the program's window: what the screen shows there
// stays as it is, and nothing painted under it shows, until it goes.
quint32 freezeArea(WId parent, const QRect &area)
{
    xcb_connection_t *connection = ownConnection();
    if (!connection || area.isEmpty())
        return XCB_WINDOW_NONE;
    const xcb_window_t window = xcb_generate_id(connection);
    const uint32_t none = XCB_BACK_PIXMAP_NONE;
    xcb_create_window(connection, XCB_COPY_FROM_PARENT, window, xcb_window_t(parent),
                      int16_t(area.x()), int16_t(area.y()), uint16_t(area.width()),
                      uint16_t(area.height()), 0, XCB_WINDOW_CLASS_INPUT_OUTPUT,
                      XCB_COPY_FROM_PARENT, XCB_CW_BACK_PIXMAP, &none);
    xcb_map_window(connection, window);
    roundTrip(connection);
    return window;
}

void thawArea(quint32 window)
{
    xcb_connection_t *connection = ownConnection();
    if (!connection || window == XCB_WINDOW_NONE)
        return;
    xcb_destroy_window(connection, window);
    xcb_flush(connection);
}

// One libVLC instance serves every video for the life of the process: loading the plugins for
// each item costs seconds on a small board, and unloading them leaves allocations behind.
libvlc_instance_t *sharedInstance()
{
    static libvlc_instance_t *instance = nullptr;
    if (!instance) {
        std::vector<const char *> arguments{"-I",
                                            "dummy",
                                            "--no-xlib",
                                            "--ignore-config",
                                            "--no-video-title-show",
                                            "--no-disable-screensaver"};
        if (videoOutput() == Output::Omxil)
            arguments.insert(arguments.end(), {"--vout", "omxil_vout"});
        else if (videoOutput() == Output::None)
            arguments.insert(arguments.end(), {"--vout", "dummy"});
        instance = libvlc_new(int(arguments.size()), arguments.data());
    }
    return instance;
}
} // namespace

VLCVideoImpl::VLCVideoImpl(Video *video, PlaylistItem *item)
    : m_video(video)
    , m_location(item->url)
{
    video->setBlackBackground();
    Settings *settings = Settings::load(false, nullptr);
    m_stretch = settings->stretch();
    m_mute = settings->mute();
    m_instance = sharedInstance();
    if (!m_instance) {
        qWarning() << "Cannot start libVLC:" << libvlc_errmsg();
        return;
    }
    m_player = libvlc_media_player_new(m_instance);
    if (!m_player) {
        qWarning() << "Cannot create a libVLC player:" << libvlc_errmsg();
        return;
    }
    // Clicks and keys belong to the show (right click, stop on event), not to the video window.
    libvlc_video_set_mouse_input(m_player, 0);
    libvlc_video_set_key_input(m_player, 0);
    libvlc_event_manager_t *events = libvlc_media_player_event_manager(m_player);
    libvlc_event_attach(events, libvlc_MediaPlayerEndReached, &VLCVideoImpl::onMediaEndReached,
                        this);
    libvlc_event_attach(events, libvlc_MediaPlayerEncounteredError, &VLCVideoImpl::onMediaError,
                        this);
    libvlc_event_attach(events, libvlc_MediaPlayerVout, &VLCVideoImpl::onVideoOutput, this);

    m_openingTimer.setSingleShot(true);
    m_openingTimer.setInterval(openingTimeoutMs);
    QObject::connect(&m_openingTimer, &QTimer::timeout, video, [this] { onOpeningTimeout(); });
    // Media with no picture (sound only) or an output that is slow to open: its window shows
    // after this, picture or not.
    m_revealTimer.setSingleShot(true);
    m_revealTimer.setInterval(revealTimeoutMs);
    QObject::connect(&m_revealTimer, &QTimer::timeout, video, [this] { reveal(); });
    m_outputGrace.setSingleShot(true);
    m_outputGrace.setInterval(outputWindowGraceMs);
    QObject::connect(&m_outputGrace, &QTimer::timeout, video, [this] { onOutputWindow(true); });
}

VLCVideoImpl::~VLCVideoImpl()
{
    if (m_player) {
        // Detaching waits for a callback in progress, so none runs once this object is gone.
        libvlc_event_manager_t *events = libvlc_media_player_event_manager(m_player);
        libvlc_event_detach(events, libvlc_MediaPlayerEndReached, &VLCVideoImpl::onMediaEndReached,
                            this);
        libvlc_event_detach(events, libvlc_MediaPlayerEncounteredError, &VLCVideoImpl::onMediaError,
                            this);
        libvlc_event_detach(events, libvlc_MediaPlayerVout, &VLCVideoImpl::onVideoOutput, this);
        libvlc_media_player_stop(m_player);
        libvlc_media_player_release(m_player);
    }
    releaseMedia();
    thawArea(std::exchange(m_freeze, 0));
    childWatchers().remove(m_watched);
    delete m_surface.data();
}

QUrl VLCVideoImpl::mediaAddress(const QString &location)
{
    if (location.contains(QLatin1String("file://")))
        return QUrl::fromLocalFile(QString(location).remove(QStringLiteral("file://")));
    if (location.contains(QLatin1String("vlc:")))
        return QUrl(QString(location).remove(QStringLiteral("vlc:")));
    return QUrl(location);
}

void VLCVideoImpl::pause()
{
    if (m_player)
        libvlc_media_player_pause(m_player);
}

void VLCVideoImpl::resume()
{
    // libVLC's pause is a toggle: the same call continues the playback.
    if (m_player)
        libvlc_media_player_pause(m_player);
}

bool VLCVideoImpl::onTimeout()
{
    m_playing = false;
    m_openingTimer.stop();
    emit m_video->end();
    return true;
}

bool VLCVideoImpl::start()
{
    qDebug() << "Reading uri:" << mediaAddress(m_location).toEncoded();
    m_playing = true;
    m_openingTimer.start();
    if (m_preroll == Preroll::Held) {
        // Opened ahead: its window goes up over the item before, and its sound starts now.
        m_preroll = Preroll::None;
        showSurface();
        // libVLC draws nothing into a window out of sight, and shows its picture again only
        // after a while: the next one is shown at once rather than when the clock, resumed,
        // reaches it. (Going back to the first costs a seek, several frames on this machine.)
        libvlc_media_player_next_frame(m_player);
        libvlc_media_player_set_pause(m_player, 0);
        return true;
    }
    // Its window, shown before libVLC has drawn into it, would be black: the item before stays
    // on the screen until libVLC's output is open.
    if (videoOutput() == Output::XWindow && !m_revealPending) {
        const QRect area = areaInWindow();
        const qreal ratio = m_video->devicePixelRatioF();
        m_freeze = freezeArea(m_video->window()->winId(),
                              QRect(area.topLeft() * ratio, area.size() * ratio));
        m_revealPending = true;
        m_revealTimer.start();
    }
    if (std::exchange(m_preroll, Preroll::None) == Preroll::Opening) {
        libvlc_media_player_set_pause(m_player, 0);
        return true;
    }
    ++m_generation;
    if (!play(false))
        postPlaybackOver(true);
    return true;
}

void VLCVideoImpl::prepare()
{
    if (videoOutput() != Output::XWindow || m_preroll != Preroll::None || m_playing)
        return;
    ++m_generation;
    m_preroll = Preroll::Opening;
    if (!play(true))
        m_preroll = Preroll::None;
}

bool VLCVideoImpl::isReady() const
{
    return m_preroll != Preroll::Opening;
}

bool VLCVideoImpl::play(bool held)
{
    if (!m_player)
        return false;
    releaseMedia();
    m_media = libvlc_media_new_location(m_instance, mediaAddress(m_location).toEncoded());
    if (!m_media)
        return false;
    if (m_mute)
        libvlc_media_add_option(m_media, ":no-audio");
    // Held: paused before anything plays, then stepped one picture so that the decoder and the
    // output are open when its turn comes.
    if (held)
        libvlc_media_add_option(m_media, ":start-paused");
    libvlc_media_player_set_media(m_player, m_media);
    if (videoOutput() == Output::XWindow)
        embedInto();
    if (libvlc_media_player_play(m_player) != 0)
        return false;
    if (held)
        libvlc_media_player_next_frame(m_player);
    return true;
}

bool VLCVideoImpl::stop()
{
    ++m_generation;
    m_playing = false;
    m_preroll = Preroll::None;
    m_openingTimer.stop();
    m_revealTimer.stop();
    m_outputGrace.stop();
    if (m_player)
        libvlc_media_player_stop(m_player);
    releaseMedia();
    hideSurface();
    m_revealPending = false;
    thawArea(std::exchange(m_freeze, 0));
    return true;
}

void VLCVideoImpl::onMediaEndReached(const libvlc_event_t *, void *data)
{
    static_cast<VLCVideoImpl *>(data)->postPlaybackOver(false);
}

void VLCVideoImpl::onMediaError(const libvlc_event_t *, void *data)
{
    static_cast<VLCVideoImpl *>(data)->postPlaybackOver(true);
}

void VLCVideoImpl::onVideoOutput(const libvlc_event_t *event, void *data)
{
    if (event->u.media_player_vout.new_count < 1)
        return;
    auto *self = static_cast<VLCVideoImpl *>(data);
    const quint64 generation = self->m_generation.load();
    QMetaObject::invokeMethod(
        self->m_video,
        [self, generation] {
            if (generation == self->m_generation.load())
                self->m_outputGrace.start();
        },
        Qt::QueuedConnection);
}

void VLCVideoImpl::onOutputWindow(bool anyway)
{
    if (!anyway && !outputPlaced(m_watched))
        return;
    m_outputGrace.stop();
    if (m_preroll == Preroll::Opening) {
        m_preroll = Preroll::Held;
        emit m_video->notifier()->ready();
    } else if (m_playing) {
        reveal();
    }
}

void VLCVideoImpl::reveal()
{
    // Shown once per start, frozen area or not (none without an X connection of its own).
    if (!std::exchange(m_revealPending, false))
        return;
    m_revealTimer.stop();
    // Over the frozen area first, so that nothing under either shows in between.
    showSurface();
    thawArea(std::exchange(m_freeze, 0));
}

void VLCVideoImpl::postPlaybackOver(bool failed)
{
    // Runs on libVLC's thread as well: nothing but a queued call to the GUI thread happens here.
    const quint64 generation = m_generation.load();
    QMetaObject::invokeMethod(
        m_video, [this, generation, failed] { onPlaybackOver(generation, failed); },
        Qt::QueuedConnection);
}

void VLCVideoImpl::onPlaybackOver(quint64 generation, bool failed)
{
    if (generation != m_generation.load())
        return;
    if (!m_playing) {
        // Opened ahead and already over: it is built afresh at its turn and says why there.
        if (m_preroll == Preroll::Opening || m_preroll == Preroll::Held) {
            m_preroll = Preroll::None;
            emit m_video->end();
        }
        return;
    }
    m_playing = false;
    m_openingTimer.stop();
    // libVLC plays a file of random bytes to its "end" without an error; it found nothing in it.
    if (!failed && m_media) {
        libvlc_media_track_t **tracks = nullptr;
        const unsigned count = libvlc_media_tracks_get(m_media, &tracks);
        if (count > 0)
            libvlc_media_tracks_release(tracks, count);
        failed = count == 0;
    }
    if (failed)
        qWarning() << "Cannot play video" << mediaAddress(m_location).toEncoded();
    emit m_video->end();
}

void VLCVideoImpl::onOpeningTimeout()
{
    if (!m_playing)
        return;
    const libvlc_state_t state = libvlc_media_player_get_state(m_player);
    if (state == libvlc_Playing || state == libvlc_Paused || state == libvlc_Buffering)
        return;
    qWarning() << "Video did not start in time" << mediaAddress(m_location).toEncoded();
    m_playing = false;
    emit m_video->end();
}

void VLCVideoImpl::embedInto()
{
    QWidget *top = m_video->window();
    QWindow *topWindow = top->windowHandle();
    if (!topWindow)
        return;
    if (!m_surface) {
        m_surface = new VideoSurface(topWindow, m_video);
        m_watched = quint32(m_surface->winId());
        watchChildren(m_watched, [this] { onOutputWindow(false); });
    }
    placeSurface();
    libvlc_media_player_set_xwindow(m_player, quint32(m_surface->winId()));
    // Stretched, the picture takes the widget's shape; otherwise it keeps its own, fitted inside.
    const QSize area = m_video->size();
    const QByteArray aspect = m_stretch && !area.isEmpty() ? QByteArray::number(area.width()) + ':'
                                                                 + QByteArray::number(area.height())
                                                           : QByteArray();
    libvlc_video_set_aspect_ratio(m_player, aspect.isEmpty() ? nullptr : aspect.constData());
    libvlc_video_set_scale(m_player, 0);
}

void VLCVideoImpl::showSurface()
{
    if (!m_video->isVisible())
        m_video->show();
    if (!m_surface)
        return;
    // The window may have changed since the video was opened ahead.
    placeSurface();
    // Over the window of a video before it, which goes only after this one is up.
    mapOverScreen(m_surface->winId());
    m_surface->show();
    m_surface->raise();
}

QRect VLCVideoImpl::areaInWindow() const
{
    return QRect(m_video->mapTo(m_video->window(), QPoint(0, 0)), m_video->size());
}

void VLCVideoImpl::placeSurface()
{
    m_surface->setGeometry(areaInWindow());
}

void VLCVideoImpl::hideSurface()
{
    if (m_surface)
        m_surface->hide();
}

void VLCVideoImpl::releaseMedia()
{
    if (m_media) {
        libvlc_media_release(m_media);
        m_media = nullptr;
    }
}
