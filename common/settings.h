#pragma once

#include <QList>
#include <QMap>
#include <QNetworkCookie>
#include <QObject>
#include <QStringList>
#include <QVariant>

class CommandLineParser;

// Keys of the preferences read in more than one place; the defaults are filed under the same
// constants, so a mistyped key cannot compile.
namespace Prefs {
inline const QString AdminPassword = QStringLiteral("main/admin_passwd");
inline const QString DefaultUrl = QStringLiteral("main/default_url");
inline const QString FixedScreen = QStringLiteral("main/fixedscreen");
inline const QString FixedHeight = QStringLiteral("main/hauteur_edit");
inline const QString FixedWidth = QStringLiteral("main/largeur_edit");
inline const QString Fullscreen = QStringLiteral("main/fullscreen");
inline const QString HideToolbar = QStringLiteral("main/hide_toolbar");
inline const QString Mode = QStringLiteral("main/mode");
inline const QString StopSessionAfterSeconds = QStringLiteral("main/stop_session_after_seconds");
inline const QString UserAgent = QStringLiteral("main/user_agent");
inline const QString ZoomFactor = QStringLiteral("main/zoomFactor");
inline const QString RemoteEnabled = QStringLiteral("remote/enabled");
inline const QString RemoteKey = QStringLiteral("remote/key");
inline const QString RemoteLocalUrl = QStringLiteral("remote/local_url");
inline const QString RemotePort = QStringLiteral("remote/port");
inline const QString AutoScroll = QStringLiteral("slideshow/auto_scroll");
inline const QString CleanAfter = QStringLiteral("slideshow/clean_after");
inline const QString Mute = QStringLiteral("slideshow/mute");
inline const QString Pages = QStringLiteral("slideshow/pages");
inline const QString PlaylistMaxMb = QStringLiteral("slideshow/playlist_max_mb");
inline const QString PlaylistUpdateMode = QStringLiteral("slideshow/playlist_update_mode");
inline const QString Resize = QStringLiteral("slideshow/resize");
inline const QString Stretch = QStringLiteral("slideshow/stretch");
inline const QString PlaylistUrl = QStringLiteral("slideshow/url");
inline const QString TvControl = QStringLiteral("slideshow/tv_control");
inline const QString Transition = QStringLiteral("slideshow/transition");
inline const QString TransitionMs = QStringLiteral("slideshow/transition_ms");
inline const QString WebMemoryLimitMb = QStringLiteral("webpage/memory_limit_mb");
inline const QString WebLowMemory = QStringLiteral("webpage/low_memory");
inline const QString WebDiskCacheMb = QStringLiteral("webpage/disk_cache_mb");
inline const QString FleetBroker = QStringLiteral("fleet/broker");
inline const QString FleetPlayerId = QStringLiteral("fleet/player_id");
inline const QString FleetUser = QStringLiteral("fleet/user");
inline const QString FleetPassword = QStringLiteral("fleet/password");
inline const QString FleetCaFile = QStringLiteral("fleet/ca_file");
inline const QString FleetStatusInterval = QStringLiteral("fleet/status_interval");
} // namespace Prefs

// The process-wide preference store: built-in defaults overlaid by the INI preference file.
class Settings : public QObject
{
    Q_OBJECT

public:
    static Settings *load(bool reload, const CommandLineParser *parser);

    // The single lookup point: every typed getter below reads through it. A key that has no
    // default and is not in the file gives an invalid value.
    QVariant get(const QString &key) const;

    enum class Mode { Display, Kiosk, Other };
    // How the screen is switched off and on: the first way that works here, X11 display power
    // management, the Wayland compositor's output power, HDMI-CEC, or not at all.
    enum class TvControl { Auto, Dpms, Wayland, Cec, None };
    // Where the playlist comes from: the local playlist file, or a content server (polled for its
    // last edit; the private variant asks another question). Any other value plays the address
    // in slideshow/pages without polling.
    enum class UpdateMode { LocalPlaylist, Server, ServerPrivate, Other };

    Mode mode() const;
    UpdateMode playlistUpdateMode() const;
    bool serverMode() const;
    // The content server's playlist address: slideshow/pages, else slideshow/url.
    QString playlistPages() const;
    bool passwordSet() const;
    QString adminPassword() const;
    QString defaultUrl() const;
    bool fullscreen() const;
    bool fixedScreen() const;
    int fixedWidth() const;
    int fixedHeight() const;
    bool hideToolbar() const;
    int stopSessionAfterSeconds() const;
    QString userAgent() const;
    double zoomFactor() const;
    bool remoteEnabled() const;
    QString remoteKey() const;
    QString remoteLocalUrl() const;
    int remotePort() const;
    bool autoScroll() const;
    bool cleanAfter() const;
    bool mute() const;
    // The largest playlist document read, in bytes.
    qint64 playlistMaxBytes() const;
    // Milliseconds a still item takes to fade into the next; 0 for the hard cut.
    int fadeMs() const;
    bool resize() const;
    bool stretch() const;
    // Seconds an item without a time of its own is shown; 5 when the value is not a number.
    int defaultTime() const;
    // slideshow/tv_control; an unknown value reads as Auto.
    TvControl tvControl() const;
    // The most a web page may take, in MiB: the preference when it is a positive number, else a
    // quarter of the machine's memory, at most 1024.
    qint64 webMemoryLimitMb() const;
    // Fewer and smaller web engine processes, for boards with little memory.
    bool webLowMemory() const;
    // The web engine's disk cache in MiB; 0 leaves the engine's own size.
    int webDiskCacheMb() const;
    // mqtt://host:port or mqtts://host:port; empty: the player reports to no broker.
    QString fleetBroker() const;
    // The player's name in the fleet's topics: the preference, else the host name.
    QString fleetPlayerId() const;
    QString fleetUser() const;
    QString fleetPassword() const;
    QString fleetCaFile() const;
    // Seconds between two status reports; the default for anything that is not a positive number.
    int fleetStatusInterval() const;

    void set(const QString &key, int value);
    void set(const QString &key, QString value);
    void set(const QString &key, bool value);
    void set(const QString &key, double value);
    // Without this a string literal would silently pick the bool overload.
    void set(const QString &key, const char *value);

    QString preferencesFilename() const;
    QString playlistFilename() const;
    QString whileListFilename() const;
    QString cookiesFilename() const;
    QString hookDirname() const;

    void populateDefaults();
    void readAutostarted();
    bool autostarted() const { return m_autostarted; }
    void setAutostarted(bool autostarted) { m_autostarted = autostarted; }
    bool versionMissing() const { return m_versionMissing; }
    void dump() const;

    // The data handed over for a complete save.
    void setPlaylistEntries(const QStringList &entries) { m_playlist = entries; }
    void setRestrictionEntries(const QStringList &entries) { m_restrictions = entries; }
    void setCookies(const QList<QNetworkCookie> &cookies) { m_cookies = cookies; }

    bool writePreferences(const QString &path);
    bool writePlaylist(const QString &path);
    bool writeRestrictions(const QString &path);
    bool writeCookies(const QString &path);
    void writeAutostarted();
    void save(bool autostart, const QString &preferences, const QString &playlist,
              const QString &restrictions, const QString &cookies);
    void save(bool autostart, const QString &basePath);
    void save(bool autostart);
    static void enableScreenSaver(bool enable);

    static Settings *m_settings;

private:
    explicit Settings(const CommandLineParser *parser);
    void applyVersionReset();

    QStringList m_playlist;
    QStringList m_restrictions;
    QList<QNetworkCookie> m_cookies;
    const CommandLineParser *m_parser;
    QMap<QString, QVariant> m_values;
    bool m_autostarted = false;
    bool m_versionMissing = false;
};
