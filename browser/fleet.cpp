#include "fleet.h"

#include "contentfactory.h"
#include "dispatcher.h"
#include "downloader.h"
#include "installpaths.h"
#include "logger.h"
#include "playlistitem.h"
#include "remote.h"
#include "remoteprotocol.h"
#include "screenshot.h"
#include "settings.h"
#include "statepaths.h"

#include <QDebug>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {
const char topicRoot[] = "vorsane/";
const char discoveryRoot[] = "homeassistant/";
// A command larger than a datagram can be is no command.
constexpr int MaxCommandBytes = 65507;
constexpr int CheckpointDelayMs = 1000;
// A screenshot older than this was not taken for the command just carried out.
constexpr int FreshScreenshotMs = 10000;

QByteArray compact(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}
} // namespace

std::unique_ptr<Fleet> Fleet::create(Dispatcher *dispatcher, const Settings *settings)
{
    const QString address = settings->fleetBroker();
    if (address.isEmpty())
        return nullptr;
    FleetLink::Options options;
    if (!FleetLink::parseAddress(address, &options)) {
        // Whatever credentials the address may carry stay out of the log.
        qWarning() << "Fleet broker address not understood (mqtt://host:port or "
                      "mqtts://host:port):"
                   << QUrl(address).toString(QUrl::RemoveUserInfo);
        return nullptr;
    }
    options.caFile = settings->fleetCaFile();
    options.user = settings->fleetUser();
    options.password = settings->fleetPassword();
    return std::make_unique<Fleet>(options, settings->fleetPlayerId(),
                                   settings->fleetStatusInterval(), settings->defaultUrl(),
                                   dispatcher);
}

Fleet::Fleet(const FleetLink::Options &linkOptions, const QString &playerId,
             int statusIntervalSeconds, const QString &sessionUrl, Dispatcher *dispatcher,
             QObject *parent)
    : QObject(parent)
    , m_playerId(safeId(playerId))
    , m_sessionUrl(sessionUrl)
    , m_dispatcher(dispatcher)
    , m_queue(StatePaths::playedQueue())
{
    m_uptime.start();
    m_commandClock.start();
    m_since = QDateTime::currentDateTime();
    if (m_playerId != playerId)
        qWarning() << "Fleet player name" << playerId << "used as" << m_playerId;
    m_queue.open();

    FleetLink::Options options = linkOptions;
    options.clientId = QStringLiteral("vorsane-") + m_playerId;
    options.willTopic = topic(m_playerId, "status");
    options.willPayload = offlinePayload();
    options.subscription = topic(m_playerId, "command");
    m_address
        = QStringLiteral("%1://%2:%3")
              .arg(options.tls ? QStringLiteral("mqtts") : QStringLiteral("mqtt"), options.host)
              .arg(options.port);
    m_link = new FleetLink(options, this);
    connect(m_link, &FleetLink::connected, this, &Fleet::onConnected);
    connect(m_link, &FleetLink::disconnected, this, &Fleet::onDisconnected);
    connect(m_link, &FleetLink::failed, this, &Fleet::onFailed);
    connect(m_link, &FleetLink::published, this, &Fleet::onPublished);
    connect(m_link, &FleetLink::messageReceived, this, &Fleet::onMessageReceived);

    connect(dispatcher, &Dispatcher::itemShown, this, &Fleet::onItemShown);
    connect(dispatcher, &Dispatcher::sessionStarted, this, &Fleet::onSessionStarted);
    Remote *remote = dispatcher->remote();
    connect(remote, &Remote::pause, this, &Fleet::onPause);
    connect(remote, &Remote::screenPower, this, &Fleet::onScreenPower);
    connect(remote, &Remote::fleetCommandDone, this, &Fleet::onFleetCommandDone);

    m_statusTimer.setInterval(statusIntervalSeconds * 1000);
    connect(&m_statusTimer, &QTimer::timeout, this, &Fleet::publishStatus);
    m_statusTimer.start();
    m_checkpointTimer.setSingleShot(true);
    m_checkpointTimer.setInterval(CheckpointDelayMs);
    connect(&m_checkpointTimer, &QTimer::timeout, this, [this] { m_queue.checkpoint(); });

    qDebug() << "Fleet: reporting as" << m_playerId << "to" << m_address;
    m_link->start();
}

Fleet::~Fleet()
{
    endRecord();
    m_queue.checkpoint();
    // A goodbye takes the will's place: the broker publishes the will only for a connection
    // that ends without one.
    m_link->publish(topic(m_playerId, "status"), offlinePayload(), 1, true);
}

QString Fleet::stateName(State state)
{
    switch (state) {
    case State::Starting:
        return QStringLiteral("starting");
    case State::Playing:
        return QStringLiteral("playing");
    case State::Paused:
        return QStringLiteral("paused");
    case State::Session:
        return QStringLiteral("session");
    case State::ScreenOff:
        return QStringLiteral("screen-off");
    }
    return QString();
}

QString Fleet::kindName(int type)
{
    // The words of the playlist's type attribute.
    switch (type) {
    case PlaylistItem::Video:
        return QStringLiteral("video");
    case PlaylistItem::Gif:
        return QStringLiteral("gif");
    case PlaylistItem::Image:
        return QStringLiteral("image");
    case PlaylistItem::PDF:
        return QStringLiteral("pdf");
    case PlaylistItem::Webpage:
        return QStringLiteral("url");
    case PlaylistItem::Document:
        return QStringLiteral("document");
    case PlaylistItem::Idle:
        return QStringLiteral("idle");
    case PlaylistItem::Maintenance:
        return QStringLiteral("maintenance");
    default:
        return QStringLiteral("other");
    }
}

QString Fleet::timestamp(const QDateTime &time)
{
    // Local time with its offset: "2026-03-01T14:05:09+01:00".
    return time.toOffsetFromUtc(time.offsetFromUtc()).toString(Qt::ISODate);
}

QByteArray Fleet::topic(const QString &playerId, const char *name)
{
    return QByteArray(topicRoot) + playerId.toUtf8() + '/' + name;
}

QString Fleet::safeId(const QString &id)
{
    QString safe;
    for (const QChar c : id) {
        const bool kept = (c.isLetterOrNumber() && c.unicode() < 128) || c == QLatin1Char('-')
                          || c == QLatin1Char('_') || c == QLatin1Char('.');
        safe += kept ? c : QLatin1Char('_');
    }
    return safe.isEmpty() ? QStringLiteral("player") : safe;
}

QByteArray Fleet::statusPayload(State state, const QString &item, const QString &kind, int loop,
                                const QDateTime &since, qint64 uptimeSeconds)
{
    QJsonObject status;
    status.insert(QLatin1String("state"), stateName(state));
    status.insert(QLatin1String("item"), item.isEmpty() ? QJsonValue() : QJsonValue(item));
    status.insert(QLatin1String("type"), kind.isEmpty() ? QJsonValue() : QJsonValue(kind));
    status.insert(QLatin1String("loop"), loop < 0 ? QJsonValue() : QJsonValue(loop));
    status.insert(QLatin1String("since"), timestamp(since));
    status.insert(QLatin1String("version"), QLatin1String(VORSANE_VERSION));
    status.insert(QLatin1String("uptime_s"), uptimeSeconds);
    return compact(status);
}

QJsonObject Fleet::playedRecord(const QString &url, const QString &kind, const QDateTime &start,
                                const QDateTime &end)
{
    QJsonObject record;
    record.insert(QLatin1String("url"), url);
    record.insert(QLatin1String("type"), kind);
    record.insert(QLatin1String("start"), timestamp(start));
    record.insert(QLatin1String("end"), timestamp(end));
    return record;
}

QByteArray Fleet::offlinePayload()
{
    QJsonObject offline;
    offline.insert(QLatin1String("state"), QLatin1String("offline"));
    return compact(offline);
}

QList<QPair<QByteArray, QByteArray>> Fleet::discovery(const QString &playerId)
{
    const QString node = QStringLiteral("vorsane_")
                         + QString(playerId).replace(QLatin1Char('.'), QLatin1Char('_'));
    const QString status = QString::fromUtf8(topic(playerId, "status"));
    const QString command = QString::fromUtf8(topic(playerId, "command"));
    QJsonObject device;
    device.insert(QLatin1String("identifiers"), QJsonArray{node});
    device.insert(QLatin1String("name"), QStringLiteral("Vorsane %1").arg(playerId));
    device.insert(QLatin1String("manufacturer"), QLatin1String("Vorsane"));
    device.insert(QLatin1String("model"), QLatin1String("vorsane-kiosk"));
    device.insert(QLatin1String("sw_version"), QLatin1String(VORSANE_VERSION));
    QJsonObject availability;
    availability.insert(QLatin1String("topic"), status);
    availability.insert(QLatin1String("value_template"),
                        QLatin1String("{{ 'offline' if value_json.state == 'offline' "
                                      "else 'online' }}"));

    const auto entity = [&](const char *component, const char *object, const char *name,
                            const char *icon) {
        QJsonObject config;
        config.insert(QLatin1String("name"), QLatin1String(name));
        config.insert(QLatin1String("unique_id"), node + QLatin1Char('_') + QLatin1String(object));
        config.insert(QLatin1String("icon"), QLatin1String(icon));
        config.insert(QLatin1String("availability"), QJsonArray{availability});
        config.insert(QLatin1String("device"), device);
        const QByteArray configTopic = QByteArray(discoveryRoot) + component + '/' + node.toUtf8()
                                       + '/' + object + "/config";
        return qMakePair(configTopic, config);
    };
    const auto commandText = [](RemoteProtocol::Action action, const QJsonObject &data) {
        QJsonObject object;
        object.insert(QLatin1String("action"), RemoteProtocol::code(action));
        if (!data.isEmpty())
            object.insert(QLatin1String("data"), data);
        return QString::fromUtf8(compact(object));
    };

    QList<QPair<QByteArray, QByteArray>> configs;
    auto item = entity("sensor", "item", "Item", "mdi:television-play");
    item.second.insert(QLatin1String("state_topic"), status);
    // Home Assistant keeps no state longer than 255 characters.
    item.second.insert(QLatin1String("value_template"),
                       QLatin1String("{{ (value_json.item | default('', true))[:255] }}"));
    item.second.insert(QLatin1String("json_attributes_topic"), status);
    configs << qMakePair(item.first, compact(item.second));

    auto screen = entity("switch", "screen", "Screen", "mdi:monitor");
    screen.second.insert(QLatin1String("command_topic"), command);
    screen.second.insert(QLatin1String("payload_on"),
                         commandText(RemoteProtocol::Action::ScreenPower, {{"on", true}}));
    screen.second.insert(QLatin1String("payload_off"),
                         commandText(RemoteProtocol::Action::ScreenPower, {{"on", false}}));
    screen.second.insert(QLatin1String("state_topic"), status);
    screen.second.insert(
        QLatin1String("value_template"),
        QLatin1String("{{ 'OFF' if value_json.state == 'screen-off' else 'ON' }}"));
    screen.second.insert(QLatin1String("state_on"), QLatin1String("ON"));
    screen.second.insert(QLatin1String("state_off"), QLatin1String("OFF"));
    configs << qMakePair(screen.first, compact(screen.second));

    auto next = entity("button", "next", "Next", "mdi:skip-next");
    next.second.insert(QLatin1String("command_topic"), command);
    next.second.insert(QLatin1String("payload_press"), commandText(RemoteProtocol::Action::Next, {}));
    configs << qMakePair(next.first, compact(next.second));

    auto pause = entity("button", "pause", "Pause", "mdi:play-pause");
    pause.second.insert(QLatin1String("command_topic"), command);
    pause.second.insert(QLatin1String("payload_press"),
                        commandText(RemoteProtocol::Action::Pause, {}));
    configs << qMakePair(pause.first, compact(pause.second));
    return configs;
}

void Fleet::onItemShown(const PlaylistItemPtr &item, int loop)
{
    endRecord();
    // The show switches the screen back on when a screen-off period gives way to an item.
    const bool idle = item && item->type == PlaylistItem::Idle;
    if (m_state == State::ScreenOff && !idle)
        m_screenOff = false;
    if (item) {
        m_item = Downloader::originalAddress(item->url);
        m_kind = kindName(item->type);
        m_recording = true;
        m_recordStart = QDateTime::currentDateTime();
    } else {
        m_item = ContentFactory::nothingToDisplayUrl();
        m_kind = kindName(PlaylistItem::Image);
    }
    m_loop = loop;
    m_since = QDateTime::currentDateTime();
    setState(idle ? State::ScreenOff : State::Playing);
}

void Fleet::onSessionStarted(const QUrl &url)
{
    endRecord();
    m_item = url.isEmpty() ? m_sessionUrl : url.toString();
    m_kind = QStringLiteral("session");
    m_loop = -1;
    m_since = QDateTime::currentDateTime();
    setState(State::Session);
}

void Fleet::onPause()
{
    // A pause command toggles the item on screen between paused and running.
    if (m_state == State::Playing)
        setState(State::Paused);
    else if (m_state == State::Paused)
        setState(State::Playing);
}

void Fleet::onScreenPower(bool on)
{
    m_screenOff = !on;
    publishStatus();
}

void Fleet::setState(State state)
{
    if (m_state != state)
        m_since = QDateTime::currentDateTime();
    m_state = state;
    publishStatus();
}

void Fleet::publishStatus()
{
    const State state = m_screenOff ? State::ScreenOff : m_state;
    m_link->publish(
        topic(m_playerId, "status"),
        statusPayload(state, m_item, m_kind, m_loop, m_since, m_uptime.elapsed() / 1000), 0, true,
        0, true);
    // Every publication counts as the periodic one.
    if (m_statusTimer.interval() > 0)
        m_statusTimer.start();
}

void Fleet::endRecord()
{
    if (!m_recording)
        return;
    m_recording = false;
    m_queue.append(playedRecord(m_item, m_kind, m_recordStart, QDateTime::currentDateTime()));
    sendPlayed();
}

void Fleet::sendPlayed()
{
    if (!m_link->isConnected())
        return;
    // In order, a few at a time: the rest waits on disk until the broker has taken these.
    for (int index = m_queue.indexAfter(m_sentUpTo); index < qMin(m_queue.size(), SendWindow);
         ++index) {
        const qint64 seq = m_queue.seqAt(index);
        m_link->publish(topic(m_playerId, "played"), m_queue.payloadAt(index), 1, false,
                        quint64(seq));
        m_sentUpTo = seq;
    }
}

void Fleet::onConnected()
{
    qDebug() << "Fleet broker connected:" << m_address;
    if (!m_lastFailure.isEmpty())
        Logger::logInfo(QStringLiteral("Fleet broker connected again: %1").arg(m_address));
    m_lastFailure.clear();
    for (const auto &config : discovery(m_playerId))
        m_link->publish(config.first, config.second, 1, true);
    publishStatus();
    m_sentUpTo = m_queue.lastDone();
    sendPlayed();
}

void Fleet::onDisconnected()
{
    // Whatever was sent and not acknowledged goes again, in order, on the next connection.
    m_sentUpTo = m_queue.lastDone();
}

void Fleet::onFailed(const QString &reason, bool refused)
{
    // Once per kind of failure: a broker away for a week writes one line, not ten thousand.
    if (reason == m_lastFailure)
        return;
    m_lastFailure = reason;
    const QString text
        = refused
              ? QStringLiteral("Fleet broker %1 refused the connection: %2").arg(m_address, reason)
              : QStringLiteral("Fleet broker %1 unreachable: %2; trying again")
                    .arg(m_address, reason);
    qWarning().noquote() << text;
    Logger::logWarning(text);
}

void Fleet::onPublished(quint64 seq)
{
    m_queue.acknowledge(qint64(seq));
    if (!m_checkpointTimer.isActive())
        m_checkpointTimer.start();
    sendPlayed();
}

void Fleet::onMessageReceived(const QByteArray &messageTopic, const QByteArray &payload)
{
    if (messageTopic != topic(m_playerId, "command"))
        return;
    if (payload.size() > MaxCommandBytes) {
        qWarning() << "Fleet command ignored: larger than" << MaxCommandBytes << "bytes.";
        return;
    }
    if (!takeCommandToken())
        return;
    if (m_dispatcher)
        m_dispatcher->remote()->enqueue(payload, Remote::Origin::Fleet);
}

bool Fleet::takeCommandToken()
{
    // A broker that floods commands gets a few through and the rest dropped, so the show keeps
    // its time.
    m_commandTokens
        = qMin<double>(CommandBurst, m_commandTokens + m_commandClock.restart() / 1000.0);
    if (m_commandTokens < 1) {
        if (!m_commandsThrottled)
            qWarning() << "Fleet commands dropped: too many.";
        m_commandsThrottled = true;
        return false;
    }
    m_commandsThrottled = false;
    m_commandTokens -= 1;
    return true;
}

void Fleet::onFleetCommandDone(int action, bool aborted)
{
    if (aborted)
        m_commandTokens = -CommandPenaltyMs / 1000.0;
    if (action == RemoteProtocol::code(RemoteProtocol::Action::Screenshot))
        sendScreenshot();
}

void Fleet::sendScreenshot()
{
    const QFileInfo info(Screenshot::path());
    QFile file(info.filePath());
    if (!info.exists()
        || info.lastModified().msecsTo(QDateTime::currentDateTime()) > FreshScreenshotMs
        || !file.open(QIODevice::ReadOnly)) {
        qWarning() << "Fleet screenshot: no picture to send.";
        return;
    }
    m_link->publish(topic(m_playerId, "screenshot"), file.readAll(), 0, false, 0, true);
}
