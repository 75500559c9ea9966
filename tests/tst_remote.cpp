#include "remote.h"
#include "testsupport.h"

#include <QSignalSpy>
#include <QUdpSocket>
#include <QtTest>

using namespace testsupport;

class TestRemote : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void commands_data();
    void commands();
    void endlessScriptDoesNotFreeze();
    void removeDroppedFile_data();
    void removeDroppedFile();
    void secondInstanceCannotBind();

private:
    // Sends the datagram, then a sentinel, and returns what the remote emitted before it.
    QStringList sendAndCollect(const QByteArray &datagram, int timeoutMs = 5000);

    std::unique_ptr<Remote> m_remote;
    QStringList m_emitted;
};

void TestRemote::initTestCase()
{
    m_remote = std::make_unique<Remote>();
    QCOMPARE(m_remote->state(), QAbstractSocket::BoundState);
    Remote *r = m_remote.get();
    auto record = [this](const QString &what) {
        m_emitted << what;
    };
    connect(r, &Remote::pause, this, [record] { record("pause"); });
    connect(r, &Remote::next, this, [record] { record("next"); });
    connect(r, QOverload<int, int>::of(&Remote::goTo), this,
            [record](int index, int loop) { record(QString("goTo(%1,%2)").arg(index).arg(loop)); });
    connect(r, QOverload<QString>::of(&Remote::goTo), this,
            [record](const QString &path) { record("goTo(" + path + ")"); });
    connect(r, &Remote::screenshot, this, [record] { record("screenshot"); });
    connect(r, &Remote::restart, this, [record] { record("restart"); });
    connect(r, &Remote::text, this, [record](const QString &text, int duration) {
        record(QString("text(%1,%2)").arg(text.left(40)).arg(duration));
    });
    connect(r, &Remote::readUrl, this, [record](const QString &url, int duration) {
        record(QString("readUrl(%1,%2)").arg(url).arg(duration));
    });
    connect(r, &Remote::loop, this, [record] { record("loop"); });
}

void TestRemote::cleanupTestCase()
{
    m_remote.reset();
}

QStringList TestRemote::sendAndCollect(const QByteArray &datagram, int timeoutMs)
{
    m_emitted.clear();
    QUdpSocket sender;
    sender.writeDatagram(datagram, QHostAddress::LocalHost, Remote::Port);
    sender.writeDatagram("{\"action\": 6}", QHostAddress::LocalHost, Remote::Port);
    if (!QTest::qWaitFor([this] { return m_emitted.contains("loop"); }, timeoutMs))
        return {"no sentinel received"};
    QStringList before = m_emitted;
    before.removeLast();
    return before;
}

void TestRemote::commands_data()
{
    QTest::addColumn<QByteArray>("datagram");
    QTest::addColumn<QStringList>("emitted");

    QTest::newRow("pause") << QByteArray(R"({"action": 0})") << QStringList{"pause"};
    QTest::newRow("next") << QByteArray(R"({"action": 1})") << QStringList{"next"};
    QTest::newRow("next as a numeric string")
        << QByteArray(R"({"action": "1"})") << QStringList{"next"};
    QTest::newRow("go to item and loop")
        << QByteArray(R"({"action": 2, "data": {"index": 3, "loop": 1}})")
        << QStringList{"goTo(3,1)"};
    QTest::newRow("go to, fractions cut toward zero")
        << QByteArray(R"({"action": 2, "data": {"index": 3.7, "loop": -1.2}})")
        << QStringList{"goTo(3,-1)"};
    QTest::newRow("go to without data")
        << QByteArray(R"({"action": 2})") << QStringList{"goTo(0,0)"};
    QTest::newRow("go to a file wins over numbers")
        << QByteArray(R"({"action": 2, "data": {"index": 3, "loop": 1, "filePath": "/d/a.jpg"}})")
        << QStringList{"goTo(/d/a.jpg)"};
    QTest::newRow("screenshot") << QByteArray(R"({"action": 3})") << QStringList{"screenshot"};
    QTest::newRow("restart") << QByteArray(R"({"action": 4})") << QStringList{"restart"};
    QTest::newRow("text") << QByteArray(
        R"({"action": 5, "data": {"text": "Hello", "duration": 10}})")
                          << QStringList{"text(Hello,10)"};
    QTest::newRow("empty text is dropped")
        << QByteArray(R"({"action": 5, "data": {"text": "", "duration": 10}})") << QStringList();
    QTest::newRow("read address") << QByteArray(
        R"({"action": 7, "data": {"url": "http://x.test/", "duration": "12"}})")
                                  << QStringList{"readUrl(http://x.test/,12)"};
    QTest::newRow("read empty address")
        << QByteArray(R"({"action": 7})") << QStringList{"readUrl(,0)"};
    QTest::newRow("unknown code 9") << QByteArray(R"({"action": 9})") << QStringList();
    QTest::newRow("unknown code -1") << QByteArray(R"({"action": -1})") << QStringList();
    QTest::newRow("script object literal")
        << QByteArray("{action: 3, data: {}}") << QStringList{"screenshot"};
    QTest::newRow("garbage acts as pause")
        << QByteArray("\xff\xfe garbage ((") << QStringList{"pause"};
    QTest::newRow("empty datagram acts as pause") << QByteArray() << QStringList{"pause"};
    QTest::newRow("array literal acts as pause") << QByteArray("[1, 2]") << QStringList{"pause"};
    QTest::newRow("cut at the zero byte")
        << QByteArray("{\"action\": 1}\0{\"action\": 4}", 28) << QStringList{"next"};
    QTest::newRow("zero byte first acts as pause")
        << QByteArray("\0{\"action\": 4}", 15) << QStringList{"pause"};
    QTest::newRow("wrong field types")
        << QByteArray(R"({"action": 5, "data": {"text": 42, "duration": "soon"}})")
        << QStringList{"text(42,0)"};
    QTest::newRow("huge datagram")
        << QByteArray(R"({"action": 5, "data": {"duration": 3, "text": ")") + QByteArray(60000, 'x')
               + "\"}}"
        << QStringList{"text(" + QString(40, 'x') + ",3)"};
}

void TestRemote::commands()
{
    QFETCH(QByteArray, datagram);
    QFETCH(QStringList, emitted);

    LogCapture log;
    QCOMPARE(sendAndCollect(datagram), emitted);
    const int nul = datagram.indexOf('\0');
    QString expected;
    QDebug(&expected) << "Received DataGram:"
                      << QString::fromLatin1(nul >= 0 ? datagram.left(nul) : datagram);
    QCOMPARE(log.lines().first(), expected.trimmed());
}

void TestRemote::endlessScriptDoesNotFreeze()
{
    LogCapture log;
    QCOMPARE(sendAndCollect("{action: (function () { for (;;) {} })()}", 10000),
             QStringList{"pause"});
    QVERIFY(log.contains("evaluation aborted"));
    // The socket keeps working afterwards.
    QCOMPARE(sendAndCollect(R"({"action": 1})"), QStringList{"next"});
}

void TestRemote::removeDroppedFile_data()
{
    QTest::addColumn<bool>("exists");
    QTest::newRow("dropped file present") << true;
    QTest::newRow("dropped file missing") << false;
}

void TestRemote::removeDroppedFile()
{
    QFETCH(bool, exists);
    TempHome home;
    const QString path = home.filePath(".vorsane-kiosk/dragndrop/photo 1.jpg");
    if (exists)
        QVERIFY(writeFile(path, "x"));

    LogCapture log;
    QCOMPARE(sendAndCollect(R"({"action": 8, "data": {"path": "photo 1.jpg"}})"), QStringList());
    QVERIFY(!QFile::exists(path));
    if (exists)
        QVERIFY(log.contains("Remove drag and drop file: \"" + path + "\""));
    else
        QVERIFY(log.contains("Drag and drop file not removed because doesn't exists: \"" + path
                             + "\""));
}

void TestRemote::secondInstanceCannotBind()
{
    LogCapture log;
    Remote second;
    QVERIFY(second.state() != QAbstractSocket::BoundState);
    QVERIFY(log.contains("Remote control port 54545 unavailable"));
    // The first one still receives.
    QCOMPARE(sendAndCollect(R"({"action": 3})"), QStringList{"screenshot"});
}

QTEST_GUILESS_MAIN(TestRemote)
#include "tst_remote.moc"
