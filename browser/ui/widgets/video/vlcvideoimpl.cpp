#include "vlcvideoimpl.h"

#include "playlistitem.h"
#include "video.h"

#include <QDebug>
#include <QMetaObject>

#include <vlc/vlc.h>

namespace {
// libVLC reports nothing for some media it cannot open (a stream that never answers); an item
// without a duration would then stay forever.
const int openingTimeoutMs = 30000;

// One libVLC instance serves every video for the life of the process: loading the plugins for
// each item costs seconds on a small board, and unloading them leaves allocations behind.
libvlc_instance_t *sharedInstance()
{
    static libvlc_instance_t *instance = nullptr;
    if (!instance) {
        const char *const arguments[] = {"-I",
                                         "dummy",
                                         "--no-xlib",
                                         "--ignore-config",
                                         "--no-video-title-show",
                                         "--no-disable-screensaver",
                                         "--vout",
                                         "omxil_vout"};
        instance = libvlc_new(8, arguments);
    }
    return instance;
}
} // namespace

VLCVideoImpl::VLCVideoImpl(Video *video, PlaylistItem *item)
    : m_video(video)
    , m_location(item->url)
{
    video->setBlackBackground();

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
}

QUrl VLCVideoImpl::mediaAddress(const QString &location)
{
    if (location.contains(QLatin1String("file://")))
        return QUrl::fromLocalFile(QString(location).remove(QStringLiteral("file://")));
    if (location.contains(QLatin1String("vlc:")))
        return QUrl(QString(location).remove(QStringLiteral("vlc:")));
    return QUrl(location);
}

bool VLCVideoImpl::isPlaying() const
{
    return m_player && libvlc_media_player_is_playing(m_player);
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
    libvlc_media_player_set_media(m_player, m_media);
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

void VLCVideoImpl::releaseMedia()
{
    if (m_media) {
        libvlc_media_release(m_media);
        m_media = nullptr;
    }
}
