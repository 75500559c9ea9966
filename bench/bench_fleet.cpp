// What the fleet costs: the bytes one player sends in an hour at the default settings, measured
// on the wire between the player's own MQTT link and a real Mosquitto; and how many simulated
// players, publishing the same messages, one Mosquitto on this machine carries. Loopback only;
// every loop is bounded in count and time.
//
//   bench_fleet [--players 1000,2000,4000,8000,16000,24000] [--step-seconds 20]
//               [--item-seconds 5]

#include "fleet.h"
#include "fleetlink.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTextStream>
#include <QThread>
#include <QTimer>

#include <mosquitto.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <queue>
#include <random>
#include <vector>

#include <sys/epoll.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {
QTextStream out(stdout);

// The status interval and item time of the default preferences.
constexpr int StatusIntervalSeconds = 60;
constexpr int DefaultItemSeconds = 5;

quint16 freePort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost);
    return probe.serverPort();
}

// A Mosquitto of the benchmark's own.
class Broker
{
public:
    bool start()
    {
        m_port = freePort();
        QFile config(m_dir.filePath(QStringLiteral("mosquitto.conf")));
        if (!config.open(QIODevice::WriteOnly))
            return false;
        config.write(QStringLiteral("listener %1 127.0.0.1\nallow_anonymous true\n"
                                    "persistence false\nmax_connections -1\nlog_dest none\n%2")
                         .arg(m_port)
                         .arg(geteuid() == 0 ? QStringLiteral("user root\n") : QString())
                         .toUtf8());
        config.close();
        m_process.start(QStringLiteral("mosquitto"), {QStringLiteral("-c"), config.fileName()});
        if (!m_process.waitForStarted())
            return false;
        QElapsedTimer waited;
        waited.start();
        while (waited.elapsed() < 10000) {
            QTcpSocket socket;
            socket.connectToHost(QHostAddress::LocalHost, m_port);
            if (socket.waitForConnected(200))
                return true;
        }
        return false;
    }
    ~Broker()
    {
        m_process.terminate();
        m_process.waitForFinished(5000);
    }
    quint16 port() const { return m_port; }
    // CPU seconds the broker used so far, and its resident memory in KiB.
    double cpuSeconds() const
    {
        QFile stat(QStringLiteral("/proc/%1/stat").arg(m_process.processId()));
        if (!stat.open(QIODevice::ReadOnly))
            return 0;
        const QList<QByteArray> fields = stat.readAll().split(')').last().split(' ');
        // After the name: state is field 1; utime and stime are 12 and 13.
        return (fields.value(12).toDouble() + fields.value(13).toDouble())
               / double(sysconf(_SC_CLK_TCK));
    }
    qint64 residentKiB() const
    {
        QFile status(QStringLiteral("/proc/%1/status").arg(m_process.processId()));
        if (!status.open(QIODevice::ReadOnly))
            return 0;
        for (const QByteArray &line : status.readAll().split('\n')) {
            if (line.startsWith("VmRSS:"))
                return line.mid(6).trimmed().split(' ').first().toLongLong();
        }
        return 0;
    }

private:
    QTemporaryDir m_dir;
    QProcess m_process;
    quint16 m_port = 0;
};

// Forwards one connection to the broker and counts the bytes each way.
class CountingRelay : public QObject
{
public:
    explicit CountingRelay(quint16 brokerPort)
        : m_brokerPort(brokerPort)
    {
        m_server.listen(QHostAddress::LocalHost);
        connect(&m_server, &QTcpServer::newConnection, this, [this] {
            QTcpSocket *client = m_server.nextPendingConnection();
            auto *broker = new QTcpSocket(client);
            broker->connectToHost(QHostAddress::LocalHost, m_brokerPort);
            connect(client, &QTcpSocket::readyRead, broker, [this, client, broker] {
                const QByteArray data = client->readAll();
                sent += data.size();
                broker->write(data);
            });
            connect(broker, &QTcpSocket::readyRead, client, [this, client, broker] {
                const QByteArray data = broker->readAll();
                received += data.size();
                client->write(data);
            });
        });
    }
    quint16 port() const { return m_server.serverPort(); }

    qint64 sent = 0;
    qint64 received = 0;

private:
    QTcpServer m_server;
    quint16 m_brokerPort;
};

QString sampleUrl(int item)
{
    return QStringLiteral("https://content.example.com/campaigns/spring/picture-%1.jpg")
        .arg(item % 40, 3, 10, QLatin1Char('0'));
}

bool waitFor(const std::function<bool()> &done, int ms)
{
    QElapsedTimer clock;
    clock.start();
    while (!done() && clock.elapsed() < ms)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    return done();
}

// One player's hour: statuses on every item and at least every interval, one record per item,
// through the player's own link and a relay that counts.
void bytesPerHour(const Broker &broker, int itemSeconds)
{
    CountingRelay relay(broker.port());
    FleetLink::Options options;
    options.host = QStringLiteral("127.0.0.1");
    options.port = relay.port();
    options.clientId = QStringLiteral("vorsane-lobby-1");
    options.willTopic = Fleet::topic(QStringLiteral("lobby-1"), "status");
    options.willPayload = Fleet::offlinePayload();
    options.subscription = Fleet::topic(QStringLiteral("lobby-1"), "command");
    FleetLink link(options);
    bool up = false;
    quint64 acknowledged = 0;
    QObject::connect(&link, &FleetLink::connected, [&up] { up = true; });
    QObject::connect(&link, &FleetLink::published, [&acknowledged](quint64) { ++acknowledged; });
    link.start();
    if (!waitFor([&up] { return up; }, 10000)) {
        out << "bytes per hour: no connection\n";
        return;
    }
    // What every connection costs: CONNECT, SUBSCRIBE, the four discovery entries, one status.
    const QString player = QStringLiteral("lobby-1");
    const QDateTime since = QDateTime::currentDateTime();
    for (const auto &config : Fleet::discovery(player))
        link.publish(config.first, config.second, 1, true, 1);
    link.publish(Fleet::topic(player, "status"),
                 Fleet::statusPayload(Fleet::State::Starting, QString(), QString(), -1, since, 0),
                 0, true);
    waitFor([&acknowledged] { return acknowledged >= 4; }, 10000);
    out.flush();
    const qint64 connectionSent = relay.sent;
    const qint64 connectionReceived = relay.received;

    const int items = 3600 / itemSeconds;
    // A status on every item; between items further apart than the interval, one per interval.
    const int extraStatuses = itemSeconds > StatusIntervalSeconds
                                  ? items * ((itemSeconds - 1) / StatusIntervalSeconds)
                                  : 0;
    acknowledged = 0;
    QDateTime clock = since;
    for (int item = 0; item < items; ++item) {
        const QDateTime end = clock.addSecs(itemSeconds);
        link.publish(Fleet::topic(player, "status"),
                     Fleet::statusPayload(Fleet::State::Playing, sampleUrl(item),
                                          QStringLiteral("image"), 0, clock,
                                          item * itemSeconds),
                     0, true);
        QJsonObject record = Fleet::playedRecord(sampleUrl(item), QStringLiteral("image"),
                                                 clock, end);
        record.insert(QStringLiteral("seq"), 100000 + item);
        link.publish(Fleet::topic(player, "played"),
                     QJsonDocument(record).toJson(QJsonDocument::Compact), 1, false, 1);
        clock = end;
        // As the player does: a few records in flight at a time.
        waitFor([&acknowledged, item] { return acknowledged + Fleet::SendWindow > quint64(item); },
                10000);
    }
    for (int i = 0; i < extraStatuses; ++i) {
        link.publish(Fleet::topic(player, "status"),
                     Fleet::statusPayload(Fleet::State::Playing, sampleUrl(i),
                                          QStringLiteral("image"), 0, since, i),
                     0, true);
    }
    waitFor([&acknowledged, items] { return acknowledged >= quint64(items); }, 30000);
    // Let the last statuses through the relay too.
    waitFor([] { return false; }, 300);
    const qint64 hourSent = relay.sent - connectionSent;
    const qint64 hourReceived = relay.received - connectionReceived;
    // Every item sends two segments of its own (status, record) and acknowledges the broker's
    // PUBACK: about three IPv4 + TCP headers (52 bytes with timestamps) per item.
    const qint64 headers = qint64(items) * 3 * 52;
    out << QStringLiteral("one player, items of %1 s (%2 items, %3 statuses an hour):\n")
               .arg(itemSeconds)
               .arg(items)
               .arg(items + extraStatuses);
    out << QStringLiteral("  sent per hour: %1 bytes of MQTT (%2 KiB), about %3 KiB with "
                          "TCP/IP headers; received: %4 bytes\n")
               .arg(hourSent)
               .arg(hourSent / 1024.0, 0, 'f', 1)
               .arg((hourSent + headers) / 1024.0, 0, 'f', 1)
               .arg(hourReceived);
    out << QStringLiteral("  each connection: %1 bytes sent, %2 received\n")
               .arg(connectionSent)
               .arg(connectionReceived);
    out.flush();
}

// Many players in one process on one thread: each a libmosquitto client of its own, driven from
// one epoll loop.
class Crowd
{
public:
    Crowd(quint16 port, int itemSeconds)
        : m_port(port)
        , m_itemMs(itemSeconds * 1000)
        , m_epoll(epoll_create1(EPOLL_CLOEXEC))
    {
    }
    ~Crowd()
    {
        for (Player &player : m_players)
            mosquitto_destroy(player.mosq);
        close(m_epoll);
    }

    // Adds players until there are count; false when one cannot connect.
    bool growTo(int count)
    {
        std::uniform_int_distribution<int> phase(0, m_itemMs - 1);
        m_players.reserve(size_t(count));
        while (int(m_players.size()) < count) {
            const int index = int(m_players.size());
            const QString name = QStringLiteral("sim-%1").arg(index);
            Player player;
            player.crowd = this;
            player.name = name;
            player.mosq = mosquitto_new(("vorsane-" + name).toUtf8().constData(), true, nullptr);
            mosquitto_int_option(player.mosq, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
            const QByteArray will = Fleet::offlinePayload();
            mosquitto_will_set(player.mosq, Fleet::topic(name, "status").constData(),
                               will.size(), will.constData(), 1, true);
            mosquitto_connect_callback_set(player.mosq, &Crowd::onConnect);
            mosquitto_publish_callback_set(player.mosq, &Crowd::onPublish);
            const int rc = mosquitto_connect(player.mosq, "127.0.0.1", m_port, 60);
            if (rc != MOSQ_ERR_SUCCESS) {
                out << "  connection " << index << ": "
                    << (rc == MOSQ_ERR_ERRNO ? strerror(errno) : mosquitto_strerror(rc)) << '\n';
                mosquitto_destroy(player.mosq);
                return false;
            }
            player.statusTopic = Fleet::topic(name, "status");
            player.playedTopic = Fleet::topic(name, "played");
            const qint64 start = m_clock.isValid() ? m_clock.elapsed() : 0;
            player.phaseMs = start + phase(m_random);
            m_due.push({player.phaseMs, index});
            m_players.push_back(player);
        }
        // Pointers are stable from here on: the vector is not resized while they are in use.
        for (size_t i = 0; i < m_players.size(); ++i) {
            mosquitto_user_data_set(m_players[i].mosq, &m_players[i]);
            epoll_event event{};
            event.events = EPOLLIN;
            event.data.u64 = i;
            epoll_ctl(m_epoll, EPOLL_CTL_ADD, mosquitto_socket(m_players[i].mosq), &event);
        }
        if (!m_clock.isValid())
            m_clock.start();
        return run(60000, [this] { return m_connected == int(m_players.size()); });
    }

    struct Step
    {
        int connected;
        qint64 messages;
        double p50Ms;
        double p99Ms;
    };

    Step measure(int seconds)
    {
        m_latencies.clear();
        m_messages = 0;
        run(seconds * 1000, [] { return false; });
        std::sort(m_latencies.begin(), m_latencies.end());
        const auto at = [this](double q) {
            return m_latencies.empty() ? 0.0 : m_latencies[size_t(q * (m_latencies.size() - 1))];
        };
        return {m_connected, m_messages, at(0.5), at(0.99)};
    }

private:
    struct Player
    {
        Crowd *crowd = nullptr;
        QString name;
        mosquitto *mosq = nullptr;
        QByteArray statusTopic;
        QByteArray playedTopic;
        qint64 phaseMs = 0;
        int item = 0;
        qint64 seq = 0;
        std::map<int, qint64> sentAt;
        bool connected = false;
    };

    static void onConnect(mosquitto *mosq, void *data, int rc)
    {
        auto *player = static_cast<Player *>(data);
        if (rc != 0 || !player)
            return;
        player->connected = true;
        ++player->crowd->m_connected;
        mosquitto_subscribe(mosq, nullptr, Fleet::topic(player->name, "command").constData(), 1);
        for (const auto &config : Fleet::discovery(player->name))
            mosquitto_publish(mosq, nullptr, config.first.constData(), config.second.size(),
                              config.second.constData(), 1, true);
    }

    static void onPublish(mosquitto *, void *data, int mid)
    {
        auto *player = static_cast<Player *>(data);
        const auto found = player->sentAt.find(mid);
        if (found == player->sentAt.end())
            return;
        player->crowd->m_latencies.push_back(
            double(player->crowd->m_clock.nsecsElapsed() - found->second) / 1e6);
        player->sentAt.erase(found);
    }

    void showItem(Player &player, qint64 nowMs)
    {
        const QDateTime now = QDateTime::currentDateTime();
        const QByteArray status = Fleet::statusPayload(
            Fleet::State::Playing, sampleUrl(player.item), QStringLiteral("image"), 0, now,
            nowMs / 1000);
        mosquitto_publish(player.mosq, nullptr, player.statusTopic.constData(), status.size(),
                          status.constData(), 0, true);
        QJsonObject record = Fleet::playedRecord(sampleUrl(player.item), QStringLiteral("image"),
                                                 now.addMSecs(-m_itemMs), now);
        record.insert(QStringLiteral("seq"), ++player.seq);
        const QByteArray payload = QJsonDocument(record).toJson(QJsonDocument::Compact);
        int mid = 0;
        mosquitto_publish(player.mosq, &mid, player.playedTopic.constData(), payload.size(),
                          payload.constData(), 1, false);
        player.sentAt[mid] = m_clock.nsecsElapsed();
        m_messages += 2;
        ++player.item;
    }

    // A status between items further apart than the status interval.
    void showStatus(Player &player, qint64 nowMs)
    {
        const QByteArray status = Fleet::statusPayload(
            Fleet::State::Playing, sampleUrl(player.item), QStringLiteral("image"), 0,
            QDateTime::currentDateTime(), nowMs / 1000);
        mosquitto_publish(player.mosq, nullptr, player.statusTopic.constData(), status.size(),
                          status.constData(), 0, true);
        ++m_messages;
    }

    bool run(int ms, const std::function<bool()> &done)
    {
        QElapsedTimer clock;
        clock.start();
        std::vector<epoll_event> events(1024);
        qint64 lastMisc = -1000;
        while (clock.elapsed() < ms && !done()) {
            const int ready = epoll_wait(m_epoll, events.data(), int(events.size()), 20);
            for (int i = 0; i < ready; ++i)
                mosquitto_loop_read(m_players[events[size_t(i)].data.u64].mosq, 4);
            const qint64 now = m_clock.elapsed();
            while (!m_due.empty() && m_due.top().first <= now) {
                const int index = m_due.top().second;
                const qint64 due = m_due.top().first;
                m_due.pop();
                Player &player = m_players[size_t(index)];
                if (!player.connected) {
                    m_due.push({due + m_itemMs, index});
                    continue;
                }
                // Item starts fall on multiples of the item time from the player's phase;
                // statuses in between, one per interval.
                const qint64 sinceItem = (due - player.phaseMs) % m_itemMs;
                if (sinceItem == 0)
                    showItem(player, now);
                else
                    showStatus(player, now);
                const qint64 nextItem = due - sinceItem + m_itemMs;
                const qint64 nextStatus = due + StatusIntervalSeconds * 1000;
                m_due.push({qMin(nextItem, nextStatus), index});
                if (mosquitto_want_write(player.mosq))
                    mosquitto_loop_write(player.mosq, 4);
            }
            if (now - lastMisc >= 1000) {
                lastMisc = now;
                for (Player &player : m_players) {
                    mosquitto_loop_misc(player.mosq);
                    if (mosquitto_want_write(player.mosq))
                        mosquitto_loop_write(player.mosq, 4);
                }
            }
        }
        return done();
    }

    quint16 m_port;
    int m_itemMs;
    int m_epoll;
    std::vector<Player> m_players;
    int m_connected = 0;
    qint64 m_messages = 0;
    std::vector<double> m_latencies;
    // When each player publishes next, soonest first.
    std::priority_queue<std::pair<qint64, int>, std::vector<std::pair<qint64, int>>,
                        std::greater<>>
        m_due;
    QElapsedTimer m_clock;
    std::minstd_rand m_random{42};
};

// One share of the players, in a process of its own (a process holds only so many descriptors):
// connects them, says "ready", waits for "go", then reports "connected messages p50 p99".
int worker(quint16 port, int players, int itemSeconds, int stepSeconds)
{
    Crowd crowd(port, itemSeconds);
    if (!crowd.growTo(players)) {
        out << "failed\n";
        out.flush();
        return 1;
    }
    out << "ready\n";
    out.flush();
    QTextStream in(stdin);
    in.readLine();
    // Past the start-up burst of connections and discovery messages.
    crowd.measure(5);
    const Crowd::Step step = crowd.measure(stepSeconds);
    out << step.connected << ' ' << step.messages << ' ' << step.p50Ms << ' ' << step.p99Ms
        << '\n';
    out.flush();
    in.readLine();
    return 0;
}

void capacity(const Broker &broker, const QList<int> &steps, int stepSeconds, int itemSeconds)
{
    // Three descriptors per simulated player: a few thousand per process.
    constexpr int PlayersPerWorker = 5000;
    out << QStringLiteral("simulated players, items of %1 s, status at least every %2 s, "
                          "%3 s per step:\n")
               .arg(itemSeconds)
               .arg(StatusIntervalSeconds)
               .arg(stepSeconds);
    out << "  players  connected  msgs/s  broker CPU  broker RSS  PUBACK p50  PUBACK p99\n";
    out.flush();
    int carried = 0;
    for (const int count : steps) {
        std::vector<std::unique_ptr<QProcess>> workers;
        bool ready = true;
        for (int given = 0; given < count; given += PlayersPerWorker) {
            auto process = std::make_unique<QProcess>();
            process->setProcessChannelMode(QProcess::ForwardedErrorChannel);
            process->start(QCoreApplication::applicationFilePath(),
                           {QStringLiteral("--worker"),
                            QString::number(qMin(PlayersPerWorker, count - given)),
                            QStringLiteral("--port"), QString::number(broker.port()),
                            QStringLiteral("--item-seconds"), QString::number(itemSeconds),
                            QStringLiteral("--step-seconds"), QString::number(stepSeconds)});
            workers.push_back(std::move(process));
        }
        for (auto &process : workers) {
            ready = ready && process->waitForReadyRead(120000)
                    && process->readLine().trimmed() == "ready";
        }
        if (!ready) {
            out << QStringLiteral("  %1: could not connect them all\n").arg(count);
            break;
        }
        for (auto &process : workers)
            process->write("go\n");
        QThread::sleep(5);
        const double cpuBefore = broker.cpuSeconds();
        QElapsedTimer wall;
        wall.start();
        int connected = 0;
        qint64 messages = 0;
        double p50 = 0;
        double p99 = 0;
        for (auto &process : workers) {
            process->waitForReadyRead((stepSeconds + 60) * 1000);
            const QList<QByteArray> fields = process->readLine().trimmed().split(' ');
            connected += fields.value(0).toInt();
            messages += fields.value(1).toLongLong();
            p50 = qMax(p50, fields.value(2).toDouble());
            p99 = qMax(p99, fields.value(3).toDouble());
        }
        const double cpuShare = (broker.cpuSeconds() - cpuBefore) / (wall.elapsed() / 1000.0);
        const qint64 residentKiB = broker.residentKiB();
        for (auto &process : workers) {
            process->write("done\n");
            process->waitForFinished(60000);
        }
        out << QStringLiteral("  %1  %2  %3  %4 %  %5 MiB  %6 ms  %7 ms\n")
                   .arg(count, 7)
                   .arg(connected, 9)
                   .arg(messages / double(stepSeconds), 6, 'f', 0)
                   .arg(cpuShare * 100, 9, 'f', 1)
                   .arg(residentKiB / 1024.0, 8, 'f', 1)
                   .arg(p50, 8, 'f', 1)
                   .arg(p99, 8, 'f', 1);
        out.flush();
        // Carried: every player connected, records acknowledged within a second, and the
        // broker's one thread not saturated.
        if (connected < count || p99 > 1000 || cpuShare > 0.9)
            break;
        carried = count;
    }
    out << QStringLiteral("  carried at least %1 players (the highest step that passed)\n")
               .arg(carried);
    out.flush();
}
} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.addHelpOption();
    parser.addOption({QStringLiteral("players"), QStringLiteral("Player counts, one per step."),
                      QStringLiteral("list"), QStringLiteral("1000,2000,4000,8000,16000,24000")});
    parser.addOption({QStringLiteral("step-seconds"), QStringLiteral("Seconds per step."),
                      QStringLiteral("n"), QStringLiteral("20")});
    parser.addOption({QStringLiteral("worker"), QStringLiteral("Internal: simulate n players."),
                      QStringLiteral("n")});
    parser.addOption({QStringLiteral("port"), QStringLiteral("Internal: the broker's port."),
                      QStringLiteral("port")});
    parser.addOption({QStringLiteral("item-seconds"), QStringLiteral("Seconds per item."),
                      QStringLiteral("n"), QString::number(DefaultItemSeconds)});
    parser.process(app);

    // Each simulated player holds three descriptors (its socket and the library's wake-up pair),
    // and the broker one per player.
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
    mosquitto_lib_init();
    const int itemSeconds = qMax(1, parser.value(QStringLiteral("item-seconds")).toInt());
    const int stepSeconds = qBound(1, parser.value(QStringLiteral("step-seconds")).toInt(), 120);
    if (parser.isSet(QStringLiteral("worker"))) {
        return worker(quint16(parser.value(QStringLiteral("port")).toUInt()),
                      qBound(1, parser.value(QStringLiteral("worker")).toInt(), 10000),
                      itemSeconds, stepSeconds);
    }

    Broker broker;
    if (!broker.start()) {
        out << "mosquitto did not start\n";
        return 1;
    }
    bytesPerHour(broker, itemSeconds);
    QList<int> steps;
    for (const QString &count : parser.value(QStringLiteral("players")).split(','))
        // The loopback's ephemeral ports to one broker address run out near 28,000.
        steps << qBound(1, count.toInt(), 25000);
    capacity(broker, steps, stepSeconds, itemSeconds);
    return 0;
}
