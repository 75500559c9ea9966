#include "fleetlink.h"

#include <QFile>
#include <QMetaObject>
#include <QUrl>

#include <mosquitto.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

struct FleetLink::Outgoing
{
    quint64 connection;
    QByteArray topic;
    QByteArray payload;
    int qos;
    bool retain;
    quint64 tag;
    bool latestOnly;
};

namespace {
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// How long the goodbye may take when the link ends.
constexpr int GoodbyeMs = 500;
// A connection that lasted this long starts the back-off afresh when it ends; one that a broker
// ends at once (another player with the same name) keeps backing off.
constexpr int SteadyConnectionMs = 10000;

using Outgoing = FleetLink::Outgoing;

int msSince(Clock::time_point start)
{
    return int(std::chrono::duration_cast<milliseconds>(Clock::now() - start).count());
}
} // namespace

struct FleetLink::Shared
{
    explicit Shared(const Options &options)
        : options(options)
        , wakeFd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))
    {
    }
    ~Shared()
    {
        if (wakeFd >= 0)
            close(wakeFd);
    }

    void wake()
    {
        const quint64 one = 1;
        if (write(wakeFd, &one, sizeof one) < 0) {
            // Already signalled to the limit: the thread is awake anyway.
        }
    }

    bool isStopping()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return stopping;
    }

    // Runs f on the link's own thread, unless the link is gone.
    template<typename F> void post(F f)
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!receiver)
            return;
        FleetLink *link = receiver;
        QMetaObject::invokeMethod(
            link, [link, f] { f(link); }, Qt::QueuedConnection);
    }

    void postConnected(quint64 number)
    {
        post([number](FleetLink *link) {
            link->m_connection = number;
            Q_EMIT link->connected();
        });
    }

    void postDisconnected(quint64 number)
    {
        post([number](FleetLink *link) {
            if (link->m_connection != number)
                return;
            link->m_connection = 0;
            Q_EMIT link->disconnected();
        });
    }

    static void run(std::shared_ptr<Shared> self);

    const Options options;
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Outgoing> outgoing;
    FleetLink *receiver = nullptr;
    bool stopping = false;
    bool finished = false;
    const int wakeFd;
};

namespace {
// One connection attempt and, when the broker takes it, its whole life.
class Session
{
public:
    Session(FleetLink::Shared &shared, quint64 number)
        : m_shared(shared)
        , m_number(number)
    {
    }
    ~Session()
    {
        if (m_mosq)
            mosquitto_destroy(m_mosq);
    }

    // True when the broker accepted the connection.
    bool run();
    int acceptedForMs() const { return m_accepted ? msSince(m_acceptedAt) : 0; }
    bool accepted() const { return m_accepted; }
    const QString &failure() const { return m_failure; }
    bool refused() const { return m_refused; }

private:
    static Session *of(void *data) { return static_cast<Session *>(data); }
    static void onConnect(mosquitto *, void *data, int rc);
    static void onDisconnect(mosquitto *, void *data, int rc);
    static void onPublish(mosquitto *, void *data, int mid);
    static void onMessage(mosquitto *, void *data, const mosquitto_message *message);
    static void onLog(mosquitto *, void *data, int level, const char *text);

    bool setUp();
    void sendWaiting();
    void publishNow(const Outgoing &message);
    void goodbye();
    void fail(const QString &reason, bool refused = false);
    QString describe(int rc, int savedErrno) const;

    FleetLink::Shared &m_shared;
    const quint64 m_number;
    mosquitto *m_mosq = nullptr;
    bool m_accepted = false;
    bool m_ended = false;
    bool m_refused = false;
    Clock::time_point m_acceptedAt;
    QString m_failure;
    QString m_lastLibraryError;
    std::map<int, quint64> m_tags;
    std::deque<Outgoing> m_held;
};

bool Session::setUp()
{
    const FleetLink::Options &options = m_shared.options;
    m_mosq = mosquitto_new(options.clientId.toUtf8().constData(), true, this);
    if (!m_mosq) {
        fail(QStringLiteral("the MQTT library could not start (%1)")
                 .arg(QString::fromLocal8Bit(strerror(errno))));
        return false;
    }
    mosquitto_int_option(m_mosq, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
    mosquitto_connect_callback_set(m_mosq, &Session::onConnect);
    mosquitto_disconnect_callback_set(m_mosq, &Session::onDisconnect);
    mosquitto_publish_callback_set(m_mosq, &Session::onPublish);
    mosquitto_message_callback_set(m_mosq, &Session::onMessage);
    mosquitto_log_callback_set(m_mosq, &Session::onLog);
    if (!options.user.isEmpty()) {
        const QByteArray password = options.password.toUtf8();
        mosquitto_username_pw_set(m_mosq, options.user.toUtf8().constData(),
                                  password.isEmpty() ? nullptr : password.constData());
    }
    if (!options.willTopic.isEmpty()) {
        mosquitto_will_set(m_mosq, options.willTopic.constData(), options.willPayload.size(),
                           options.willPayload.constData(), 1, true);
    }
    if (options.tls) {
        const QByteArray caFile = QFile::encodeName(options.caFile);
        const int rc = mosquitto_tls_set(m_mosq, caFile.isEmpty() ? nullptr : caFile.constData(),
                                         caFile.isEmpty() ? "/etc/ssl/certs" : nullptr, nullptr,
                                         nullptr, nullptr);
        if (rc != MOSQ_ERR_SUCCESS) {
            fail(QStringLiteral("TLS: %1 (%2)")
                     .arg(describe(rc, errno),
                          caFile.isEmpty() ? QStringLiteral("/etc/ssl/certs") : options.caFile));
            return false;
        }
    }
    return true;
}

bool Session::run()
{
    if (!setUp())
        return false;
    const FleetLink::Options &options = m_shared.options;
    // Name lookup, TCP connection and the start of the TLS handshake: they may take long, which
    // only this thread notices.
    const int rc = mosquitto_connect(m_mosq, options.host.toUtf8().constData(), options.port,
                                     options.keepAliveSeconds);
    if (rc != MOSQ_ERR_SUCCESS) {
        fail(describe(rc, errno));
        return false;
    }
    const Clock::time_point started = Clock::now();
    while (!m_ended) {
        if (m_shared.isStopping()) {
            goodbye();
            break;
        }
        sendWaiting();
        pollfd fds[2] = {{mosquitto_socket(m_mosq), POLLIN, 0}, {m_shared.wakeFd, POLLIN, 0}};
        if (mosquitto_want_write(m_mosq))
            fds[0].events |= POLLOUT;
        if (poll(fds, 2, 1000) < 0 && errno != EINTR) {
            fail(QString::fromLocal8Bit(strerror(errno)));
            break;
        }
        if (fds[1].revents & POLLIN) {
            quint64 count = 0;
            if (read(m_shared.wakeFd, &count, sizeof count) < 0) {
                // Nothing was pending after all.
            }
        }
        int step = MOSQ_ERR_SUCCESS;
        if (fds[0].revents & (POLLIN | POLLERR | POLLHUP))
            step = mosquitto_loop_read(m_mosq, 1);
        if (step == MOSQ_ERR_SUCCESS && !m_ended && mosquitto_want_write(m_mosq))
            step = mosquitto_loop_write(m_mosq, 1);
        if (step == MOSQ_ERR_SUCCESS && !m_ended)
            step = mosquitto_loop_misc(m_mosq);
        if (step != MOSQ_ERR_SUCCESS) {
            fail(describe(step, errno));
            break;
        }
        if (!m_accepted && msSince(started) > FleetLink::AnswerTimeoutMs) {
            fail(QStringLiteral("no answer within %1 s").arg(FleetLink::AnswerTimeoutMs / 1000));
            break;
        }
    }
    if (m_accepted)
        m_shared.postDisconnected(m_number);
    return m_accepted;
}

void Session::sendWaiting()
{
    std::deque<Outgoing> batch;
    {
        std::lock_guard<std::mutex> lock(m_shared.mutex);
        batch.swap(m_shared.outgoing);
    }
    for (Outgoing &message : batch) {
        // What was handed over for an earlier connection is not sent on this one: the sender
        // starts afresh, in order, when it hears of the new one.
        if (message.connection != m_number)
            continue;
        if (!message.latestOnly) {
            publishNow(message);
            continue;
        }
        for (auto it = m_held.begin(); it != m_held.end(); ++it) {
            if (it->topic == message.topic) {
                m_held.erase(it);
                break;
            }
        }
        m_held.push_back(std::move(message));
    }
    if (mosquitto_want_write(m_mosq))
        return;
    for (const Outgoing &message : m_held)
        publishNow(message);
    m_held.clear();
}

void Session::publishNow(const Outgoing &message)
{
    int mid = 0;
    const int rc
        = mosquitto_publish(m_mosq, &mid, message.topic.constData(), message.payload.size(),
                            message.payload.constData(), message.qos, message.retain);
    if (rc == MOSQ_ERR_SUCCESS && message.tag != 0)
        m_tags[mid] = message.tag;
}

void Session::goodbye()
{
    sendWaiting();
    for (const Outgoing &message : m_held)
        publishNow(message);
    m_held.clear();
    if (!m_accepted)
        return;
    mosquitto_disconnect(m_mosq);
    const Clock::time_point started = Clock::now();
    while (mosquitto_socket(m_mosq) >= 0 && mosquitto_want_write(m_mosq)
           && msSince(started) < GoodbyeMs) {
        pollfd fd = {mosquitto_socket(m_mosq), POLLOUT, 0};
        poll(&fd, 1, 50);
        if (mosquitto_loop_write(m_mosq, 1) != MOSQ_ERR_SUCCESS)
            break;
    }
}

void Session::fail(const QString &reason, bool refused)
{
    if (!m_failure.isEmpty())
        return;
    m_failure = reason;
    m_refused = refused;
}

QString Session::describe(int rc, int savedErrno) const
{
    QString text = rc == MOSQ_ERR_ERRNO ? QString::fromLocal8Bit(strerror(savedErrno))
                                        : QString::fromUtf8(mosquitto_strerror(rc));
    if (!m_lastLibraryError.isEmpty())
        text += QStringLiteral(" (") + m_lastLibraryError + QLatin1Char(')');
    return text;
}

void Session::onConnect(mosquitto *mosq, void *data, int rc)
{
    Session *self = of(data);
    if (rc != 0) {
        self->fail(QString::fromUtf8(mosquitto_connack_string(rc)), true);
        self->m_ended = true;
        return;
    }
    self->m_accepted = true;
    self->m_acceptedAt = Clock::now();
    const QByteArray &subscription = self->m_shared.options.subscription;
    if (!subscription.isEmpty())
        mosquitto_subscribe(mosq, nullptr, subscription.constData(), 1);
    self->m_shared.postConnected(self->m_number);
}

void Session::onDisconnect(mosquitto *, void *data, int rc)
{
    Session *self = of(data);
    self->m_ended = true;
    if (rc != 0)
        self->fail(QStringLiteral("connection lost (%1)").arg(self->describe(rc, errno)));
}

void Session::onPublish(mosquitto *, void *data, int mid)
{
    Session *self = of(data);
    const auto found = self->m_tags.find(mid);
    if (found == self->m_tags.end())
        return;
    const quint64 tag = found->second;
    self->m_tags.erase(found);
    self->m_shared.post([tag](FleetLink *link) { Q_EMIT link->published(tag); });
}

void Session::onMessage(mosquitto *, void *data, const mosquitto_message *message)
{
    const QByteArray topic(message->topic);
    // Enough to tell that it is too large; the rest is never copied.
    const QByteArray payload(static_cast<const char *>(message->payload),
                             qMin(message->payloadlen, FleetLink::MaxIncomingBytes + 1));
    of(data)->m_shared.post(
        [topic, payload](FleetLink *link) { Q_EMIT link->messageReceived(topic, payload); });
}

void Session::onLog(mosquitto *, void *data, int level, const char *text)
{
    if (level & (MOSQ_LOG_ERR | MOSQ_LOG_WARNING))
        of(data)->m_lastLibraryError = QString::fromUtf8(text);
}
} // namespace

void FleetLink::Shared::run(std::shared_ptr<Shared> self)
{
    std::minstd_rand random(unsigned(Clock::now().time_since_epoch().count()));
    int delay = FirstRetryMs;
    quint64 number = 0;
    while (!self->isStopping()) {
        {
            Session session(*self, ++number);
            session.run();
            if (!session.failure().isEmpty() && !self->isStopping()) {
                const QString reason = session.failure();
                const bool refused = session.refused();
                self->post(
                    [reason, refused](FleetLink *link) { Q_EMIT link->failed(reason, refused); });
            }
            if (session.acceptedForMs() >= SteadyConnectionMs)
                delay = FirstRetryMs;
        }
        // Somewhere in the second half of the delay: players that lost their broker together do
        // not all come back in the same instant.
        const int wait = delay / 2 + int(random() % unsigned(delay / 2 + 1));
        std::unique_lock<std::mutex> lock(self->mutex);
        self->changed.wait_for(lock, milliseconds(wait), [&self] { return self->stopping; });
        delay = qMin(delay * 2, LastRetryMs);
    }
    std::lock_guard<std::mutex> lock(self->mutex);
    self->finished = true;
    self->changed.notify_all();
}

bool FleetLink::parseAddress(const QString &address, Options *options)
{
    const QUrl url(address.trimmed(), QUrl::StrictMode);
    const QString scheme = url.scheme().toLower();
    if (!url.isValid() || url.host().isEmpty()
        || (scheme != QLatin1String("mqtt") && scheme != QLatin1String("mqtts")))
        return false;
    options->tls = scheme == QLatin1String("mqtts");
    options->host = url.host();
    options->port = url.port(options->tls ? 8883 : 1883);
    return options->port > 0;
}

FleetLink::FleetLink(const Options &options, QObject *parent)
    : QObject(parent)
    , m_shared(std::make_shared<Shared>(options))
{
    m_shared->receiver = this;
}

FleetLink::~FleetLink()
{
    if (!m_started)
        return;
    std::unique_lock<std::mutex> lock(m_shared->mutex);
    m_shared->receiver = nullptr;
    m_shared->stopping = true;
    m_shared->changed.notify_all();
    lock.unlock();
    m_shared->wake();
    lock.lock();
    // A thread still stuck in a connection attempt is left to finish on its own; it holds what
    // it uses.
    m_shared->changed.wait_for(lock, milliseconds(GoodbyeMs + 100),
                               [this] { return m_shared->finished; });
}

void FleetLink::start()
{
    if (m_started)
        return;
    m_started = true;
    static std::once_flag initialised;
    std::call_once(initialised, [] { mosquitto_lib_init(); });
    std::thread(&Shared::run, m_shared).detach();
}

void FleetLink::publish(const QByteArray &topic, const QByteArray &payload, int qos, bool retain,
                        quint64 tag, bool latestOnly)
{
    if (m_connection == 0)
        return;
    {
        std::lock_guard<std::mutex> lock(m_shared->mutex);
        if (latestOnly) {
            for (auto it = m_shared->outgoing.begin(); it != m_shared->outgoing.end(); ++it) {
                if (it->latestOnly && it->topic == topic) {
                    m_shared->outgoing.erase(it);
                    break;
                }
            }
        }
        m_shared->outgoing.push_back({m_connection, topic, payload, qos, retain, tag, latestOnly});
    }
    m_shared->wake();
}
