#include "mqtt.h"

#include "testsupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTcpSocket>
#include <QTest>

#include <mosquitto.h>

#include <unistd.h>

namespace testsupport {

namespace {
bool run(const QString &program, const QStringList &arguments, const QString &dir = QString())
{
    QProcess process;
    process.setWorkingDirectory(dir);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    if (!process.waitForFinished(60000) || process.exitCode() != 0) {
        qWarning() << program << arguments << "failed:" << process.readAll();
        return false;
    }
    return true;
}
} // namespace

MosquittoBroker::MosquittoBroker()
    : m_port(closedPort())
{
    m_process.setProcessChannelMode(QProcess::MergedChannels);
}

MosquittoBroker::~MosquittoBroker()
{
    kill();
}

bool MosquittoBroker::requirePassword(const QString &user, const QString &password)
{
    m_passwordFile = m_dir.filePath(QStringLiteral("passwords"));
    return run(QStringLiteral("mosquitto_passwd"),
               {QStringLiteral("-c"), QStringLiteral("-b"), m_passwordFile, user, password});
}

void MosquittoBroker::useTls(const QString &certFile, const QString &keyFile)
{
    m_certFile = certFile;
    m_keyFile = keyFile;
}

void MosquittoBroker::keepSessions()
{
    m_persistent = true;
}

QString MosquittoBroker::address() const
{
    return QStringLiteral("%1://127.0.0.1:%2")
        .arg(m_certFile.isEmpty() ? QStringLiteral("mqtt") : QStringLiteral("mqtts"))
        .arg(m_port);
}

bool MosquittoBroker::start()
{
    QStringList config;
    config << QStringLiteral("listener %1 127.0.0.1").arg(m_port);
    if (!m_certFile.isEmpty())
        config << "certfile " + m_certFile << "keyfile " + m_keyFile;
    if (m_passwordFile.isEmpty()) {
        config << QStringLiteral("allow_anonymous true");
    } else {
        config << QStringLiteral("allow_anonymous false") << "password_file " + m_passwordFile;
    }
    if (m_persistent) {
        config << QStringLiteral("persistence true") << "persistence_location " + m_dir.path() + '/'
               << QStringLiteral("autosave_interval 1");
    } else {
        config << QStringLiteral("persistence false");
    }
    config << QStringLiteral("log_dest stderr") << QStringLiteral("log_type all");
    // Run as root, Mosquitto would otherwise change to its own account, which cannot read here.
    if (geteuid() == 0)
        config << QStringLiteral("user root");
    const QString configFile = m_dir.filePath(QStringLiteral("mosquitto.conf"));
    if (!writeFile(configFile, config.join('\n').toUtf8() + '\n'))
        return false;
    m_process.start(QStringLiteral("mosquitto"), {QStringLiteral("-c"), configFile});
    if (!m_process.waitForStarted(10000))
        return false;
    return QTest::qWaitFor(
               [this] {
                   if (m_process.state() != QProcess::Running)
                       return true;
                   QTcpSocket probe;
                   probe.connectToHost(QStringLiteral("127.0.0.1"), m_port);
                   return probe.waitForConnected(200);
               },
               10000)
           && m_process.state() == QProcess::Running;
}

void MosquittoBroker::kill()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.kill();
    m_process.waitForFinished(10000);
}

bool MosquittoBroker::savedSince(const QDateTime &time) const
{
    const QFileInfo saved(m_dir.filePath(QStringLiteral("mosquitto.db")));
    return saved.exists() && saved.lastModified() > time;
}

QString MosquittoBroker::log() const
{
    return QString::fromUtf8(const_cast<QProcess &>(m_process).readAll());
}

bool makeCertificates(const QString &dir)
{
    const QString openssl = QStringLiteral("openssl");
    const QStringList key
        = {QStringLiteral("-newkey"), QStringLiteral("ec"), QStringLiteral("-pkeyopt"),
           QStringLiteral("ec_paramgen_curve:prime256v1"), QStringLiteral("-nodes")};
    const auto authority = [&](const QString &name, const QString &subject) {
        return run(openssl,
                   QStringList{QStringLiteral("req"), QStringLiteral("-x509")} + key
                       + QStringList{QStringLiteral("-keyout"), name + ".key",
                                     QStringLiteral("-out"), name + ".pem", QStringLiteral("-days"),
                                     QStringLiteral("2"), QStringLiteral("-subj"), subject},
                   dir);
    };
    return authority(QStringLiteral("ca"), QStringLiteral("/CN=Fleet test CA"))
           && authority(QStringLiteral("other-ca"), QStringLiteral("/CN=Another CA"))
           && writeFile(dir + QStringLiteral("/server.ext"),
                        "subjectAltName=DNS:localhost,IP:127.0.0.1\n")
           && run(openssl,
                  QStringList{QStringLiteral("req")} + key
                      + QStringList{QStringLiteral("-keyout"), QStringLiteral("server.key"),
                                    QStringLiteral("-out"), QStringLiteral("server.csr"),
                                    QStringLiteral("-subj"), QStringLiteral("/CN=localhost")},
                  dir)
           && run(openssl,
                  {QStringLiteral("x509"), QStringLiteral("-req"), QStringLiteral("-in"),
                   QStringLiteral("server.csr"), QStringLiteral("-CA"), QStringLiteral("ca.pem"),
                   QStringLiteral("-CAkey"), QStringLiteral("ca.key"),
                   QStringLiteral("-CAcreateserial"), QStringLiteral("-out"),
                   QStringLiteral("server.pem"), QStringLiteral("-days"), QStringLiteral("2"),
                   QStringLiteral("-extfile"), QStringLiteral("server.ext")},
                  dir);
}

MqttWatcher::MqttWatcher(const QByteArray &clientId, bool cleanSession)
{
    mosquitto_lib_init();
    m_mosq = mosquitto_new(clientId.isEmpty() ? nullptr : clientId.constData(), cleanSession, this);
    mosquitto_int_option(m_mosq, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
    mosquitto_connect_callback_set(m_mosq, &MqttWatcher::onConnect);
    mosquitto_subscribe_callback_set(m_mosq, &MqttWatcher::onSubscribe);
    mosquitto_message_callback_set(m_mosq, &MqttWatcher::onMessage);
}

MqttWatcher::~MqttWatcher()
{
    disconnect();
    mosquitto_destroy(m_mosq);
}

bool MqttWatcher::connectTo(quint16 port, const QString &caFile, const QString &user,
                            const QString &password)
{
    if (!user.isEmpty())
        mosquitto_username_pw_set(m_mosq, user.toUtf8().constData(), password.toUtf8().constData());
    if (!caFile.isEmpty())
        mosquitto_tls_set(m_mosq, QFile::encodeName(caFile).constData(), nullptr, nullptr, nullptr,
                          nullptr);
    {
        QMutexLocker locker(&m_mutex);
        m_connack = -1;
    }
    if (mosquitto_connect(m_mosq, "localhost", port, 30) != MOSQ_ERR_SUCCESS)
        return false;
    if (!m_looping && mosquitto_loop_start(m_mosq) != MOSQ_ERR_SUCCESS)
        return false;
    m_looping = true;
    return QTest::qWaitFor(
               [this] {
                   QMutexLocker locker(&m_mutex);
                   return m_connack >= 0;
               },
               10000)
           && m_connack == 0;
}

bool MqttWatcher::subscribe(const QByteArray &pattern)
{
    int before = 0;
    {
        QMutexLocker locker(&m_mutex);
        before = m_subscribed;
    }
    if (mosquitto_subscribe(m_mosq, nullptr, pattern.constData(), 1) != MOSQ_ERR_SUCCESS)
        return false;
    return QTest::qWaitFor(
        [this, before] {
            QMutexLocker locker(&m_mutex);
            return m_subscribed > before;
        },
        10000);
}

bool MqttWatcher::publish(const QByteArray &topic, const QByteArray &payload)
{
    return mosquitto_publish(m_mosq, nullptr, topic.constData(), payload.size(),
                             payload.constData(), 1, false)
           == MOSQ_ERR_SUCCESS;
}

void MqttWatcher::disconnect()
{
    if (!m_looping)
        return;
    mosquitto_disconnect(m_mosq);
    mosquitto_loop_stop(m_mosq, true);
    m_looping = false;
}

QList<MqttWatcher::Message> MqttWatcher::messages(const QByteArray &topic) const
{
    QMutexLocker locker(&m_mutex);
    if (topic.isEmpty())
        return m_messages;
    QList<Message> found;
    for (const Message &message : m_messages) {
        if (message.topic == topic)
            found << message;
    }
    return found;
}

void MqttWatcher::clear()
{
    QMutexLocker locker(&m_mutex);
    m_messages.clear();
}

void MqttWatcher::onConnect(mosquitto *, void *data, int rc)
{
    auto *self = static_cast<MqttWatcher *>(data);
    QMutexLocker locker(&self->m_mutex);
    self->m_connack = rc;
}

void MqttWatcher::onSubscribe(mosquitto *, void *data, int, int, const int *)
{
    auto *self = static_cast<MqttWatcher *>(data);
    QMutexLocker locker(&self->m_mutex);
    ++self->m_subscribed;
}

void MqttWatcher::onMessage(mosquitto *, void *data, const mosquitto_message *message)
{
    auto *self = static_cast<MqttWatcher *>(data);
    QMutexLocker locker(&self->m_mutex);
    self->m_messages.append(
        {QByteArray(message->topic),
         QByteArray(static_cast<const char *>(message->payload), message->payloadlen),
         message->retain});
}

} // namespace testsupport
