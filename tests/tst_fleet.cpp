#include "dispatcher.h"
#include "fleet.h"
#include "mqtt.h"
#include "playedqueue.h"
#include "show.h"
#include "statepaths.h"
#include "viewer.h"

#include <QElapsedTimer>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

using namespace testsupport;

Q_DECLARE_METATYPE(PlaylistItemPtr)

namespace {
const char playerId[] = "lobby-1";
const char ignored[] = "Fleet command ignored: not a command object.";
const QByteArray statusTopic = "vorsane/lobby-1/status";
const QByteArray playedTopic = "vorsane/lobby-1/played";
const QByteArray commandTopic = "vorsane/lobby-1/command";
const QByteArray screenshotTopic = "vorsane/lobby-1/screenshot";
const char password[] = "s3cret-Pa55";
const char wrongPassword[] = "guessed-Pa55";

QJsonObject json(const QByteArray &payload)
{
    return QJsonDocument::fromJson(payload).object();
}

QColor centre(const QImage &image)
{
    return image.pixelColor(image.width() / 2, image.height() / 2);
}
} // namespace

// The player in a fleet, against a real Mosquitto broker on the loopback: what it reports, what
// it obeys, and that the show never waits for the broker.
class TestFleet : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void statusRetained_data();
    void statusRetained();
    void commands_data();
    void commands();
    void discovery_data();
    void discovery();
    void outage_data();
    void outage();
    void credentials_data();
    void credentials();
    void tls_data();
    void tls();
    void showGoesOn_data();
    void showGoesOn();
    void queue_data();
    void queue();

private:
    QString pictureUrl(const QString &colour);
    // Three pictures, red, green and blue, each shown for that long.
    QByteArray colours(int seconds);
    bool launch(const QByteArray &playlist, const QString &broker, QStringList prefs = {});
    bool waitConnected(int times = 1);
    QColor onScreen() const;
    QJsonObject lastStatus(const MqttWatcher &watcher) const;
    bool publishCommand(const QByteArray &payload);

    std::unique_ptr<Show> m_show;
    std::unique_ptr<MosquittoBroker> m_broker;
};

void TestFleet::initTestCase()
{
    QCoreApplication::setOrganizationName(QStringLiteral("VorsaneTest"));
    QCoreApplication::setApplicationName(QStringLiteral("fleet"));
    qRegisterMetaType<PlaylistItemPtr>("PlaylistItemPtr");
}

void TestFleet::init()
{
    m_show = std::make_unique<Show>();
    m_show->fakes.add(QStringLiteral("sh"));
    // A display that has power management: the screen is switched through it.
    m_show->fakes.add(QStringLiteral("xset"), "  DPMS is Enabled\n  Monitor is On\n");
    m_broker = std::make_unique<MosquittoBroker>();
}

void TestFleet::cleanup()
{
    m_show.reset();
    m_broker.reset();
}

QString TestFleet::pictureUrl(const QString &colour)
{
    const QString path = m_show->home.filePath(QStringLiteral("pics/") + colour + ".png");
    makeImage(path, QSize(64, 48), QColor(colour), "PNG");
    return QStringLiteral("file://") + path;
}

QByteArray TestFleet::colours(int seconds)
{
    return schedule(xmlLoop("id=\"0\"", xmlItem(pictureUrl("red"), "image", seconds)
                                            + xmlItem(pictureUrl("green"), "image", seconds)
                                            + xmlItem(pictureUrl("blue"), "image", seconds)));
}

bool TestFleet::launch(const QByteArray &playlist, const QString &broker, QStringList prefs)
{
    prefs << "fleet/broker=" + broker << QStringLiteral("fleet/player_id=%1").arg(playerId)
          << "slideshow/tv_control=dpms";
    return m_show->launch(playlist, prefs) && m_show->fleet;
}

bool TestFleet::waitConnected(int times)
{
    return QTest::qWaitFor(
        [this, times] { return m_show->log.count("Fleet broker connected") >= times; }, 30000);
}

QColor TestFleet::onScreen() const
{
    return centre(m_show->viewer->grab().toImage());
}

QJsonObject TestFleet::lastStatus(const MqttWatcher &watcher) const
{
    const QList<MqttWatcher::Message> statuses = watcher.messages(statusTopic);
    return statuses.isEmpty() ? QJsonObject() : json(statuses.last().payload);
}

bool TestFleet::publishCommand(const QByteArray &payload)
{
    // The broker's own command-line client, as an operator's script would send it.
    QProcess client;
    client.start(QStringLiteral("mosquitto_pub"),
                 {QStringLiteral("-h"), QStringLiteral("127.0.0.1"), QStringLiteral("-p"),
                  QString::number(m_broker->port()), QStringLiteral("-q"), QStringLiteral("1"),
                  QStringLiteral("-t"), QString::fromLatin1(commandTopic),
                  payload.isEmpty() ? QStringLiteral("-n") : QStringLiteral("-s")});
    client.write(payload);
    client.closeWriteChannel();
    return client.waitForFinished(10000) && client.exitCode() == 0;
}

void TestFleet::statusRetained_data()
{
    QTest::addColumn<QString>("playlist");
    QTest::addColumn<QString>("state");
    QTest::addColumn<QString>("type");
    QTest::addColumn<QString>("item");
    QTest::addColumn<int>("loop");

    QTest::newRow("picture") << "colours"
                             << "playing"
                             << "image"
                             << "red" << 0;
    QTest::newRow("screen-off period") << "screen off"
                                       << "screen-off"
                                       << "idle"
                                       << "Screen OFF" << 0;
    QTest::newRow("nothing to show") << "missing file"
                                     << "playing"
                                     << "image"
                                     << "nothing_to_display" << -1;
}

void TestFleet::statusRetained()
{
    QFETCH(QString, playlist);
    QFETCH(QString, state);
    QFETCH(QString, type);
    QFETCH(QString, item);
    QFETCH(int, loop);

    QVERIFY(m_broker->start());
    QByteArray content = colours(300);
    if (playlist == "screen off") {
        content = "#Vorsane playlist\nScreen OFF From: " + clockIn(-3600).toUtf8()
                  + " To: " + clockIn(3600).toUtf8() + " 0\n";
    } else if (playlist == "missing file") {
        content = schedule(xmlLoop("id=\"0\"", xmlItem("file:///nowhere/gone.png", "image", 300)));
    }
    MqttWatcher early;
    QVERIFY(early.connectTo(m_broker->port()));
    QVERIFY(early.subscribe(statusTopic));
    QVERIFY(launch(content, m_broker->address()));
    QVERIFY(waitConnected());
    QTRY_COMPARE_WITH_TIMEOUT(lastStatus(early).value("state").toString(), state, 10000);

    // Subscribed after the player reported: only a retained status reaches this client.
    MqttWatcher watcher;
    QVERIFY(watcher.connectTo(m_broker->port()));
    QVERIFY(watcher.subscribe(statusTopic));
    QTRY_VERIFY_WITH_TIMEOUT(!watcher.messages(statusTopic).isEmpty(), 10000);
    const MqttWatcher::Message first = watcher.messages(statusTopic).first();
    QVERIFY(first.retained);
    const QJsonObject status = json(first.payload);
    QCOMPARE(status.value("state").toString(), state);
    QCOMPARE(status.value("type").toString(), type);
    QVERIFY2(status.value("item").toString().contains(item), first.payload.constData());
    QCOMPARE(status.value("loop").isNull() ? -1 : status.value("loop").toInt(), loop);
    QVERIFY(QRegularExpression(R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d([+-]\d\d:\d\d|Z)$)")
                .match(status.value("since").toString())
                .hasMatch());
    QCOMPARE(status.value("version").toString(), QStringLiteral("1.0"));
    QVERIFY(status.value("uptime_s").toDouble(-1) >= 0);
}

void TestFleet::commands_data()
{
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<QString>("item");
    QTest::addColumn<QString>("state");
    QTest::addColumn<bool>("ignoredLogged");

    // The loop is red, the demo picture the player puts after a first item, green, blue.
    QTest::newRow("next") << QByteArray(R"({"action": 1})") << "demo.jpg"
                          << "playing" << false;
    QTest::newRow("go to the last item")
        << QByteArray(R"({"action": 2, "data": {"index": 3, "loop": 0}})") << "blue.png"
        << "playing" << false;
    QTest::newRow("action as text") << QByteArray(R"({"action": "1"})") << "demo.jpg"
                                    << "playing" << false;
    QTest::newRow("pause") << QByteArray(R"({"action": 0})") << "red.png"
                           << "paused" << false;
    QTest::newRow("screen off") << QByteArray(R"({"action": 10, "data": {"on": false}})")
                                << "red.png"
                                << "screen-off" << false;
    QTest::newRow("screen power without a value")
        << QByteArray(R"({"action": 10, "data": {"on": "off"}})") << "red.png"
        << "playing" << false;
    QTest::newRow("screenshot") << QByteArray(R"({"action": 3})") << "red.png"
                                << "playing" << false;
    QTest::newRow("malformed") << QByteArray(R"({"action": 1)") << "red.png"
                               << "playing" << true;
    QTest::newRow("not an object") << QByteArray("42") << "red.png"
                                   << "playing" << true;
    QTest::newRow("endless script")
        << QByteArray(R"({"action": (function () { for (;;) {} })()})") << "red.png"
        << "playing" << true;
    QTest::newRow("empty") << QByteArray() << "red.png"
                           << "playing" << true;
}

void TestFleet::commands()
{
    QFETCH(QByteArray, payload);
    QFETCH(QString, item);
    QFETCH(QString, state);
    QFETCH(bool, ignoredLogged);

    QVERIFY(m_broker->start());
    MqttWatcher watcher;
    QVERIFY(watcher.connectTo(m_broker->port()));
    QVERIFY(watcher.subscribe(screenshotTopic));
    QVERIFY(watcher.subscribe(statusTopic));
    QVERIFY(launch(colours(300), m_broker->address()));
    QVERIFY(waitConnected());
    QTRY_COMPARE(onScreen(), QColor("red"));
    QTRY_VERIFY(lastStatus(watcher).value("item").toString().endsWith("red.png"));

    QVERIFY(publishCommand(payload));
    // Carried out at once when it is taken; anything it does is done by the next pass.
    QTRY_VERIFY(m_show->log.contains("Received fleet command:"));
    QCoreApplication::processEvents();
    QCOMPARE(m_show->log.contains(ignored), ignoredLogged);
    QTRY_VERIFY(lastStatus(watcher).value("item").toString().endsWith(item));
    QTRY_COMPARE(lastStatus(watcher).value("state").toString(), state);
    // What the status names is what the screen shows.
    const QString colour = item.section('.', 0, 0);
    if (QColor::isValidColor(colour))
        QCOMPARE(onScreen(), QColor(colour));
    else
        QVERIFY(onScreen() != QColor("red"));
    QCOMPARE(m_show->fakes.callLines("xset").filter("dpms force off").isEmpty(),
             state != "screen-off");
    if (QTest::currentDataTag() == QLatin1String("screenshot")) {
        QTRY_VERIFY(!watcher.messages(screenshotTopic).isEmpty());
        const QImage picture
            = QImage::fromData(watcher.messages(screenshotTopic).first().payload, "PNG");
        QVERIFY(!picture.isNull());
        QCOMPARE(centre(picture), QColor("red"));
    } else {
        QVERIFY(watcher.messages(screenshotTopic).isEmpty());
    }
}

void TestFleet::discovery_data()
{
    QTest::addColumn<QByteArray>("component");
    QTest::addColumn<QByteArray>("object");
    QTest::addColumn<QByteArray>("payloadKey");
    QTest::addColumn<QString>("item");
    QTest::addColumn<QString>("state");

    QTest::newRow("sensor of the item")
        << QByteArray("sensor") << QByteArray("item") << QByteArray() << "red.png"
        << "playing";
    QTest::newRow("screen switch, off")
        << QByteArray("switch") << QByteArray("screen") << QByteArray("payload_off") << "red.png"
        << "screen-off";
    QTest::newRow("next button") << QByteArray("button") << QByteArray("next")
                                 << QByteArray("payload_press") << "demo.jpg"
                                 << "playing";
    QTest::newRow("pause button") << QByteArray("button") << QByteArray("pause")
                                  << QByteArray("payload_press") << "red.png"
                                  << "paused";
}

void TestFleet::discovery()
{
    QFETCH(QByteArray, component);
    QFETCH(QByteArray, object);
    QFETCH(QByteArray, payloadKey);
    QFETCH(QString, item);
    QFETCH(QString, state);

    QVERIFY(m_broker->start());
    QVERIFY(launch(colours(300), m_broker->address()));
    QVERIFY(waitConnected());
    QTRY_COMPARE(onScreen(), QColor("red"));

    MqttWatcher watcher;
    QVERIFY(watcher.connectTo(m_broker->port()));
    QVERIFY(watcher.subscribe("homeassistant/#"));
    QVERIFY(watcher.subscribe(statusTopic));
    const QByteArray configTopic
        = "homeassistant/" + component + "/vorsane_lobby-1/" + object + "/config";
    QTRY_VERIFY(!watcher.messages(configTopic).isEmpty());
    const auto configs = [&watcher] {
        int found = 0;
        for (const MqttWatcher::Message &message : watcher.messages())
            found += message.topic.startsWith("homeassistant/") ? 1 : 0;
        return found;
    };
    QTRY_COMPARE(configs(), 4);
    const MqttWatcher::Message config = watcher.messages(configTopic).first();
    QVERIFY(config.retained);
    const QJsonObject entity = json(config.payload);
    QVERIFY(!entity.value("unique_id").toString().isEmpty());
    QCOMPARE(entity.value("device").toObject().value("identifiers").toArray().first().toString(),
             QStringLiteral("vorsane_lobby-1"));

    if (payloadKey.isEmpty()) {
        // What Home Assistant shows: the status's item.
        QCOMPARE(entity.value("state_topic").toString().toUtf8(), statusTopic);
        QCOMPARE(entity.value("value_template").toString(),
                 QStringLiteral("{{ (value_json.item | default('', true))[:255] }}"));
        return;
    }
    // What Home Assistant sends when the switch or button is used, on the topic it names.
    QCOMPARE(entity.value("command_topic").toString().toUtf8(), commandTopic);
    QVERIFY(publishCommand(entity.value(QLatin1String(payloadKey)).toString().toUtf8()));
    QTRY_VERIFY(lastStatus(watcher).value("item").toString().endsWith(item));
    QTRY_COMPARE(lastStatus(watcher).value("state").toString(), state);
}

void TestFleet::outage_data()
{
    QTest::addColumn<bool>("restartPlayer");

    QTest::newRow("broker killed and restarted") << false;
    QTest::newRow("player restarted while the broker is away") << true;
}

void TestFleet::outage()
{
    QFETCH(bool, restartPlayer);

    m_broker->keepSessions();
    QVERIFY(m_broker->start());
    // A subscriber whose session the broker keeps: it gets every record, whenever it comes.
    auto watcher = std::make_unique<MqttWatcher>("proof-of-play", false);
    QVERIFY(watcher->connectTo(m_broker->port()));
    const QDateTime subscribed = QDateTime::currentDateTime();
    QVERIFY(watcher->subscribe(playedTopic));
    QVERIFY(watcher->subscribe(statusTopic));
    QTRY_VERIFY_WITH_TIMEOUT(m_broker->savedSince(subscribed), 10000);

    const QByteArray playlist = colours(1);
    const QStringList prefs = {"fleet/status_interval=1"};
    QVERIFY(launch(playlist, m_broker->address(), prefs));
    QVERIFY(waitConnected());
    QTRY_VERIFY_WITH_TIMEOUT(watcher->messages(playedTopic).size() >= 2, 20000);

    m_broker->kill();
    QList<MqttWatcher::Message> received = watcher->messages(playedTopic);
    watcher.reset();
    const QDateTime killed = QDateTime::currentDateTime().addSecs(-1);
    QTRY_VERIFY(m_show->log.contains("unreachable"));
    QSignalSpy shown(m_show->dispatcher.get(), &Dispatcher::itemShown);
    // The show goes on without its broker.
    QTRY_VERIFY_WITH_TIMEOUT(shown.count() >= 3, 20000);
    int shownInOutage = shown.count();
    if (restartPlayer) {
        m_show->fleet.reset();
        m_show->dispatcher.reset();
        m_show->viewer.reset();
        QVERIFY(launch(playlist, m_broker->address(), prefs));
        QSignalSpy shownAgain(m_show->dispatcher.get(), &Dispatcher::itemShown);
        QTRY_VERIFY_WITH_TIMEOUT(shownAgain.count() >= 3, 20000);
        shownInOutage += shownAgain.count();
    } else {
        shownInOutage = shown.count();
    }
    const int connections = m_show->log.count("Fleet broker connected");

    QVERIFY(m_broker->start());
    watcher = std::make_unique<MqttWatcher>("proof-of-play", false);
    QVERIFY(watcher->connectTo(m_broker->port()));
    QVERIFY(waitConnected(connections + 1));
    // Status again, from the new connection.
    QTRY_VERIFY_WITH_TIMEOUT(lastStatus(*watcher).value("state").toString() == "playing", 10000);

    // Every record, the outage's included, in order. One sent again because its
    // acknowledgement was lost with the broker may come twice, never in place of a newer one.
    QList<qint64> seqs;
    QStringList pictures;
    int fromOutage = 0;
    const auto collect = [&] {
        seqs.clear();
        pictures.clear();
        fromOutage = 0;
        for (const MqttWatcher::Message &message : received + watcher->messages(playedTopic)) {
            const QJsonObject record = json(message.payload);
            const qint64 seq = qint64(record.value("seq").toDouble());
            if (!seqs.isEmpty() && seq <= seqs.last())
                continue;
            seqs << seq;
            pictures << record.value("url").toString().section('/', -1);
            if (QDateTime::fromString(record.value("start").toString(), Qt::ISODate) >= killed)
                ++fromOutage;
        }
        return fromOutage >= shownInOutage - 1;
    };
    QTRY_VERIFY_WITH_TIMEOUT(collect(), 20000);
    for (int i = 0; i < seqs.size(); ++i)
        QCOMPARE(seqs.at(i), qint64(i + 1));
    // The pictures in the order they were shown; a restarted player begins the loop again.
    const QStringList cycle = {"red.png", "demo.jpg", "green.png", "blue.png"};
    for (int i = 1; i < pictures.size(); ++i) {
        const int previous = cycle.indexOf(pictures.at(i - 1));
        QVERIFY2(pictures.at(i) == cycle.at((previous + 1) % cycle.size())
                     || (restartPlayer && pictures.at(i) == cycle.first()),
                 qPrintable(pictures.join(' ')));
    }
}

void TestFleet::credentials_data()
{
    QTest::addColumn<QString>("user");
    QTest::addColumn<QString>("pass");
    QTest::addColumn<bool>("accepted");

    QTest::newRow("right password") << "player" << password << true;
    QTest::newRow("wrong password") << "player" << wrongPassword << false;
    QTest::newRow("no credentials") << ""
                                    << "" << false;
}

void TestFleet::credentials()
{
    QFETCH(QString, user);
    QFETCH(QString, pass);
    QFETCH(bool, accepted);

    QVERIFY(m_broker->requirePassword("player", password));
    QVERIFY(m_broker->start());
    QVERIFY(launch(colours(300), m_broker->address(),
                   {"fleet/user=" + user, "fleet/password=" + pass}));
    if (accepted) {
        QVERIFY(waitConnected());
        MqttWatcher watcher;
        QVERIFY(watcher.connectTo(m_broker->port(), QString(), "player", password));
        QVERIFY(watcher.subscribe(statusTopic));
        QTRY_VERIFY(!watcher.messages(statusTopic).isEmpty());
    } else {
        QTRY_VERIFY_WITH_TIMEOUT(m_show->log.contains("refused the connection: Connection "
                                                      "Refused: not authorised"),
                                 15000);
        QVERIFY(!m_show->log.contains("Fleet broker connected"));
    }
    // The credentials reach the broker and nothing else: not one log line names them.
    for (const QString &line : m_show->log.lines()) {
        QVERIFY2(!line.contains(password) && !line.contains(wrongPassword), qPrintable(line));
        QVERIFY2(user.isEmpty() || !line.contains("fleet/user\" = QVariant(QString, \"player"),
                 qPrintable(line));
    }
}

void TestFleet::tls_data()
{
    QTest::addColumn<QString>("scheme");
    QTest::addColumn<QString>("caFile");
    QTest::addColumn<bool>("accepted");
    QTest::addColumn<QString>("logged");

    QTest::newRow("test authority") << "mqtts"
                                    << "ca.pem" << true << "";
    QTest::newRow("another authority") << "mqtts"
                                       << "other-ca.pem" << false << "certificate verify failed";
    QTest::newRow("system authorities") << "mqtts"
                                        << "" << false << "certificate verify failed";
    QTest::newRow("plain MQTT to a TLS port") << "mqtt"
                                              << "" << false << "unreachable";
}

void TestFleet::tls()
{
    QFETCH(QString, scheme);
    QFETCH(QString, caFile);
    QFETCH(bool, accepted);
    QFETCH(QString, logged);

    const QString certificates = m_show->home.filePath("certificates");
    QDir().mkpath(certificates);
    QVERIFY(makeCertificates(certificates));
    m_broker->useTls(certificates + "/server.pem", certificates + "/server.key");
    QVERIFY(m_broker->start());
    const QString address = QStringLiteral("%1://localhost:%2").arg(scheme).arg(m_broker->port());
    QStringList prefs;
    if (!caFile.isEmpty())
        prefs << "fleet/ca_file=" + certificates + '/' + caFile;
    QVERIFY(launch(colours(300), address, prefs));
    if (!accepted) {
        QTRY_VERIFY_WITH_TIMEOUT(m_show->log.contains(logged), 15000);
        QVERIFY(!m_show->log.contains("Fleet broker connected"));
        return;
    }
    QVERIFY(waitConnected());
    MqttWatcher watcher;
    QVERIFY(watcher.connectTo(m_broker->port(), certificates + "/ca.pem"));
    QVERIFY(watcher.subscribe(statusTopic));
    QTRY_VERIFY(lastStatus(watcher).value("item").toString().endsWith("red.png"));
}

void TestFleet::showGoesOn_data()
{
    QTest::addColumn<QString>("broker");

    QTest::newRow("nothing listening") << "closed";
    QTest::newRow("listens and never answers") << "silent";
    QTest::newRow("answers garbage") << "garbage";
    QTest::newRow("refuses the credentials") << "refusing";
}

void TestFleet::showGoesOn()
{
    QFETCH(QString, broker);

    QTcpServer server;
    QList<QTcpSocket *> held;
    quint16 port = closedPort();
    QStringList prefs;
    if (broker == "silent" || broker == "garbage") {
        QVERIFY(server.listen(QHostAddress::LocalHost));
        port = server.serverPort();
        connect(&server, &QTcpServer::newConnection, this, [&] {
            while (QTcpSocket *socket = server.nextPendingConnection()) {
                held << socket;
                if (broker == "garbage")
                    socket->write(QByteArray(4096, '\xa5') + "\x20\x02\x00\x05garbage");
            }
        });
    } else if (broker == "refusing") {
        QVERIFY(m_broker->requirePassword("player", password));
        QVERIFY(m_broker->start());
        port = m_broker->port();
        prefs << "fleet/user=player" << QStringLiteral("fleet/password=%1").arg(wrongPassword);
    }
    QVERIFY(launch(colours(1), QStringLiteral("mqtt://127.0.0.1:%1").arg(port), prefs));

    // The show's own thread answers at once all along, and the items keep their time.
    QSignalSpy shown(m_show->dispatcher.get(), &Dispatcher::itemShown);
    QElapsedTimer clock;
    clock.start();
    qint64 longestGap = 0;
    qint64 last = 0;
    QTimer ticks;
    connect(&ticks, &QTimer::timeout, this, [&] {
        longestGap = qMax(longestGap, clock.elapsed() - last);
        last = clock.elapsed();
    });
    ticks.start(10);
    QTRY_VERIFY_WITH_TIMEOUT(shown.count() >= 5, 15000);
    QVERIFY2(longestGap < 500, qPrintable(QString::number(longestGap)));
    QVERIFY(clock.elapsed() < 9000);
    QVERIFY(!m_show->log.contains("Fleet broker connected"));
    qDeleteAll(held);
}

void TestFleet::queue_data()
{
    QTest::addColumn<int>("capacity");
    QTest::addColumn<QString>("steps");
    QTest::addColumn<QList<qint64>>("waiting");
    QTest::addColumn<qint64>("nextSeq");
    QTest::addColumn<QString>("logged");

    using L = QList<qint64>;
    QTest::newRow("kept across a restart, in order")
        << 100 << "append 3; reopen" << L{1, 2, 3} << qint64(4) << "";
    QTest::newRow("taken records are not sent again")
        << 100 << "append 3; ack 2; checkpoint; reopen" << L{3} << qint64(4) << "";
    QTest::newRow("taken but not noted before a crash: sent again")
        << 100 << "append 3; ack 2; reopen" << L{1, 2, 3} << qint64(4) << "";
    QTest::newRow("numbering goes on when all were taken")
        << 100 << "append 2; ack 2; checkpoint; reopen" << L{} << qint64(3) << "";
    QTest::newRow("a line cut short by a crash")
        << 100 << "append 2; cut; reopen" << L{1, 2} << qint64(3) << "unreadable";
    QTest::newRow("a line of garbage")
        << 100 << "append 1; garbage; append 1; reopen" << L{1, 2} << qint64(3) << "unreadable";
    QTest::newRow("past the capacity the oldest goes")
        << 3 << "append 5; reopen" << L{3, 4, 5} << qint64(6) << "oldest record 2 dropped";
    QTest::newRow("many taken: the journal is rewritten")
        << 100000 << "append 5000; ack 4990; checkpoint; reopen"
        << L{4991, 4992, 4993, 4994, 4995, 4996, 4997, 4998, 4999, 5000} << qint64(5001) << "";
}

void TestFleet::queue()
{
    QFETCH(int, capacity);
    QFETCH(QString, steps);
    QFETCH(QList<qint64>, waiting);
    QFETCH(qint64, nextSeq);
    QFETCH(QString, logged);

    const QString path = m_show->home.filePath("played-queue");
    auto queue = std::make_unique<PlayedQueue>(path, capacity);
    QVERIFY(queue->open());
    const QJsonObject record{{"url", "file:///pics/red.png"}, {"type", "image"}};
    for (const QString &step : steps.split(';')) {
        const QStringList words = step.trimmed().split(' ');
        if (words.first() == "append") {
            for (int i = 0; i < words.at(1).toInt(); ++i)
                queue->append(record);
        } else if (words.first() == "ack") {
            queue->acknowledge(words.at(1).toLongLong());
        } else if (words.first() == "checkpoint") {
            queue->checkpoint();
        } else if (words.first() == "reopen") {
            // As after a crash: the old one notes nothing more.
            queue = std::make_unique<PlayedQueue>(path, capacity);
            QVERIFY(queue->open());
        } else if (words.first() == "cut" || words.first() == "garbage") {
            QFile file(path);
            QVERIFY(file.open(QIODevice::Append));
            file.write(words.first() == "cut" ? QByteArray(R"({"url":"file:///pics/gr)")
                                              : QByteArray("\x01\x02 not json\n"));
        }
    }
    QList<qint64> found;
    for (int i = 0; i < queue->size(); ++i) {
        found << queue->seqAt(i);
        const QJsonObject stored = json(queue->payloadAt(i));
        QCOMPARE(stored.value("url").toString(), record.value("url").toString());
        QCOMPARE(qint64(stored.value("seq").toDouble()), queue->seqAt(i));
    }
    QCOMPARE(found, waiting);
    QCOMPARE(queue->append(record), nextSeq);
    if (!logged.isEmpty())
        QVERIFY(m_show->log.contains(logged));
    if (steps.contains("5000"))
        QVERIFY(QFileInfo(path).size() < 100 * 1024);
}

QTEST_MAIN(TestFleet)
#include "tst_fleet.moc"
