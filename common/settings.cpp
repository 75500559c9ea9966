#include "settings.h"

#include "commandlineparser.h"
#include "installpaths.h"
#include "utils.h"

#include <QDateTime>
#include <QDebug>
#include <QFile>
#include <QFont>
#include <QProcess>
#include <QSettings>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QSysInfo>
#include <QUrl>

#include <unistd.h>
#include <utility>

Settings *Settings::m_settings = nullptr;

namespace {
// Replaced instances stay alive and reachable: components may still read through them.
QList<Settings *> &retiredInstances()
{
    // Never destroyed, like the instances it holds.
    static auto *retired = new QList<Settings *>;
    return *retired;
}
} // namespace

namespace {
const char currentVersion[] = "QFGLs6IVf1";
const char makerHomePage[] = "https://www.vorsane.com/";
const char launchdockConfig[] = "/home/pi/.config/launchdockrc";
constexpr int DefaultFleetStatusInterval = 60;
constexpr int DefaultPlaylistMaxMb = 16;
constexpr int DefaultTransitionMs = 500;

// The broker's credentials never reach a log line.
QVariant loggable(const QString &key, const QVariant &value)
{
    if ((key == Prefs::FleetUser || key == Prefs::FleetPassword) && !value.toString().isEmpty())
        return QStringLiteral("(hidden)");
    return value;
}

const CommandLineParser *defaultParser()
{
    static char programName[] = "vorsane-kiosk";
    static char *argv[] = {programName, nullptr};
    static const CommandLineParser parser(1, argv);
    return &parser;
}

QString orDefault(const QString &path, const QString &fallback)
{
    return path.isEmpty() ? fallback : path;
}
} // namespace

Settings *Settings::load(bool reload, const CommandLineParser *parser)
{
    if (!reload && m_settings)
        return m_settings;

    auto *fresh = new Settings(parser);
    fresh->applyVersionReset();

    // Older instances stay alive on purpose: components may still hold them. A reload that
    // changed nothing keeps the current instance, so periodic reloads do not pile up copies.
    if (m_settings && m_settings->m_parser == fresh->m_parser
        && m_settings->m_values == fresh->m_values
        && m_settings->m_autostarted == fresh->m_autostarted
        && m_settings->m_versionMissing == fresh->m_versionMissing) {
        delete fresh;
        return m_settings;
    }
    if (m_settings)
        retiredInstances().append(m_settings);
    m_settings = fresh;
    return m_settings;
}

Settings::Settings(const CommandLineParser *parser)
    : m_parser(parser ? parser : defaultParser())
{
    populateDefaults();
    readAutostarted();

    const QString path = m_parser->getPreferenceFilename();
    QSettings file(path, QSettings::IniFormat);
    qDebug() << "Loading settings from:" << path;
    const QStringList keys = file.allKeys();
    for (const QString &key : keys) {
        const QVariant value = file.value(key);
        qDebug() << key << "=" << loggable(key, value);
        m_values.insert(key, value);
    }
    m_versionMissing = !keys.contains(QStringLiteral("main/version"));
}

void Settings::applyVersionReset()
{
    if (!m_versionMissing && get(QStringLiteral("main/version")).toString() == currentVersion)
        return;

    qDebug() << "Software has been updated. Remove previous configuration.";
    const QString path = m_parser->getPreferenceFilename();
    if (QFile::exists(path))
        QFile::remove(path);
    m_values.clear();
    populateDefaults();
    writePreferences(path);
}

void Settings::populateDefaults()
{
    const QString defaultUrl = QString::fromLatin1(makerHomePage);
    QFont font(QStringLiteral("Droid Sans"), 14);

    m_values[QStringLiteral("main/version")] = QString::fromLatin1(currentVersion);
    m_values[Prefs::AdminPassword] = QString();
    m_values[QStringLiteral("main/after_web_session")] = QString();
    m_values[QStringLiteral("main/can_access_fs")] = false;
    m_values[QStringLiteral("main/can_end_session")] = true;
    m_values[QStringLiteral("main/can_print")] = false;
    m_values[QStringLiteral("main/printer_name")] = QString();
    m_values[QStringLiteral("main/default_timer")] = 900;
    m_values[Prefs::DefaultUrl] = defaultUrl;
    m_values[Prefs::Fullscreen] = true;
    m_values[Prefs::HideToolbar] = false;
    m_values[Prefs::FixedScreen] = false;
    m_values[Prefs::FixedWidth] = QString();
    m_values[Prefs::FixedHeight] = QString();
    m_values[QStringLiteral("main/list_mode")] = QStringLiteral("none");
    m_values[QStringLiteral("main/list_use_regex")] = false;
    m_values[QStringLiteral("main/max_history")] = 50;
    m_values[QStringLiteral("main/max_windows")] = 0;
    m_values[Prefs::Mode] = QStringLiteral("display");
    m_values[QStringLiteral("main/new_tab_url")] = defaultUrl;
    m_values[QStringLiteral("main/no_screensaver")] = true;
    m_values[QStringLiteral("main/post_session_uri")] = QUrl();
    m_values[QStringLiteral("main/post_session_uri_time")] = 5;
    m_values[Prefs::ZoomFactor] = 1.0;
    m_values[QStringLiteral("main/start_with_session")] = true;
    m_values[Prefs::StopSessionAfterSeconds] = 120;
    m_values[Prefs::UserAgent] = QString();
    m_values[QStringLiteral("main/with_clear")] = true;
    m_values[QStringLiteral("main/with_timer")] = false;
    m_values[QStringLiteral("main/external_browser")] = false;
    m_values[QStringLiteral("main/reset")] = false;
    m_values[QStringLiteral("main/external_browser_cmd")]
        = QStringLiteral("chromium-browser -kiosk %u");
    m_values[QStringLiteral("remote/direct")] = false;
    m_values[Prefs::RemoteEnabled] = false;
    m_values[Prefs::RemotePort] = 7575;
    m_values[QStringLiteral("remote/url")] = QString();
    m_values[Prefs::RemoteLocalUrl] = QStringLiteral("http://localhost:") + QString::number(7575);
    m_values[Prefs::RemoteKey] = QString();
    m_values[QStringLiteral("remote/tv")] = true;
    m_values[QStringLiteral("remote/localplaylist")] = true;
    m_values[QStringLiteral("remote/localfs")] = true;
    m_values[Prefs::PlaylistUpdateMode] = QStringLiteral("localPlaylist");
    m_values[QStringLiteral("slideshow/default_time")] = 5;
    m_values[Prefs::Resize] = true;
    m_values[Prefs::Stretch] = false;
    m_values[Prefs::AutoScroll] = false;
    m_values[QStringLiteral("slideshow/do_local_update")] = false;
    m_values[QStringLiteral("slideshow/hide_pointer")] = true;
    m_values[Prefs::Mute] = false;
    m_values[Prefs::TvControl] = QStringLiteral("auto");
    m_values[Prefs::Transition] = QStringLiteral("none");
    m_values[Prefs::TransitionMs] = DefaultTransitionMs;
    m_values[QStringLiteral("slideshow/refresh_after_minutes")] = 30;
    m_values[QStringLiteral("slideshow/save_modifications")] = false;
    m_values[QStringLiteral("slideshow/stop_on_event")] = true;
    m_values[QStringLiteral("slideshow/show_address")] = true;
    m_values[Prefs::CleanAfter] = false;
    m_values[Prefs::PlaylistMaxMb] = DefaultPlaylistMaxMb;
    m_values[QStringLiteral("slideshow/usb_auto")] = false;
    m_values[QStringLiteral("slideshow/shuffle")] = false;
    m_values[QStringLiteral("slideshow/use_remote")] = false;
    m_values[Prefs::PlaylistUrl] = QString();
    m_values[QStringLiteral("slideshow/external_player")] = true;
    m_values[QStringLiteral("slideshow/external_browser")] = false;
    m_values[QStringLiteral("webpage/default_font")] = font;
    m_values[Prefs::WebMemoryLimitMb] = 0;
    m_values[Prefs::WebLowMemory] = false;
    m_values[Prefs::WebDiskCacheMb] = 0;
    m_values[QStringLiteral("network/proxy_user")] = QString();
    m_values[QStringLiteral("network/proxy_passwd")] = QString();
    m_values[QStringLiteral("network/proxy_type")] = 0;
    m_values[QStringLiteral("network/proxy_uri")] = QString();
    m_values[Prefs::FleetBroker] = QString();
    // Empty means the host name, read when asked: a card image copied to many players must not
    // carry one name for all of them.
    m_values[Prefs::FleetPlayerId] = QString();
    m_values[Prefs::FleetUser] = QString();
    m_values[Prefs::FleetPassword] = QString();
    m_values[Prefs::FleetCaFile] = QString();
    m_values[Prefs::FleetStatusInterval] = DefaultFleetStatusInterval;
}

void Settings::readAutostarted()
{
    m_autostarted = false;
    QByteArray output;
    Utils::runAndWait(QStringLiteral("launchdock"), {QStringLiteral("--selected")}, &output);
    if (output.startsWith("sitedeck"))
        m_autostarted = true;
}

QVariant Settings::get(const QString &key) const
{
    return m_values.value(key);
}

Settings::Mode Settings::mode() const
{
    const QString mode = get(Prefs::Mode).toString();
    if (mode == QLatin1String("display"))
        return Mode::Display;
    if (mode == QLatin1String("kiosk"))
        return Mode::Kiosk;
    return Mode::Other;
}

Settings::UpdateMode Settings::playlistUpdateMode() const
{
    const QString mode = get(Prefs::PlaylistUpdateMode).toString();
    if (mode == QLatin1String("localPlaylist"))
        return UpdateMode::LocalPlaylist;
    if (mode == QLatin1String("serverVorsaneTV"))
        return UpdateMode::Server;
    if (mode == QLatin1String("serverVorsaneTVPrivate"))
        return UpdateMode::ServerPrivate;
    return UpdateMode::Other;
}

bool Settings::serverMode() const
{
    const UpdateMode mode = playlistUpdateMode();
    return mode == UpdateMode::Server || mode == UpdateMode::ServerPrivate;
}

QString Settings::playlistPages() const
{
    const QString pages = get(Prefs::Pages).toString();
    return pages.isEmpty() ? get(Prefs::PlaylistUrl).toString() : pages;
}

bool Settings::passwordSet() const
{
    // Deliberately the variant's truth: "0" and "false" count as no password, as they always did.
    return get(Prefs::AdminPassword).toBool();
}

QString Settings::adminPassword() const
{
    return get(Prefs::AdminPassword).toString();
}

QString Settings::defaultUrl() const
{
    return get(Prefs::DefaultUrl).toString();
}

bool Settings::fullscreen() const
{
    return get(Prefs::Fullscreen).toBool();
}

bool Settings::fixedScreen() const
{
    return get(Prefs::FixedScreen).toBool();
}

int Settings::fixedWidth() const
{
    return get(Prefs::FixedWidth).toInt();
}

int Settings::fixedHeight() const
{
    return get(Prefs::FixedHeight).toInt();
}

bool Settings::hideToolbar() const
{
    return get(Prefs::HideToolbar).toBool();
}

int Settings::stopSessionAfterSeconds() const
{
    return get(Prefs::StopSessionAfterSeconds).toInt();
}

QString Settings::userAgent() const
{
    return get(Prefs::UserAgent).toString();
}

double Settings::zoomFactor() const
{
    return get(Prefs::ZoomFactor).toDouble();
}

bool Settings::remoteEnabled() const
{
    return get(Prefs::RemoteEnabled).toBool();
}

QString Settings::remoteKey() const
{
    return get(Prefs::RemoteKey).toString();
}

QString Settings::remoteLocalUrl() const
{
    return get(Prefs::RemoteLocalUrl).toString();
}

int Settings::remotePort() const
{
    return get(Prefs::RemotePort).toInt();
}

bool Settings::autoScroll() const
{
    return get(Prefs::AutoScroll).toBool();
}

bool Settings::cleanAfter() const
{
    return get(Prefs::CleanAfter).toBool();
}

qint64 Settings::playlistMaxBytes() const
{
    bool ok = false;
    const int mb = get(Prefs::PlaylistMaxMb).toInt(&ok);
    return qint64(ok && mb > 0 ? mb : DefaultPlaylistMaxMb) * 1024 * 1024;
}

bool Settings::mute() const
{
    return get(Prefs::Mute).toBool();
}

qint64 Settings::webMemoryLimitMb() const
{
    bool ok = false;
    const qint64 chosen = get(Prefs::WebMemoryLimitMb).toLongLong(&ok);
    if (ok && chosen > 0)
        return chosen;
    const qint64 machineMb
        = qint64(::sysconf(_SC_PHYS_PAGES)) * ::sysconf(_SC_PAGESIZE) / (1024 * 1024);
    return machineMb > 0 ? qMin<qint64>(machineMb / 4, 1024) : 1024;
}

bool Settings::webLowMemory() const
{
    return get(Prefs::WebLowMemory).toBool();
}

int Settings::fadeMs() const
{
    if (get(Prefs::Transition).toString().trimmed().toLower() != QLatin1String("fade"))
        return 0;
    bool ok = false;
    const int ms = get(Prefs::TransitionMs).toInt(&ok);
    return ok && ms > 0 ? ms : DefaultTransitionMs;
}

int Settings::webDiskCacheMb() const
{
    return qMax(0, get(Prefs::WebDiskCacheMb).toInt());
}

Settings::TvControl Settings::tvControl() const
{
    const QString value = get(Prefs::TvControl).toString().trimmed().toLower();
    if (value == QLatin1String("dpms"))
        return TvControl::Dpms;
    if (value == QLatin1String("wayland"))
        return TvControl::Wayland;
    if (value == QLatin1String("cec"))
        return TvControl::Cec;
    if (value == QLatin1String("none"))
        return TvControl::None;
    return TvControl::Auto;
}

bool Settings::resize() const
{
    return get(Prefs::Resize).toBool();
}

bool Settings::stretch() const
{
    return get(Prefs::Stretch).toBool();
}

int Settings::defaultTime() const
{
    bool ok = false;
    const int seconds = get(QStringLiteral("slideshow/default_time")).toInt(&ok);
    return ok ? seconds : 5;
}

QString Settings::fleetBroker() const
{
    return get(Prefs::FleetBroker).toString().trimmed();
}

QString Settings::fleetPlayerId() const
{
    const QString id = get(Prefs::FleetPlayerId).toString().trimmed();
    return id.isEmpty() ? QSysInfo::machineHostName() : id;
}

QString Settings::fleetUser() const
{
    return get(Prefs::FleetUser).toString();
}

QString Settings::fleetPassword() const
{
    return get(Prefs::FleetPassword).toString();
}

QString Settings::fleetCaFile() const
{
    return get(Prefs::FleetCaFile).toString();
}

int Settings::fleetStatusInterval() const
{
    bool ok = false;
    const int seconds = get(Prefs::FleetStatusInterval).toInt(&ok);
    return ok && seconds > 0 ? seconds : DefaultFleetStatusInterval;
}

void Settings::set(const QString &key, int value)
{
    m_values.insert(key, value);
}

void Settings::set(const QString &key, QString value)
{
    m_values.insert(key, value);
}

void Settings::set(const QString &key, bool value)
{
    m_values.insert(key, value);
}

void Settings::set(const QString &key, double value)
{
    m_values.insert(key, value);
}

void Settings::set(const QString &key, const char *value)
{
    m_values.insert(key, QString::fromUtf8(value));
}

QString Settings::preferencesFilename() const
{
    return m_parser->getPreferenceFilename();
}

QString Settings::playlistFilename() const
{
    return m_parser->getPlaylistFilename();
}

QString Settings::whileListFilename() const
{
    return m_parser->getWhiteListFilename();
}

QString Settings::cookiesFilename() const
{
    return m_parser->getCookieFilename();
}

QString Settings::hookDirname() const
{
    return m_parser->getHookDirname();
}

void Settings::dump() const
{
    for (auto it = m_values.cbegin(); it != m_values.cend(); ++it)
        qDebug() << it.key() << loggable(it.key(), it.value());
    qDebug() << "hookdir:" << hookDirname();
}

bool Settings::writePreferences(const QString &path)
{
    const QString target = orDefault(path, preferencesFilename());
    qDebug() << "Saving preference file at:" << target;
    QSettings file(target, QSettings::IniFormat);
    if (!file.isWritable()) {
        qDebug() << "Unable to write preference file.";
        return false;
    }
    for (auto it = m_values.cbegin(); it != m_values.cend(); ++it) {
        const QString section = it.key().section(QLatin1Char('/'), 0, 0);
        const QString name = it.key().section(QLatin1Char('/'), 1);
        // The array interface adds its own "size" entry to every section.
        if (name == QLatin1String("size"))
            continue;
        qDebug() << section << name << loggable(it.key(), it.value());
        file.beginWriteArray(section);
        file.setValue(name, it.value());
        file.endArray();
    }
    // The file is replaced whole; on a full disk the previous one stays as it was.
    file.sync();
    if (file.status() != QSettings::NoError) {
        qDebug() << "Unable to write preference file.";
        return false;
    }
    return true;
}

bool Settings::writePlaylist(const QString &path)
{
    const QString target = orDefault(path, playlistFilename());
    // Same words as the preference writer, kept as they always were.
    qDebug() << "Saving preference file at:" << target;
    QByteArray text("#Vorsane playlist\n");
    for (const QString &entry : std::as_const(m_playlist))
        text += entry.toUtf8() + '\n';
    return Utils::writeWhole(target, text);
}

bool Settings::writeRestrictions(const QString &path)
{
    const QString target = orDefault(path, whileListFilename());
    qDebug() << "Saving restriction file at:" << target;
    QByteArray text;
    for (const QString &entry : std::as_const(m_restrictions))
        text += entry.toUtf8() + '\n';
    return Utils::writeWhole(target, text);
}

bool Settings::writeCookies(const QString &path)
{
    const QString target = orDefault(path, cookiesFilename());
    const QString connection = QStringLiteral("cookies");
    qDebug() << "Saving cookie file at:" << target;
    bool ok = false;
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), connection);
        db.setDatabaseName(target);
        if (db.open()) {
            db.transaction();
            QSqlQuery query(db);
            query.exec(QStringLiteral("DROP TABLE IF EXISTS moz_cookies"));
            query.exec(QStringLiteral(
                "CREATE TABLE moz_cookies (id INTEGER PRIMARY KEY, name TEXT, value TEXT, host "
                "TEXT, path TEXT, expiry INTEGER, lastAccessed INTEGER, isSecure "
                "INTEGER,isHttpOnly INTEGER)"));
            // Plain text substitution without escaping: a quote in a value loses that cookie.
            for (const QNetworkCookie &cookie : std::as_const(m_cookies)) {
                const QDateTime expiry = cookie.expirationDate();
                query.exec(
                    QStringLiteral("INSERT INTO moz_cookies (name, value, host, "
                                   "path,expiry, lastAccessed, isSecure, isHttpOnly) "
                                   "VALUES ('%1', '%2', '%3', '%4', '%5', '', '%6', '%7')")
                        .arg(QString::fromLatin1(cookie.name()),
                             QString::fromLatin1(cookie.value()), cookie.domain(), cookie.path(),
                             QString::number(expiry.isValid() ? expiry.toSecsSinceEpoch() : 0),
                             QString::number(cookie.isSecure() ? 1 : 0),
                             QString::number(cookie.isHttpOnly() ? 1 : 0)));
            }
            ok = db.commit();
            db.close();
        }
    }
    QSqlDatabase::removeDatabase(connection);
    return ok;
}

void Settings::writeAutostarted()
{
    const QString selection = m_autostarted ? QStringLiteral("sitedeck") : QStringLiteral("none");
    const QString command
        = m_autostarted ? QStringLiteral("vorsane-kiosk") : QStringLiteral("true");
    Utils::runAndWait(QStringLiteral("launchdock"),
                      {QStringLiteral("--select"), selection, QStringLiteral("--command"), command,
                       QStringLiteral("-c"), QString::fromLatin1(launchdockConfig)});

    const QByteArray sudoUid = qgetenv("SUDO_UID");
    if (!sudoUid.isEmpty()) {
        const uid_t uid = static_cast<uid_t>(sudoUid.toUInt());
        // The message on failure is the long-standing wording, kept as it is.
        if (::chown(launchdockConfig, uid, static_cast<gid_t>(-1)) != 0)
            qDebug() << "chown done.";
    }
}

void Settings::save(bool autostart, const QString &preferences, const QString &playlist,
                    const QString &restrictions, const QString &cookies)
{
    writePreferences(preferences);
    writePlaylist(playlist);
    writeRestrictions(restrictions);
    writeCookies(cookies);
    enableScreenSaver(!m_values[QStringLiteral("main/no_screensaver")].toBool());
    if (autostart)
        writeAutostarted();
}

void Settings::save(bool autostart, const QString &basePath)
{
    save(autostart, basePath + QLatin1String("/preferences"), basePath + QLatin1String("/playlist"),
         basePath + QLatin1String("/list"), basePath + QLatin1String("/cookies.sqlite"));
}

void Settings::save(bool autostart)
{
    // Deliberately the fixed default location, not the --basepath one.
    save(autostart, QStringLiteral(VORSANE_CONFIG_DIR));
}

void Settings::enableScreenSaver(bool enable)
{
    const QList<QStringList> commands
        = enable ? QList<QStringList>{{"s", "on"}, {"s", "blank"}, {"+dpms"}}
                 : QList<QStringList>{{"s", "off"}, {"s", "noblank"}, {"-dpms"}};
    for (const QStringList &arguments : commands)
        Utils::runAndWait(QStringLiteral("xset"), arguments);
}
