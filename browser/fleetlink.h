#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>

#include <memory>

// One connection to an MQTT broker, driven by libmosquitto on a thread of its own: name lookup,
// connection, TLS handshake, every read and write, and reconnection with back-off happen there,
// so the thread that calls publish() never waits for the network. What happens comes back as
// queued signals.
class FleetLink : public QObject
{
    Q_OBJECT

public:
    struct Options
    {
        QString host;
        int port = 1883;
        bool tls = false;
        // Certificate authority for TLS; empty: the system's.
        QString caFile;
        QString user;
        QString password;
        QString clientId;
        int keepAliveSeconds = 60;
        // Published by the broker when the connection ends without a goodbye, retained.
        QByteArray willTopic;
        QByteArray willPayload;
        // Messages on this topic come back through messageReceived().
        QByteArray subscription;
    };

    // Reconnection waits this long at first, twice as long after each failure, up to the last.
    static constexpr int FirstRetryMs = 1000;
    static constexpr int LastRetryMs = 60000;
    // A broker that accepted the connection but has not answered by then is given up.
    static constexpr int AnswerTimeoutMs = 20000;
    // Messages from the broker larger than this are dropped.
    static constexpr int MaxIncomingBytes = 65536;

    // mqtt://host[:port] or mqtts://host[:port] into host, port and TLS; false otherwise.
    static bool parseAddress(const QString &address, Options *options);

    explicit FleetLink(const Options &options, QObject *parent = nullptr);
    // Says goodbye to the broker when it can within a moment; never waits longer than that.
    ~FleetLink() override;

    void start();
    bool isConnected() const { return m_connection != 0; }

    // Hands a message over for the current connection; dropped when there is none. A message
    // with a tag (QoS 1) is reported by published() once the broker has it. A message marked
    // latestOnly replaces one to the same topic that has not gone out yet, and waits while the
    // socket is still busy with earlier ones: a slow broker holds one status, not thousands.
    void publish(const QByteArray &topic, const QByteArray &payload, int qos, bool retain,
                 quint64 tag = 0, bool latestOnly = false);

Q_SIGNALS:
    void connected();
    void disconnected();
    // Why a connection could not be made or was lost; refused when the broker said no.
    void failed(const QString &reason, bool refused);
    void published(quint64 tag);
    void messageReceived(const QByteArray &topic, const QByteArray &payload);

public:
    struct Shared;
    // A message waiting for the link's thread.
    struct Outgoing;

private:
    std::shared_ptr<Shared> m_shared;
    // The connection the broker accepted last, 0 while there is none.
    quint64 m_connection = 0;
    bool m_started = false;
};
