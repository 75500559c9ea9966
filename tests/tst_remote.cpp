#include "remote.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QFile>
#include <QSignalSpy>
#include <QTest>
#include <QUdpSocket>

using namespace testsupport;

// Remote-control datagrams as the companion server and other local senders write them, and the
// one signal (or none) that each must become.
class TestRemote : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void commands_data();
    void commands();
    void endlessScripts_data();
    void endlessScripts();
    void removeDroppedFile_data();
    void removeDroppedFile();
    void datagramsOnThePort();
    void floodOfMalformedDatagrams();

private:
    // Every signal the remote emits, written "name arguments..." in the order of emission.
    QStringList m_emitted;
    std::unique_ptr<TempHome> m_home;
    std::unique_ptr<Remote> m_remote;
};

void TestRemote::init()
{
    m_home = std::make_unique<TempHome>();
    m_remote = std::make_unique<Remote>();
    m_emitted.clear();
    Remote *remote = m_remote.get();
    const auto record = [this](const QString &line) { m_emitted << line; };
    connect(remote, &Remote::pause, this, [record] { record("pause"); });
    connect(remote, &Remote::next, this, [record] { record("next"); });
    connect(remote, QOverload<int, int>::of(&Remote::goTo), this,
            [record](int index, int loop) { record(QString("goTo %1 %2").arg(index).arg(loop)); });
    connect(remote, QOverload<QString>::of(&Remote::goTo), this,
            [record](const QString &path) { record("goTo " + path); });
    connect(remote, &Remote::screenshot, this, [record] { record("screenshot"); });
    connect(remote, &Remote::restart, this, [record] { record("restart"); });
    connect(remote, &Remote::text, this, [record](const QString &text, int duration) {
        record(QString("text %1 %2").arg(text).arg(duration));
    });
    connect(remote, &Remote::loop, this, [record] { record("loop"); });
    connect(remote, &Remote::readUrl, this, [record](const QString &url, int duration) {
        record(QString("readUrl %1 %2").arg(url).arg(duration));
    });
}

void TestRemote::cleanup()
{
    m_remote.reset();
    m_home.reset();
}

void TestRemote::commands_data()
{
    QTest::addColumn<QByteArray>("datagram");
    QTest::addColumn<QStringList>("emitted");

    QTest::newRow("pause") << QByteArray(R"({"action": 0})") << QStringList{"pause"};
    QTest::newRow("next") << QByteArray(R"({"action": 1})") << QStringList{"next"};
    QTest::newRow("next, the code as a string")
        << QByteArray(R"({"action": "1"})") << QStringList{"next"};
    QTest::newRow("next, the code as a string with blanks and a sign")
        << QByteArray(R"({"action": " +1 "})") << QStringList{"next"};
    QTest::newRow("next, a fraction rounded to the nearest code")
        << QByteArray(R"({"action": 0.6})") << QStringList{"next"};
    QTest::newRow("next, the code as true") << QByteArray(R"({"action": true})")
                                            << QStringList{"next"};
    QTest::newRow("go to an item of a loop")
        << QByteArray(R"({"action": 2, "data": {"index": 3, "loop": 1}})")
        << QStringList{"goTo 3 1"};
    QTest::newRow("go to, fractions cut toward zero")
        << QByteArray(R"({"action": 2, "data": {"index": 3.9, "loop": -1.7}})")
        << QStringList{"goTo 3 -1"};
    QTest::newRow("go to, numbers as strings")
        << QByteArray(R"({"action": 2, "data": {"index": "4", "loop": "x"}})")
        << QStringList{"goTo 4 0"};
    QTest::newRow("go to, numbers absent") << QByteArray(R"({"action": 2, "data": {}})")
                                           << QStringList{"goTo 0 0"};
    QTest::newRow("go to, data absent") << QByteArray(R"({"action": 2})")
                                        << QStringList{"goTo 0 0"};
    QTest::newRow("go to a file, numbers ignored")
        << QByteArray(R"({"action": 2, "data": {"index": 3, "loop": 1, "filePath": "/m/a.png"}})")
        << QStringList{"goTo /m/a.png"};
    QTest::newRow("go to an empty file name")
        << QByteArray(R"({"action": 2, "data": {"filePath": ""}})") << QStringList{"goTo "};
    QTest::newRow("screenshot") << QByteArray(R"({"action": 3})") << QStringList{"screenshot"};
    QTest::newRow("restart") << QByteArray(R"({"action": 4})") << QStringList{"restart"};
    QTest::newRow("text for ten seconds")
        << QByteArray(R"({"action": 5, "data": {"text": "Hello", "duration": 10}})")
        << QStringList{"text Hello 10"};
    QTest::newRow("text, a number shown as text, no duration")
        << QByteArray(R"({"action": 5, "data": {"text": 42}})") << QStringList{"text 42 0"};
    QTest::newRow("text empty") << QByteArray(R"({"action": 5, "data": {"text": "", "duration": 10}})")
                                << QStringList{};
    QTest::newRow("text absent") << QByteArray(R"({"action": 5, "data": {"duration": 10}})")
                                 << QStringList{};
    QTest::newRow("loop") << QByteArray(R"({"action": 6})") << QStringList{"loop"};
    QTest::newRow("read an address")
        << QByteArray(R"({"action": 7, "data": {"url": "http://example.org/", "duration": 5}})")
        << QStringList{"readUrl http://example.org/ 5"};
    QTest::newRow("read an empty address")
        << QByteArray(R"({"action": 7, "data": {"url": "", "duration": 5}})")
        << QStringList{"readUrl  5"};
    QTest::newRow("unknown code 9") << QByteArray(R"({"action": 9})") << QStringList{};
    QTest::newRow("unknown code -1") << QByteArray(R"({"action": -1})") << QStringList{};
    QTest::newRow("field names are case-sensitive")
        << QByteArray(R"({"Action": 1})") << QStringList{"pause"};
    QTest::newRow("script object literal with bare names")
        << QByteArray("{action: 2, data: {index: 1, loop: 0}}") << QStringList{"goTo 1 0"};
    QTest::newRow("cut at the first zero byte")
        << QByteArray(R"({"action": 1})") + '\0' + "junk" << QStringList{"next"};
    QTest::newRow("empty") << QByteArray() << QStringList{"pause"};
    QTest::newRow("not an object literal") << QByteArray("hello world(") << QStringList{"pause"};
    QTest::newRow("not an object") << QByteArray("1") << QStringList{"pause"};
    QTest::newRow("a script error inside the object")
        << QByteArray(R"({"action": 1, "data": nothingHere})") << QStringList{"pause"};
    QTest::newRow("an object thrown as an error")
        << QByteArray("(function () { throw {action: 1}; })()") << QStringList{"pause"};
    QTest::newRow("a getter that throws")
        << QByteArray("{get action() { throw 1; }}") << QStringList{"pause"};
    // The text is only read inside the evaluation: the sender's replacements take no effect.
    QTest::newRow("built-ins replaced by the sender")
        << QByteArray("(String = function () { return {}; }, Object.create = null,"
                      " {action: 5, data: {text: 'x'}})")
        << QStringList{"text x 0"};
    QTest::newRow("every object given an action by the sender")
        << QByteArray("(Object.defineProperty(Object.prototype, 'action',"
                      " {get: function () { return 3; }}), {action: 1})")
        << QStringList{"next"};
    QTest::newRow("Latin-1 text")
        << QByteArray("{\"action\": 5, \"data\": {\"text\": \"caf\xe9\"}}")
        << QStringList{QString::fromUtf8("text caf\xc3\xa9 0")};
}

void TestRemote::commands()
{
    QFETCH(QByteArray, datagram);
    QFETCH(QStringList, emitted);
    LogCapture log;
    m_remote->handle(datagram);
    QCOMPARE(m_emitted, emitted);
    QVERIFY(log.contains("Received DataGram:"));
    QVERIFY(!log.contains("evaluation aborted"));
}

void TestRemote::endlessScripts_data()
{
    QTest::addColumn<QByteArray>("datagram");

    QTest::newRow("the object never finishes") << QByteArray("(function () { while (true) {} })()");
    QTest::newRow("a getter never returns") << QByteArray("{get action() { while (true) {} }, data: {}}");
    QTest::newRow("the text never converts")
        << QByteArray("{action: 5, data: {text: {toString: function () { while (true) {} }}}}");
    QTest::newRow("the path never converts")
        << QByteArray("{action: 8, data: {path: {toString: function () { for (;;) {} }}}}");
    QTest::newRow("go to, the index never converts")
        << QByteArray("{action: 2, data: {index: {valueOf: function () { while (1) {} }}}}");
    QTest::newRow("an endless loop that catches its own errors")
        << QByteArray("(function () { while (true) { try { while (true) {} } catch (e) {} } })()");
}

void TestRemote::endlessScripts()
{
    QFETCH(QByteArray, datagram);
    LogCapture log;
    QElapsedTimer clock;
    clock.start();
    m_remote->handle(datagram);
    const qint64 elapsed = clock.elapsed();
    // Cut off as a script error: a pause, nothing else.
    QCOMPARE(m_emitted, QStringList{"pause"});
    QVERIFY(log.contains("Remote datagram evaluation aborted after 1000 ms."));
    QVERIFY2(elapsed >= Remote::MaxEvaluationMs && elapsed < 4 * Remote::MaxEvaluationMs,
             QByteArray::number(elapsed));
    // The next datagram is read as usual.
    m_remote->handle(R"({"action": 1})");
    QCOMPARE(m_emitted, QStringList({"pause", "next"}));
}

void TestRemote::removeDroppedFile_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("removed");
    QTest::addColumn<QString>("logged");

    QTest::newRow("a dropped file") << "dropped.png" << true << "Remove drag and drop file:";
    QTest::newRow("a dropped file in a sub-folder")
        << "sub/dropped.png" << true << "Remove drag and drop file:";
    QTest::newRow("a name leading out of the folder")
        << "../keep.txt" << false << "Drag and drop file not removed because doesn't exists:";
    QTest::newRow("a file that is not there")
        << "missing.png" << false << "Drag and drop file not removed because doesn't exists:";
    QTest::newRow("no name") << "" << false
                             << "Drag and drop file not removed because doesn't exists:";
}

void TestRemote::removeDroppedFile()
{
    QFETCH(QString, name);
    QFETCH(bool, removed);
    QFETCH(QString, logged);
    const QString folder = m_home->stateDir() + "/dragndrop/";
    const QStringList files = {folder + "dropped.png", folder + "sub/dropped.png",
                               m_home->stateDir() + "/keep.txt"};
    for (const QString &file : files)
        QVERIFY(writeFile(file, "x"));

    LogCapture log;
    m_remote->handle(R"({"action": 8, "data": {"path": ")" + name.toUtf8() + "\"}}");
    QVERIFY2(log.contains(logged), qPrintable(log.lines().join('\n')));
    QVERIFY(m_emitted.isEmpty());
    const QString target = folder + name;
    for (const QString &file : files)
        QCOMPARE(QFile::exists(file), !(removed && QFileInfo(file) == QFileInfo(target)));
}

void TestRemote::datagramsOnThePort()
{
    QUdpSocket sender;
    const QList<QByteArray> datagrams = {R"({"action": 1})", R"({"action": 9})",
                                         R"({"action": 2, "data": {"index": 2, "loop": 0}})",
                                         "{action: 3}"};
    for (const QByteArray &datagram : datagrams)
        QCOMPARE(sender.writeDatagram(datagram, QHostAddress::LocalHost, RemoteProtocol::DatagramPort),
                 qint64(datagram.size()));
    QTRY_COMPARE(m_emitted, QStringList({"next", "goTo 2 0", "screenshot"}));
}

void TestRemote::floodOfMalformedDatagrams()
{
    // Far more than fit in the queue, in bursts as fast as the show reads them.
    QUdpSocket sender;
    for (int burst = 0; burst < 20; ++burst) {
        for (int i = 0; i < 100; ++i)
            sender.writeDatagram("garbage " + QByteArray::number(i), QHostAddress::LocalHost,
                                 RemoteProtocol::DatagramPort);
        QCoreApplication::processEvents();
    }
    sender.writeDatagram(R"({"action": 1})", QHostAddress::LocalHost,
                         RemoteProtocol::DatagramPort);
    QTRY_VERIFY(m_emitted.contains("next"));
    // A handful of the flood acted as pauses; the rest never reached the show.
    QVERIFY2(m_emitted.count("pause") <= 2 * 8, qPrintable(m_emitted.join(',')));
}

QTEST_GUILESS_MAIN(TestRemote)
#include "tst_remote.moc"
