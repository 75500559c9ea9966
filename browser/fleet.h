#pragma once

#include "fleetlink.h"
#include "playedqueue.h"
#include "playlistloop.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QJsonObject>
#include <QList>
#include <QPair>
#include <QObject>
#include <QPointer>
#include <QTimer>
#include <QUrl>

#include <memory>

class Dispatcher;
class Settings;

// The player as one of a fleet: it reports its status and every item it showed (proof of play)
// to an MQTT broker, takes remote commands from it, and announces itself to Home Assistant.
// Topics live under vorsane/<player id>/. The network is the link's business, on its own
// thread; the show never waits for it.
class Fleet : public QObject
{
    Q_OBJECT

public:
    enum class State { Starting, Playing, Paused, Session, ScreenOff };

    // Proof-of-play records sent and not yet acknowledged, at most.
    static constexpr int SendWindow = 16;
    // Commands taken from the broker: a burst of this many, then one per second.
    static constexpr int CommandBurst = 10;
    // After a command whose evaluation ran out of time, commands wait this long.
    static constexpr int CommandPenaltyMs = 30000;

    // The fleet of the preferences; none when no broker is named or its address is not
    // understood (said in the log).
    static std::unique_ptr<Fleet> create(Dispatcher *dispatcher, const Settings *settings);

    Fleet(const FleetLink::Options &options, const QString &playerId, int statusIntervalSeconds,
          const QString &sessionUrl, Dispatcher *dispatcher, QObject *parent = nullptr);
    ~Fleet() override;

    QString playerId() const { return m_playerId; }
    State state() const { return m_state; }

    // What goes on the wire, shared with the benchmark's simulated players.
    static QString stateName(State state);
    static QString kindName(int type);
    static QString timestamp(const QDateTime &time);
    static QByteArray topic(const QString &playerId, const char *name);
    // Letters, digits, "-", "_" and "." are kept; anything else becomes "_".
    static QString safeId(const QString &id);
    static QByteArray statusPayload(State state, const QString &item, const QString &kind, int loop,
                                    const QDateTime &since, qint64 uptimeSeconds);
    static QJsonObject playedRecord(const QString &url, const QString &kind, const QDateTime &start,
                                    const QDateTime &end);
    static QByteArray offlinePayload();
    // Home Assistant discovery: topic and retained configuration of each entity.
    static QList<QPair<QByteArray, QByteArray>> discovery(const QString &playerId);

private:
    void onItemShown(const PlaylistItemPtr &item, int loop);
    void onSessionStarted(const QUrl &url);
    void onPause();
    void onScreenPower(bool on);
    void onConnected();
    void onDisconnected();
    void onFailed(const QString &reason, bool refused);
    void onPublished(quint64 seq);
    void onMessageReceived(const QByteArray &topic, const QByteArray &payload);
    void onFleetCommandDone(int action, bool aborted);

    void setState(State state);
    void publishStatus();
    void sendPlayed();
    void endRecord();
    void sendScreenshot();
    bool takeCommandToken();

    QString m_playerId;
    QString m_address;
    QString m_sessionUrl;
    QPointer<Dispatcher> m_dispatcher;
    FleetLink *m_link;
    PlayedQueue m_queue;
    QTimer m_statusTimer;
    QTimer m_checkpointTimer;
    QElapsedTimer m_uptime;

    State m_state = State::Starting;
    bool m_screenOff = false;
    QDateTime m_since;
    QString m_item;
    QString m_kind;
    int m_loop = -1;
    // The item on screen that will get a record when it ends.
    bool m_recording = false;
    QDateTime m_recordStart;

    qint64 m_sentUpTo = 0;
    QString m_lastFailure;

    double m_commandTokens = CommandBurst;
    QElapsedTimer m_commandClock;
    bool m_commandsThrottled = false;
};
