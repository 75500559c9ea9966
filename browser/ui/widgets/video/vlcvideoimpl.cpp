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
#include <QImage>
#include <QSocketNotifier>
#include <QTemporaryFile>
#include <QVector>
#include <QWindow>

#include <cstdlib>
#include <functional>
#include <memory>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <dlfcn.h>
#include <sys/resource.h>
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

// libVLC's window in the surface once it is up and in its place (the picture fitted into the
// area spans it in one direction at least); none before.
VLCOutputWindow placedOutput(WId surface)
{
    VLCOutputWindow placed;
    xcb_connection_t *connection = ownConnection();
    if (!connection)
        return placed;
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
    for (int i = 0; i < children.size(); ++i) {
        xcb_get_window_attributes_reply_t *attributes
            = xcb_get_window_attributes_reply(connection, attributesAsked.at(i), nullptr);
        xcb_get_geometry_reply_t *child
            = xcb_get_geometry_reply(connection, geometryAsked.at(i), nullptr);
        if (!placed.window && area && attributes && child
            && attributes->map_state != XCB_MAP_STATE_UNMAPPED
            && (child->width == area->width || child->height == area->height)) {
            placed = {children.at(i), QSize(child->width, child->height), child->depth,
                      attributes->visual};
        }
        std::free(attributes);
        std::free(child);
    }
    std::free(area);
    dispatchLater();
    return placed;
}

// X paints a window's background the moment it is mapped: libVLC's window, black, would show a
// frame of black before its next picture. Mapped with no background, its pixels stay what the
// screen showed (the item before) until libVLC draws over them; given the picture libVLC holds
// as its background, it shows that picture in the same instant, with no work by libVLC. Only the
// margins around a picture that does not fill the area, outside libVLC's window, are painted
// black then; the area is left without a background afterwards, so that libVLC closing its
// window at the end does not flash black either. Done on a connection of its own, before Qt maps
// the window again (which changes nothing then).
void mapOverScreen(WId surface, const VLCOutputWindow &output = {}, quint32 picture = 0)
{
    xcb_connection_t *connection = ownConnection();
    if (!connection)
        return;
    const auto window = xcb_window_t(surface);
    xcb_window_t root = XCB_WINDOW_NONE;
    const uint32_t none = XCB_BACK_PIXMAP_NONE;
    for (const xcb_window_t child : childrenOf(connection, window, &root)) {
        const uint32_t background = child == output.window && picture ? picture : none;
        xcb_change_window_attributes(connection, child, XCB_CW_BACK_PIXMAP, &background);
    }
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
    if (picture && output.window)
        xcb_change_window_attributes(connection, output.window, XCB_CW_BACK_PIXMAP, &none);
    roundTrip(connection);
}

// The picture as a pixmap for libVLC's window, when the window's pixels are laid out as a 32-bit
// RGB image's (the common case: depth 24, four bytes a pixel, red in the high byte); 0 otherwise.
quint32 pixmapFor(const VLCOutputWindow &output, const QImage &picture)
{
    xcb_connection_t *connection = ownConnection();
    if (!connection || !output.window || picture.size() != output.size || output.depth < 24)
        return XCB_PIXMAP_NONE;
    const xcb_setup_t *setup = xcb_get_setup(connection);
    if (setup->image_byte_order
        != (QSysInfo::ByteOrder == QSysInfo::LittleEndian ? XCB_IMAGE_ORDER_LSB_FIRST
                                                          : XCB_IMAGE_ORDER_MSB_FIRST))
        return XCB_PIXMAP_NONE;
    bool fourBytes = false;
    for (xcb_format_iterator_t format = xcb_setup_pixmap_formats_iterator(setup); format.rem;
         xcb_format_next(&format)) {
        if (format.data->depth == output.depth)
            fourBytes = format.data->bits_per_pixel == 32 && format.data->scanline_pad == 32;
    }
    bool rgb = false;
    xcb_window_t root = XCB_WINDOW_NONE;
    for (xcb_screen_iterator_t screen = xcb_setup_roots_iterator(setup); screen.rem;
         xcb_screen_next(&screen)) {
        for (xcb_depth_iterator_t depth = xcb_screen_allowed_depths_iterator(screen.data);
             depth.rem; xcb_depth_next(&depth)) {
            for (xcb_visualtype_iterator_t visual = xcb_depth_visuals_iterator(depth.data);
                 visual.rem; xcb_visualtype_next(&visual)) {
                if (visual.data->visual_id != output.visual)
                    continue;
                rgb = visual.data->red_mask == 0xff0000 && visual.data->green_mask == 0xff00
                      && visual.data->blue_mask == 0xff;
                root = screen.data->root;
            }
        }
    }
    if (!fourBytes || !rgb)
        return XCB_PIXMAP_NONE;
    const QImage image = picture.convertToFormat(QImage::Format_RGB32);
    const xcb_pixmap_t pixmap = xcb_generate_id(connection);
    xcb_create_pixmap(connection, output.depth, pixmap, root, uint16_t(image.width()),
                      uint16_t(image.height()));
    const xcb_gcontext_t context = xcb_generate_id(connection);
    xcb_create_gc(connection, context, pixmap, 0, nullptr);
    // In pieces a request can hold (a large picture exceeds it).
    const uint32_t requestBytes = xcb_get_maximum_request_length(connection) * 4;
    const int rowsAtOnce = int(qBound<qint64>(1, (qint64(requestBytes) - 64) / image.bytesPerLine(),
                                              qint64(image.height())));
    for (int top = 0; top < image.height(); top += rowsAtOnce) {
        const int rows = qMin(rowsAtOnce, image.height() - top);
        xcb_put_image(connection, XCB_IMAGE_FORMAT_Z_PIXMAP, pixmap, context,
                      uint16_t(image.width()), uint16_t(rows), 0, int16_t(top), 0, output.depth,
                      uint32_t(image.bytesPerLine() * rows), image.constScanLine(top));
    }
    xcb_free_gc(connection, context);
    xcb_flush(connection);
    return pixmap;
}

// Ends a window or a pixmap made on the program's own connection (0: none), at once.
void endOnServer(quint32 resource, xcb_void_cookie_t (*end)(xcb_connection_t *, uint32_t))
{
    xcb_connection_t *connection = ownConnection();
    if (!connection || resource == 0)
        return;
    end(connection, resource);
    xcb_flush(connection);
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
    endOnServer(window, &xcb_destroy_window);
}

// Where libVLC writes the pictures taken of held videos: in memory where the system offers it,
// not on the SD card of a player that takes one for every video of every pass of its loop.
QString pictureDirectory()
{
    for (const QString &directory :
         {qEnvironmentVariable("XDG_RUNTIME_DIR"), QStringLiteral("/dev/shm")}) {
        const QFileInfo info(directory);
        if (!directory.isEmpty() && info.isDir() && info.isWritable())
            return directory;
    }
    return QDir::tempPath();
}

// One libVLC instance serves every video for the life of the process: loading the plugins for
// each item costs seconds on a small board, and unloading them leaves allocations behind.
libvlc_instance_t *sharedInstance()
{
    static libvlc_instance_t *instance = nullptr;
    if (!instance) {
        std::vector<const char *> arguments{
            "-I", "dummy", "--no-xlib", "--ignore-config", "--no-video-title-show",
            // Pictures taken of a held video stay off the screen.
            "--no-snapshot-preview", "--no-osd", "--no-disable-screensaver"};
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
    dropFirstPicture();
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
        // libVLC draws nothing into a window out of sight, and shows its picture again only
        // after a while. Its window goes up showing the picture it holds, taken ahead; without
        // that picture (not taken yet, or the area changed since), the next one is shown at once
        // rather than when the clock, resumed, reaches it. (Going back to the first costs a
        // seek, several frames on this machine.)
        if (!showSurface())
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
    dropFirstPicture();
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
    dropFirstPicture();
    hideOutput();
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
    if (!anyway && !placedOutput(m_watched).window)
        return;
    m_outputGrace.stop();
    if (m_preroll == Preroll::Opening) {
        m_preroll = Preroll::Held;
        takeFirstPicture();
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

bool VLCVideoImpl::showSurface()
{
    if (!m_video->isVisible())
        m_video->show();
    if (!m_surface)
        return false;
    // The picture fits libVLC's window only as long as the area stays as it was when taken.
    const bool withPicture = m_firstPicture && m_surface->geometry() == areaInWindow();
    // The window may have changed since the video was opened ahead.
    placeSurface();
    // Over the window of a video before it, which goes only after this one is up.
    mapOverScreen(m_surface->winId(), m_output, withPicture ? m_firstPicture : 0);
    dropFirstPicture();
    m_surface->show();
    m_surface->raise();
    return withPicture;
}

QRect VLCVideoImpl::areaInWindow() const
{
    return QRect(m_video->mapTo(m_video->window(), QPoint(0, 0)), m_video->size());
}

void VLCVideoImpl::placeSurface()
{
    m_surface->setGeometry(areaInWindow());
}

void VLCVideoImpl::hideOutput()
{
    if (m_surface)
        m_surface->hide();
}

void VLCVideoImpl::takeFirstPicture()
{
    dropFirstPicture();
    m_output = placedOutput(m_watched);
    if (!m_player || !m_output.window)
        return;
    // Encoding the picture takes a while on a small board: on a thread of its own, behind the
    // item on the screen. The thread holds the player, which outlives it even if this goes.
    libvlc_media_player_retain(m_player);
    libvlc_media_player_t *player = m_player;
    const quint64 generation = m_generation.load();
    const QSize size = m_output.size;
    const std::weak_ptr<char> alive = m_alive;
    const auto take = [this, player, generation, size, alive] {
        // On Linux the nice value of one thread.
        setpriority(PRIO_PROCESS, 0, 19);
        QImage picture;
        QTemporaryFile file(pictureDirectory() + QStringLiteral("/vorsane-picture-XXXXXX.png"));
        if (file.open()) {
            file.close();
            if (libvlc_video_take_snapshot(player, 0,
                                           QFile::encodeName(file.fileName()).constData(),
                                           unsigned(size.width()), unsigned(size.height()))
                == 0)
                picture.load(file.fileName(), "PNG");
        }
        libvlc_media_player_release(player);
        if (alive.expired())
            return;
        QMetaObject::invokeMethod(
            qApp,
            [this, generation, picture, alive] {
                if (alive.lock())
                    keepFirstPicture(generation, picture);
            },
            Qt::QueuedConnection);
    };
    try {
        std::thread(take).detach();
    } catch (const std::system_error &error) {
        // The video still goes up at its turn, without its picture ready.
        qWarning() << "Cannot take the picture of a held video:" << error.what();
        libvlc_media_player_release(player);
    }
}

void VLCVideoImpl::keepFirstPicture(quint64 generation, const QImage &picture)
{
    if (generation != m_generation.load() || m_preroll != Preroll::Held || picture.isNull())
        return;
    dropFirstPicture();
    m_firstPicture = pixmapFor(m_output, picture);
}

void VLCVideoImpl::dropFirstPicture()
{
    endOnServer(std::exchange(m_firstPicture, 0), &xcb_free_pixmap);
}

void VLCVideoImpl::releaseMedia()
{
    if (m_media) {
        libvlc_media_release(m_media);
        m_media = nullptr;
    }
}
