#include "vlcvideoimpl.h"

#include "playlistitem.h"
#include "settings.h"
#include "video.h"

#include <QDebug>
#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QGuiApplication>
#include <QMetaObject>
#include <QMouseEvent>
#include <QWindow>

#include <utility>
#include <vector>

#include <dlfcn.h>
#include <vlc/vlc.h>

namespace {
// libVLC reports nothing for some media it cannot open (a stream that never answers); an item
// without a duration would then stay forever.
const int openingTimeoutMs = 30000;

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

    m_openingTimer.setSingleShot(true);
    m_openingTimer.setInterval(openingTimeoutMs);
    QObject::connect(&m_openingTimer, &QTimer::timeout, video, [this] { onOpeningTimeout(); });
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
        libvlc_media_player_stop(m_player);
        libvlc_media_player_release(m_player);
    }
    releaseMedia();
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
    const QByteArray address = mediaAddress(m_location).toEncoded();
    qDebug() << "Reading uri:" << address;

    ++m_generation;
    m_playing = true;
    if (!m_player) {
        postPlaybackOver(true);
        return true;
    }
    releaseMedia();
    m_media = libvlc_media_new_location(m_instance, address.constData());
    if (!m_media) {
        postPlaybackOver(true);
        return true;
    }
    if (m_mute)
        libvlc_media_add_option(m_media, ":no-audio");
    libvlc_media_player_set_media(m_player, m_media);
    if (videoOutput() == Output::XWindow)
        embedInto();
    if (libvlc_media_player_play(m_player) != 0) {
        postPlaybackOver(true);
        return true;
    }
    m_openingTimer.start();
    return true;
}

bool VLCVideoImpl::stop()
{
    ++m_generation;
    m_playing = false;
    m_openingTimer.stop();
    if (m_player)
        libvlc_media_player_stop(m_player);
    releaseMedia();
    hideSurface();
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
    if (generation != m_generation.load() || !m_playing)
        return;
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
    if (!m_video->isVisible())
        m_video->show();
    QWidget *top = m_video->window();
    QWindow *topWindow = top->windowHandle();
    if (!topWindow)
        return;
    if (!m_surface)
        m_surface = new VideoSurface(topWindow, m_video);
    m_surface->setGeometry(QRect(m_video->mapTo(top, QPoint(0, 0)), m_video->size()));
    m_surface->show();
    libvlc_media_player_set_xwindow(m_player, quint32(m_surface->winId()));
    // Stretched, the picture takes the widget's shape; otherwise it keeps its own, fitted inside.
    const QSize area = m_video->size();
    const QByteArray aspect = m_stretch && !area.isEmpty() ? QByteArray::number(area.width()) + ':'
                                                                 + QByteArray::number(area.height())
                                                           : QByteArray();
    libvlc_video_set_aspect_ratio(m_player, aspect.isEmpty() ? nullptr : aspect.constData());
    libvlc_video_set_scale(m_player, 0);
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
