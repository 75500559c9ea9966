#pragma once

#include "videoimpl.h"

#include <QPointer>
#include <QRect>
#include <QSize>
#include <QString>
#include <QTimer>
#include <QUrl>

#include <atomic>
#include <memory>

class PlaylistItem;
class QImage;
class Video;
class QWindow;
struct libvlc_event_t;
struct libvlc_instance_t;
struct libvlc_media_player_t;
struct libvlc_media_t;

// libVLC's window inside the surface, as found once it is up in its place.
struct VLCOutputWindow
{
    quint32 window = 0;
    QSize size;
    quint8 depth = 0;
    quint32 visual = 0;
};

// Plays the item inside the process through libVLC.
class VLCVideoImpl : public VideoImpl
{
public:
    VLCVideoImpl(Video *video, PlaylistItem *item);
    ~VLCVideoImpl() override;

    void pause() override;
    void resume() override;
    bool onTimeout() override;
    bool start() override;
    bool stop() override;
    void prepare() override;
    bool isReady() const override;
    void hideOutput() override;

    // The address libVLC is given for an item location.
    static QUrl mediaAddress(const QString &location);

private:
    // Called on libVLC's event thread.
    static void onMediaEndReached(const libvlc_event_t *event, void *data);
    static void onMediaError(const libvlc_event_t *event, void *data);
    static void onVideoOutput(const libvlc_event_t *event, void *data);

    void postPlaybackOver(bool failed);
    void onPlaybackOver(quint64 generation, bool failed);
    void onOpeningTimeout();
    // libVLC's window is up inside the surface (or, anyway, its output is open): a picture
    // follows.
    void onOutputWindow(bool anyway);
    bool play(bool held);
    void embedInto();
    // Whether it went up showing the picture libVLC holds.
    bool showSurface();
    // Shows the window libVLC draws into over the area kept as it was since the start.
    void reveal();
    QRect areaInWindow() const;
    void placeSurface();
    void releaseMedia();
    // Has libVLC write the picture it holds to a file, away from the GUI thread, for the moment
    // the held video's window goes up.
    void takeFirstPicture();
    void keepFirstPicture(quint64 generation, const QImage &picture);
    void dropFirstPicture();

    Video *m_video;
    QString m_location;
    libvlc_instance_t *m_instance = nullptr;
    libvlc_media_player_t *m_player = nullptr;
    libvlc_media_t *m_media = nullptr;
    // The X window libVLC draws into: a window of its own over the widget, not the widget's.
    QPointer<QWindow> m_surface;
    // The surface's X window, watched for the window libVLC opens in it.
    quint32 m_watched = 0;

    // Counts starts and stops, so that an event of an earlier playback is recognised as stale.
    std::atomic<quint64> m_generation{0};
    bool m_playing = false;
    // Opened ahead of its turn and held on its first picture, out of sight.
    enum class Preroll { None, Opening, Held };
    Preroll m_preroll = Preroll::None;
    bool m_stretch = false;
    bool m_mute = false;
    QTimer m_openingTimer;
    // The X window keeping the item before on the screen while libVLC opens; 0 when none.
    quint32 m_freeze = 0;
    // Started, its window not shown yet.
    bool m_revealPending = false;
    QTimer m_revealTimer;
    QTimer m_outputGrace;
    VLCOutputWindow m_output;
    // The held picture, on the X server, at the size of libVLC's window; 0 when none.
    quint32 m_firstPicture = 0;
    // Gone with this object: a picture taken for it then arrives to nobody.
    std::shared_ptr<char> m_alive = std::make_shared<char>();
};
