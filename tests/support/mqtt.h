#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QMutex>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>

struct mosquitto;
struct mosquitto_message;

namespace testsupport {

// A real Mosquitto broker of the test's own on a free port of 127.0.0.1, with a generated
// configuration. It can be killed and started again on the same port.
class MosquittoBroker
{
public:
    MosquittoBroker();
    ~MosquittoBroker();

    // Only clients with this name and password get in (a password file made by mosquitto_passwd).
    bool requirePassword(const QString &user, const QString &password);
    // A TLS listener with this certificate and key.
    void useTls(const QString &certFile, const QString &keyFile);
    // Sessions and retained messages are saved every second and survive a kill.
    void keepSessions();

    // Starts it and waits until it takes connections.
    bool start();
    // SIGKILL: no goodbye to anyone.
    void kill();
    // Sessions have been saved since then.
    bool savedSince(const QDateTime &time) const;
    quint16 port() const { return m_port; }
    QString address() const;
    QString log() const;

private:
    QTemporaryDir m_dir;
    QProcess m_process;
    quint16 m_port;
    QString m_passwordFile;
    QString m_certFile;
    QString m_keyFile;
    bool m_persistent = false;
};

// A certificate authority made by openssl and a server certificate it signed for localhost and
// 127.0.0.1 ("ca.pem", "server.pem", "server.key"), and a second, unrelated authority
// ("other-ca.pem").
bool makeCertificates(const QString &dir);

// An MQTT client of the test, on libmosquitto's own thread: it keeps every message of its
// subscriptions.
class MqttWatcher
{
public:
    struct Message
    {
        QByteArray topic;
        QByteArray payload;
        bool retained;
    };

    // A fixed client id with cleanSession false keeps the subscriptions across reconnections
    // and has the broker keep QoS 1 messages meanwhile.
    explicit MqttWatcher(const QByteArray &clientId = QByteArray(), bool cleanSession = true);
    ~MqttWatcher();

    bool connectTo(quint16 port, const QString &caFile = QString(), const QString &user = QString(),
                   const QString &password = QString());
    bool subscribe(const QByteArray &pattern);
    bool publish(const QByteArray &topic, const QByteArray &payload);
    void disconnect();

    QList<Message> messages(const QByteArray &topic = QByteArray()) const;
    void clear();

private:
    static void onConnect(mosquitto *, void *data, int rc);
    static void onSubscribe(mosquitto *, void *data, int mid, int count, const int *granted);
    static void onMessage(mosquitto *, void *data, const mosquitto_message *message);

    mosquitto *m_mosq;
    mutable QMutex m_mutex;
    QList<Message> m_messages;
    int m_connack = -1;
    int m_subscribed = 0;
    bool m_looping = false;
};

} // namespace testsupport
