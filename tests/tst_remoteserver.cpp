#include "childprocess.h"
#include "commandlineparser.h"
#include "customqwebpage.h"
#include "kioskprocess.h"
#include "remoteprotocol.h"
#include "remoteserver.h"
#include "settings.h"
#include "testsupport.h"
#include "webtest.h"
#include "webview.h"

#include <QHttpMultiPart>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QRegularExpression>
#include <QTcpSocket>
#include <QUdpSocket>
#include <QtTest>

#include <cerrno>
#include <cstring>
#include <future>
#include <sys/mount.h>
#include <unistd.h>

using namespace testsupport;
using RemoteProtocol::Action;

namespace {
const QByteArray key = "k&ey 42";
const QByteArray keyCookie = "Cookie: vorsane_remote=" + key.toPercentEncoding() + "\r\n";
constexpr qint64 MiB = 1024 * 1024;

// Resident memory of a process in KiB, as /proc gives it ("VmRSS:", or "VmHWM:" for the peak).
qint64 memoryKiB(qint64 pid, const QByteArray &field)
{
    const QList<QByteArray> lines
        = readFile(QStringLiteral("/proc/%1/status").arg(pid)).split('\n');
    for (const QByteArray &line : lines) {
        if (line.startsWith(field))
            return line.mid(field.size()).simplified().split(' ').first().toLongLong();
    }
    return -1;
}

// Starts the peak anew from the present resident size.
bool resetPeak(qint64 pid)
{
    QFile clear(QStringLiteral("/proc/%1/clear_refs").arg(pid));
    return clear.open(QIODevice::WriteOnly) && clear.write("5") == 1;
}

// Sends head, then piece after piece until total bytes went out or the server answered or
// closed; returns the answer.
QByteArray flood(quint16 port, const QByteArray &head, const QByteArray &piece, qint64 total)
{
    QTcpSocket socket;
    QByteArray answer;
    // Taken as it comes: a reset after the answer would throw away what was left unread.
    QObject::connect(&socket, &QTcpSocket::readyRead, [&] { answer += socket.readAll(); });
    socket.connectToHost(QHostAddress::LocalHost, port);
    if (!socket.waitForConnected())
        return QByteArray();
    socket.write(head);
    QElapsedTimer clock;
    clock.start();
    for (qint64 sent = 0; sent < total && answer.isEmpty()
                          && socket.state() == QAbstractSocket::ConnectedState
                          && clock.elapsed() < 30000;) {
        if (socket.bytesToWrite() < piece.size()) {
            socket.write(piece);
            sent += piece.size();
        }
        socket.waitForBytesWritten(50);
    }
    while (socket.state() == QAbstractSocket::ConnectedState
           && socket.waitForReadyRead(answer.isEmpty() ? 30000 : 2000)) {
    }
    return answer;
}

// A multipart upload of one picture with size bytes of content: the head (with the part's own
// head) and the closing boundary.
QPair<QByteArray, QByteArray> uploadFraming(const QString &name, qint64 size)
{
    const QByteArray partHead = "--b\r\nContent-Disposition: form-data; name=\"file\"; filename=\""
                                + name.toUtf8() + "\"\r\nContent-Type: image/png\r\n\r\n";
    const QByteArray end = "\r\n--b--\r\n";
    const QByteArray head = "POST /api/files HTTP/1.1\r\nHost: x\r\n" + keyCookie
                            + "Content-Type: multipart/form-data; boundary=b\r\nContent-Length: "
                            + QByteArray::number(partHead.size() + size + end.size()) + "\r\n\r\n"
                            + partHead;
    return {head, end};
}

// A vorsane-remote of its own whose home is a small tmpfs, so that its disk can be filled.
class SmallDiskServer
{
public:
    ~SmallDiskServer()
    {
        if (m_process.state() != QProcess::NotRunning) {
            m_process.terminate();
            m_process.waitForFinished();
        }
        if (m_mounted)
            ::umount2(QFile::encodeName(m_dir.path()).constData(), MNT_DETACH);
    }

    // Empty when it runs, otherwise why not.
    QString start(qint64 megabytes)
    {
        if (::geteuid() != 0)
            return QStringLiteral("mounting a small tmpfs needs root");
        const QByteArray options = "size=" + QByteArray::number(megabytes) + "m";
        if (::mount("tmpfs", QFile::encodeName(m_dir.path()).constData(), "tmpfs", 0,
                    options.constData())
            != 0)
            return QStringLiteral("cannot mount a tmpfs: %1")
                .arg(QString::fromLocal8Bit(std::strerror(errno)));
        m_mounted = true;
        if (!writeFile(filePath("conf/preferences"),
                       "[main]\nversion=QFGLs6IVf1\n[remote]\nkey=" + key + "\n")
            || !writeFile(filePath("conf/playlist"), "#Vorsane playlist\nhttp://a.example/ 10\n"))
            return QStringLiteral("cannot write the configuration");
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("HOME"), m_dir.path());
        m_process.setProcessEnvironment(environment);
        m_process.setProcessChannelMode(QProcess::MergedChannels);
        m_port = closedPort();
        m_process.start(QStringLiteral(VORSANE_REMOTE_BIN),
                        {"--port", QString::number(m_port), "--basepath", filePath("conf")});
        if (!m_process.waitForStarted()
            || !QTest::qWaitFor([this] { return output().contains("listening"); }))
            return QStringLiteral("the server did not start");
        return QString();
    }

    QString filePath(const QString &relative) const { return m_dir.filePath(relative); }
    quint16 port() const { return m_port; }
    QByteArray output() { return m_output += m_process.readAll(); }

    QByteArray exchange(const QByteArray &request)
    {
        return flood(m_port, request, QByteArray(), 0);
    }

private:
    QTemporaryDir m_dir;
    bool m_mounted = false;
    ChildProcess m_process{ChildProcess::EndsWithParent};
    quint16 m_port = 0;
    QByteArray m_output;
};

// What the descriptors of a process above its standard channels point at: sockets and pipes by
// their number, files by their path.
QSet<QString> openObjects(qint64 pid)
{
    QSet<QString> objects;
    const QDir fds(QStringLiteral("/proc/%1/fd").arg(pid));
    for (const QString &fd : fds.entryList(QDir::System | QDir::NoDotAndDotDot)) {
        char target[4096];
        const ssize_t length = ::readlink(qPrintable(fds.filePath(fd)), target, sizeof target);
        const QString object = QString::fromUtf8(target, int(qMax<ssize_t>(length, 0)));
        // Event and timer descriptors carry no number; devices are opened by anyone.
        if (fd.toInt() > 2 && !object.startsWith("anon_inode:") && !object.startsWith("/dev/"))
            objects << object;
    }
    return objects;
}

// The child of a process that runs the given executable, or 0.
qint64 childRunning(qint64 pid, const QString &executable)
{
    for (const QString &task : QDir(QStringLiteral("/proc/%1/task").arg(pid)).entryList()) {
        QFile children(QStringLiteral("/proc/%1/task/%2/children").arg(pid).arg(task));
        if (!children.open(QIODevice::ReadOnly))
            continue;
        for (const QByteArray &child : children.readAll().split(' ')) {
            if (QFileInfo(QStringLiteral("/proc/%1/exe").arg(QString(child)))
                    .symLinkTarget()
                    .endsWith(executable))
                return child.toLongLong();
        }
    }
    return 0;
}
} // namespace

class TestRemoteServer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void refused_data();
    void refused();
    void endpoints_data();
    void endpoints();
    void oversizedRequestRefused();
    void unboundedBodiesRefused_data();
    void unboundedBodiesRefused();
    void slowClientsLockNobodyOut_data();
    void slowClientsLockNobodyOut();
    void slowSendersCutOff();
    void webAddressesOnly_data();
    void webAddressesOnly();
    void screenshot();
    void screenSwitch_data();
    void screenSwitch();
    void commandsBecomeDatagrams();
    void upload();
    void brokenUploadsLeaveNothing();
    void invalidPlaylistRejected_data();
    void invalidPlaylistRejected();
    void loopsListedSafely_data();
    void loopsListedSafely();
    void concurrentUploadsKeepTheReserve();
    void fullDiskLeavesThePlaylist();
    void pageRunsInTheWebEngine();
    void kioskRunsAndEndsServer_data();
    void kioskRunsAndEndsServer();
    void stopsRightAfterItsStart();

private:
    QNetworkReply *request(const QByteArray &method, const QString &path,
                           const QByteArray &body = QByteArray(), QHttpMultiPart *form = nullptr,
                           const QByteArray &cookie = "vorsane_remote=" + key.toPercentEncoding());
    static int status(QNetworkReply *reply)
    {
        return reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    }
    QByteArray nextDatagram();
    static int action(const QByteArray &datagram)
    {
        return QJsonDocument::fromJson(datagram).object().value("action").toInt(-1);
    }
    QByteArray raw(const QByteArray &head, const QByteArray &body, bool cut);

    std::unique_ptr<TempHome> m_home;
    std::unique_ptr<FakePrograms> m_programs;
    // Ends with the test, even one that dies midway.
    ChildProcess m_server{ChildProcess::EndsWithParent};
    quint16 m_port = 0;
    QUdpSocket m_slideshow;
    QNetworkAccessManager m_network;
};

void TestRemoteServer::initTestCase()
{
    m_home = std::make_unique<TempHome>();
    QVERIFY(writeFile(m_home->filePath("conf/preferences"),
                      "[main]\nversion=QFGLs6IVf1\n[remote]\nkey=" + key
                          + "\n[slideshow]\ntv_control=dpms\n"));
    QVERIFY(writeFile(m_home->filePath("conf/playlist"),
                      "<schedule a=\"1\"><loop id=\"0\"><i uri=\"http://a.example/\" type=\"url\"/>"
                      "</loop><loop id=\"7\"><i uri=\"http://b.example/\" type=\"url\"/></loop>"
                      "</schedule>"));
    // The screen is switched through X11 display power management.
    m_programs = std::make_unique<FakePrograms>();
    m_programs->add("xset", "  DPMS is Enabled\n  Monitor is On\n");
    QVERIFY(m_slideshow.bind(QHostAddress::LocalHost, RemoteProtocol::DatagramPort));
    m_port = closedPort();
    m_server.setProcessChannelMode(QProcess::ForwardedChannels);
    m_server.start(QStringLiteral(VORSANE_REMOTE_BIN),
                   {"--port", QString::number(m_port), "--basepath", m_home->filePath("conf")});
    QVERIFY(m_server.waitForStarted());
    QTRY_VERIFY(request("GET", "/api/status")->error() == QNetworkReply::NoError);
}

void TestRemoteServer::cleanupTestCase()
{
    m_server.terminate();
    QVERIFY(m_server.waitForFinished());
    QCOMPARE(m_server.exitCode(), 0);
}

QNetworkReply *TestRemoteServer::request(const QByteArray &method, const QString &path,
                                         const QByteArray &body, QHttpMultiPart *form,
                                         const QByteArray &cookie)
{
    QNetworkRequest request(QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(m_port).arg(path)));
    // Only the cookie a case gives is sent.
    request.setAttribute(QNetworkRequest::CookieLoadControlAttribute, QNetworkRequest::Manual);
    request.setAttribute(QNetworkRequest::CookieSaveControlAttribute, QNetworkRequest::Manual);
    if (!cookie.isEmpty())
        request.setRawHeader("Cookie", cookie);
    if (!form)
        request.setHeader(QNetworkRequest::ContentTypeHeader, "application/json");
    QNetworkReply *reply
        = form ? m_network.post(request, form) : m_network.sendCustomRequest(request, method, body);
    reply->setParent(this);
    QSignalSpy finished(reply, &QNetworkReply::finished);
    finished.wait(10000);
    return reply;
}

QByteArray TestRemoteServer::nextDatagram()
{
    // Waiting in the event loop: the page under test sends its requests from there.
    QSignalSpy arrived(&m_slideshow, &QUdpSocket::readyRead);
    if (!m_slideshow.hasPendingDatagrams())
        arrived.wait(5000);
    QByteArray datagram(int(qMax<qint64>(m_slideshow.pendingDatagramSize(), 0)), '\0');
    m_slideshow.readDatagram(datagram.data(), datagram.size());
    return datagram;
}

// A request written by hand; cut: the connection is dropped in the middle of the body.
QByteArray TestRemoteServer::raw(const QByteArray &head, const QByteArray &body, bool cut)
{
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, m_port);
    if (!socket.waitForConnected())
        return QByteArray();
    socket.write(head + "Cookie: vorsane_remote=" + key.toPercentEncoding() + "\r\n\r\n" + body);
    socket.waitForBytesWritten();
    if (cut) {
        // Only once the server is writing the upload aside does the cut prove something.
        const QDir staging(m_home->stateDir() + QStringLiteral("/remote-upload"));
        if (!QTest::qWaitFor([&] { return !staging.isEmpty(QDir::Files); }, 5000))
            return "nothing written aside";
        socket.abort();
        return "cut";
    }
    // Whole once the body its head announces is in: the connection may stay open a while longer.
    QByteArray answer;
    while (socket.waitForReadyRead(5000)) {
        answer += socket.readAll();
        const int headEnd = answer.indexOf("\r\n\r\n");
        if (headEnd < 0)
            continue;
        static const QRegularExpression length(QStringLiteral("\r\ncontent-length: *(\\d+)"),
                                               QRegularExpression::CaseInsensitiveOption);
        const QRegularExpressionMatch match
            = length.match(QString::fromLatin1(answer.left(headEnd)));
        if (answer.size() >= headEnd + 4 + match.captured(1).toInt())
            break;
    }
    return answer;
}

void TestRemoteServer::refused_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QByteArray>("cookie");
    QTest::newRow("no key") << "/" << QByteArray();
    QTest::newRow("wrong key in the address") << "/?k=k%26ey%2041" << QByteArray();
    QTest::newRow("wrong cookie") << "/api/files" << QByteArray("vorsane_remote=k%26ey");
    QTest::newRow("key of another name") << "/api/files" << QByteArray("k=" + key);
}

void TestRemoteServer::refused()
{
    QFETCH(QString, path);
    QFETCH(QByteArray, cookie);
    QNetworkReply *reply = request("GET", path, QByteArray(), nullptr, cookie);
    QCOMPARE(status(reply), 403);
    QCOMPARE(reply->readAll(), QByteArray("Forbidden\n"));

    // The right key in the address sets the cookie that lets later requests in.
    reply = request("GET", "/?k=" + key.toPercentEncoding(), QByteArray(), nullptr, QByteArray());
    QCOMPARE(status(reply), 200);
    const QByteArray setCookie = reply->rawHeader("Set-Cookie");
    QVERIFY(setCookie.startsWith("vorsane_remote=" + key.toPercentEncoding() + ";"));
    QVERIFY(setCookie.contains("HttpOnly") && setCookie.contains("SameSite=Strict"));
}

void TestRemoteServer::endpoints_data()
{
    QTest::addColumn<QByteArray>("method");
    QTest::addColumn<QString>("path");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<int>("expectedStatus");
    QTest::addColumn<QByteArray>("expectedBody");
    QTest::newRow("page") << QByteArray("GET") << "/" << QByteArray() << 200 << QByteArray("<html");
    QTest::newRow("status") << QByteArray("GET") << "/api/status" << QByteArray() << 200
                            << QByteArray(R"({"localplaylist":true,"tv":true})");
    QTest::newRow("loops") << QByteArray("GET") << "/api/loops" << QByteArray() << 200
                           << QByteArray(R"("name":"Loop 7")");
    QTest::newRow("files") << QByteArray("GET") << "/api/files" << QByteArray() << 200
                           << QByteArray(R"({"files":[)");
    QTest::newRow("playlist") << QByteArray("GET") << "/api/playlist" << QByteArray() << 200
                              << QByteArray("<loop id=\"7\">");
    QTest::newRow("command without action")
        << QByteArray("POST") << "/api/command" << QByteArray("{}") << 400
        << QByteArray("Unknown command.");
    QTest::newRow("command not JSON") << QByteArray("POST") << "/api/command" << QByteArray("next")
                                      << 400 << QByteArray("Unknown command.");
    QTest::newRow("loop command, which the page does not send")
        << QByteArray("POST") << "/api/command" << QByteArray(R"({"action":6})") << 400
        << QByteArray("Unknown command.");
    QTest::newRow("file removal as a command")
        << QByteArray("POST") << "/api/command"
        << QByteArray(R"({"action":8,"data":{"path":"playlist"}})") << 400
        << QByteArray("Unknown command.");
    QTest::newRow("removal without a name") << QByteArray("DELETE") << "/api/files" << QByteArray()
                                            << 404 << QByteArray("No such file: ");
    QTest::newRow("command read") << QByteArray("GET") << "/api/command" << QByteArray() << 404
                                  << QByteArray();
    QTest::newRow("page posted") << QByteArray("POST") << "/" << QByteArray() << 404
                                 << QByteArray();
    QTest::newRow("screen switch read")
        << QByteArray("GET") << "/api/tv" << QByteArray() << 404 << QByteArray();
    QTest::newRow("playlist removed")
        << QByteArray("DELETE") << "/api/playlist" << QByteArray() << 404 << QByteArray();
    QTest::newRow("unknown path") << QByteArray("GET") << "/api/nothing" << QByteArray() << 404
                                  << QByteArray();
}

void TestRemoteServer::endpoints()
{
    QFETCH(QByteArray, method);
    QFETCH(QString, path);
    QFETCH(QByteArray, body);
    QFETCH(int, expectedStatus);
    QFETCH(QByteArray, expectedBody);
    QNetworkReply *reply = request(method, path, body);
    QCOMPARE(status(reply), expectedStatus);
    const QByteArray answer = reply->readAll();
    QVERIFY2(answer.contains(expectedBody), answer.constData());
    QVERIFY(!m_slideshow.hasPendingDatagrams());
}

void TestRemoteServer::oversizedRequestRefused()
{
    // Refused on the announced length alone, before the body is read.
    const QByteArray answer = raw("POST /api/command HTTP/1.1\r\nHost: x\r\n"
                                  "Content-Type: application/json\r\nContent-Length: 2097153\r\n",
                                  QByteArray(), false);
    QVERIFY2(answer.startsWith("HTTP/1.1 413"), answer.constData());
    QVERIFY(answer.contains("The request is too large."));
    QVERIFY(!m_slideshow.hasPendingDatagrams());
}

void TestRemoteServer::unboundedBodiesRefused_data()
{
    QTest::addColumn<QByteArray>("head");
    QTest::addColumn<QByteArray>("piece");
    QTest::addColumn<QByteArray>("expected");
    const QByteArray megabyte(int(MiB), 'x');
    const QByteArray chunk = QByteArray::number(MiB, 16) + "\r\n" + megabyte + "\r\n";
    const QByteArray post = "POST /api/command HTTP/1.1\r\nHost: x\r\n" + keyCookie;
    const QByteArray tooLarge = "413 Payload Too Large\r\n.*The request is too large";
    QTest::newRow("chunked command") << post + "Transfer-Encoding: chunked\r\n\r\n"
                                     << chunk << tooLarge;
    QTest::newRow("command without a length, sent until the end") << post + "\r\n"
                                                                  << megabyte << tooLarge;
    QTest::newRow("chunked playlist") << "POST /api/playlist HTTP/1.1\r\nHost: x\r\n" + keyCookie
                                             + "Transfer-Encoding: chunked\r\n\r\n"
                                      << chunk << tooLarge;
    QTest::newRow("chunked upload") << "POST /api/files HTTP/1.1\r\nHost: x\r\n" + keyCookie
                                           + "Content-Type: multipart/form-data; boundary=b\r\n"
                                             "Transfer-Encoding: chunked\r\n\r\n"
                                    << chunk << QByteArray("411 Length Required");
    QTest::newRow("upload stating a length and chunks")
        << "POST /api/files HTTP/1.1\r\nHost: x\r\n" + keyCookie
               + "Content-Type: multipart/form-data; boundary=b\r\nContent-Length: 10\r\n"
                 "Transfer-Encoding: chunked\r\n\r\n"
        << chunk << QByteArray("400 Bad Request\r\n.*states its length twice");
    QTest::newRow("compressed command")
        << post + "Content-Encoding: gzip\r\nContent-Length: 1048576\r\n\r\n"
        << megabyte << QByteArray("415 Unsupported Media Type\r\n.*Compressed request bodies");
    QTest::newRow("header line without end") << QByteArray("GET / HTTP/1.1\r\nHost: x\r\nX-Long: ")
                                             << megabyte << QByteArray("400 Bad Request");
    QTest::newRow("headers without end")
        << QByteArray("GET / HTTP/1.1\r\nHost: x\r\n")
        << QByteArray("X-More: x\r\n").repeated(100000) << QByteArray("400 Bad Request");
}

void TestRemoteServer::unboundedBodiesRefused()
{
    QFETCH(QByteArray, head);
    QFETCH(QByteArray, piece);
    QFETCH(QByteArray, expected);
    const qint64 pid = m_server.processId();
    QVERIFY(resetPeak(pid));
    const qint64 before = memoryKiB(pid, "VmRSS:");
    const QByteArray answer = flood(m_port, head, piece, 64 * MiB);
    const QRegularExpression pattern(
        QRegularExpression::anchoredPattern("HTTP/1.1 " + QString::fromLatin1(expected) + ".*"),
        QRegularExpression::DotMatchesEverythingOption);
    QVERIFY2(pattern.match(QString::fromLatin1(answer)).hasMatch(), answer.left(300).constData());
    // 64 MiB were on offer; what is read of a refused request is a fraction of that.
    const qint64 peak = memoryKiB(pid, "VmHWM:");
    qInfo("peak resident %lld KiB, %lld KiB over the %lld KiB before", peak, peak - before, before);
    QVERIFY2(peak - before < 24 * 1024, QByteArray::number(peak - before).constData());
    QVERIFY(!m_slideshow.hasPendingDatagrams());
    QCOMPARE(status(request("GET", "/api/status")), 200);
}

void TestRemoteServer::slowClientsLockNobodyOut_data()
{
    QTest::addColumn<int>("clients");
    QTest::addColumn<int>("addresses");
    QTest::newRow("32 slow clients from 32 addresses") << 32 << 32;
    QTest::newRow("32 slow clients from one address") << 32 << 1;
    QTest::newRow("100 slow clients from one address") << 100 << 1;
}

void TestRemoteServer::slowClientsLockNobodyOut()
{
    QFETCH(int, clients);
    QFETCH(int, addresses);
    // Never a whole request line: no key is needed to hold a connection.
    const QByteArray line = "GET /api/status HTTP/1.1";
    std::vector<std::unique_ptr<QTcpSocket>> slow;
    for (int i = 0; i < clients; ++i) {
        auto socket = std::make_unique<QTcpSocket>();
        // Other machines: the keyed request comes from this one.
        QVERIFY(socket->bind(QHostAddress(QStringLiteral("127.0.0.%1").arg(2 + i % addresses))));
        socket->connectToHost(QHostAddress::LocalHost, m_port);
        QVERIFY(socket->waitForConnected());
        socket->write(line.left(1));
        slow.push_back(std::move(socket));
    }
    int sent = 1;
    QTimer trickle;
    connect(&trickle, &QTimer::timeout, this, [&] {
        for (const auto &socket : slow)
            socket->write(line.mid(sent % line.size(), 1));
        ++sent;
    });
    trickle.start(300);

    QElapsedTimer clock;
    clock.start();
    QTcpSocket keyed;
    QByteArray answer;
    qint64 answeredAfter = -1;
    connect(&keyed, &QTcpSocket::readyRead, this, [&] {
        answer += keyed.readAll();
        if (answer.endsWith("}"))
            answeredAfter = clock.elapsed();
    });
    keyed.connectToHost(QHostAddress::LocalHost, m_port);
    keyed.write("GET /api/status HTTP/1.1\r\nHost: x\r\n" + keyCookie
                + "Connection: close\r\n\r\n");
    QTRY_VERIFY_WITH_TIMEOUT(answer.endsWith("}"), 2000);
    qInfo("answered in %lld ms beside %d slow clients", answeredAfter, clients);
    QVERIFY2(answer.startsWith("HTTP/1.1 200"), answer.constData());
}

void TestRemoteServer::slowSendersCutOff()
{
    // A request line and a body that each come a byte a second.
    QTcpSocket head;
    QTcpSocket body;
    for (QTcpSocket *socket : {&head, &body}) {
        socket->connectToHost(QHostAddress::LocalHost, m_port);
        QVERIFY(socket->waitForConnected());
    }
    head.write("G");
    body.write("POST /api/command HTTP/1.1\r\nHost: x\r\n" + keyCookie
               + "Content-Length: 100000\r\n\r\n{");
    QTimer trickle;
    connect(&trickle, &QTimer::timeout, this, [&] {
        head.write("E");
        body.write(" ");
    });
    trickle.start(1000);
    QTRY_VERIFY_WITH_TIMEOUT(head.state() == QAbstractSocket::UnconnectedState
                                 && body.state() == QAbstractSocket::UnconnectedState,
                             20000);
    QVERIFY(!m_slideshow.hasPendingDatagrams());
}

void TestRemoteServer::webAddressesOnly_data()
{
    QTest::addColumn<QString>("url");
    QTest::addColumn<bool>("shown");
    QTest::newRow("https") << "https://example.com/a?b=c" << true;
    QTest::newRow("http in capitals") << "HTTP://EXAMPLE.COM/" << true;
    QTest::newRow("local file") << "file:///etc/passwd" << false;
    QTest::newRow("local file in capitals") << "FILE:///etc/shadow" << false;
    QTest::newRow("local file without slashes") << "file:/etc/passwd" << false;
    QTest::newRow("data") << "data:text/html,<script>for(;;){}</script>" << false;
    QTest::newRow("script") << "javascript:alert(1)" << false;
    QTest::newRow("about") << "about:blank" << false;
    QTest::newRow("source view") << "view-source:http://example.com/" << false;
    QTest::newRow("relative") << "/etc/passwd" << false;
    QTest::newRow("without scheme") << "example.com" << false;
    QTest::newRow("http without host") << "http:///etc/passwd" << false;
    QTest::newRow("blank before a local file") << " file:///etc/passwd" << false;
    QTest::newRow("blank before a web address") << " http://example.com/" << false;
    QTest::newRow("empty") << "" << false;
}

void TestRemoteServer::webAddressesOnly()
{
    QFETCH(QString, url);
    QFETCH(bool, shown);
    const QJsonObject command{{"action", RemoteProtocol::code(Action::ReadUrl)},
                              {"data", QJsonObject{{"url", url}, {"duration", 5}}}};
    QNetworkReply *reply = request("POST", "/api/command", QJsonDocument(command).toJson());
    if (shown) {
        QCOMPARE(status(reply), 200);
        QCOMPARE(action(nextDatagram()), RemoteProtocol::code(Action::ReadUrl));
        return;
    }
    QCOMPARE(status(reply), 400);
    const QByteArray answer = reply->readAll();
    QVERIFY2(answer.contains("Only http and https addresses can be shown"), answer.constData());
    QVERIFY(!m_slideshow.hasPendingDatagrams());
}

void TestRemoteServer::screenshot()
{
    const QString path = QStringLiteral("/tmp/screen.png");
    QVERIFY(writeFile(path, "not really a picture"));
    QNetworkReply *reply = request("GET", "/screen.png");
    QCOMPARE(status(reply), 200);
    QCOMPARE(reply->header(QNetworkRequest::ContentTypeHeader).toString(),
             QStringLiteral("image/png"));
    QCOMPARE(reply->readAll(), QByteArray("not really a picture"));
    QVERIFY(QFile::remove(path));
    QCOMPARE(status(request("GET", "/screen.png")), 404);
}

void TestRemoteServer::screenSwitch_data()
{
    QTest::addColumn<bool>("on");
    QTest::addColumn<QStringList>("switchCalls");
    QTest::newRow("on") << true << QStringList{"dpms force on"};
    QTest::newRow("off") << false << QStringList{"dpms force off"};
}

void TestRemoteServer::screenSwitch()
{
    QFETCH(bool, on);
    QFETCH(QStringList, switchCalls);
    const int before = m_programs->callLines("xset").filter("force").size();
    QNetworkReply *reply
        = request("POST", "/api/tv", QJsonDocument(QJsonObject{{"on", on}}).toJson());
    QCOMPARE(status(reply), 200);
    QCOMPARE(QJsonDocument::fromJson(reply->readAll()).object().value("on").toBool(), on);
    QCOMPARE(m_programs->callLines("xset").filter("force").mid(before), switchCalls);
}

void TestRemoteServer::commandsBecomeDatagrams()
{
    request("POST", "/api/command", R"({"action":5,"data":{"text":"Grüße","duration":12}})");
    // The slideshow reads datagrams as Latin-1 script: the rest travels as escapes.
    QCOMPARE(nextDatagram(),
             QByteArray(R"({"action":5,"data":{"text":"Gr\u00fc\u00dfe","duration":12}})"));
    request("POST", "/api/command", R"({"action":2,"data":{"loop":1,"index":0,"x":"y"}})");
    QCOMPARE(nextDatagram(), QByteArray(R"({"action":2,"data":{"index":0,"loop":1}})"));
    // Removal of a file the server never stored is not passed on.
    QCOMPARE(status(request("DELETE", "/api/files?name=..%2Fplaylist")), 404);
    QVERIFY(!m_slideshow.hasPendingDatagrams());
}

void TestRemoteServer::upload()
{
    auto *form = new QHttpMultiPart(QHttpMultiPart::FormDataType);
    QHttpPart part;
    part.setHeader(QNetworkRequest::ContentDispositionHeader,
                   R"(form-data; name="file"; filename="sub/../../x.png")");
    part.setBody("picture");
    form->append(part);
    QNetworkReply *reply = request("POST", "/api/files", QByteArray(), form);
    form->setParent(reply);
    QCOMPARE(status(reply), 200);
    QCOMPARE(readFile(m_home->stateDir() + "/dragndrop/x.png"), QByteArray("picture"));
    QVERIFY(!QFile::exists(m_home->stateDir() + "/x.png"));
    QVERIFY(request("GET", "/api/files")->readAll().contains(R"({"name":"x.png","size":7})"));

    // The slideshow removes it: the server only asks.
    request("DELETE", "/api/files?name=x.png");
    QCOMPARE(nextDatagram(), QByteArray(R"({"action":8,"data":{"path":"x.png"}})"));
}

void TestRemoteServer::brokenUploadsLeaveNothing()
{
    const QByteArray head = "POST /api/files HTTP/1.1\r\nHost: x\r\nContent-Length: 2000000\r\n"
                            "Content-Type: multipart/form-data; boundary=b\r\n";
    const QByteArray body = "--b\r\nContent-Disposition: form-data; name=\"file\"; "
                            "filename=\"cut.png\"\r\n\r\n"
                            + QByteArray(300000, 'x');
    QCOMPARE(raw(head, body, true), QByteArray("cut"));
    const QDir staging(m_home->stateDir() + QStringLiteral("/remote-upload"));
    QTRY_VERIFY(staging.isEmpty(QDir::Files));
    QVERIFY(!QFile::exists(m_home->stateDir() + "/dragndrop/cut.png"));

    // The answer comes although not one byte of the announced petabyte is sent.
    QByteArray oversized = head;
    oversized.replace("2000000", "1000000000000000");
    const QByteArray answer = raw(oversized, QByteArray(), false);
    QVERIFY2(answer.startsWith("HTTP/1.1 507"), answer.constData());
    QVERIFY(staging.isEmpty(QDir::Files));
}

void TestRemoteServer::invalidPlaylistRejected_data()
{
    QTest::addColumn<QByteArray>("playlist");
    QTest::addColumn<QByteArray>("message");
    QTest::newRow("not a playlist") << QByteArray("hello\n") << QByteArray("Not a playlist");
    QTest::newRow("other XML") << QByteArray("<html><loop/></html>") << QByteArray("schedule");
    QTest::newRow("schedule without loop")
        << QByteArray("<schedule a=\"1\"></schedule>") << QByteArray("no loop");
    QTest::newRow("flat list without entry")
        << QByteArray("#Vorsane playlist\n# nothing\n") << QByteArray("no entry");
    QTest::newRow("50,000 nested elements")
        << "<schedule a=\"1\"><loop id=\"0\">" + QByteArray("<i>").repeated(50000)
               + QByteArray("</i>").repeated(50000) + "</loop></schedule>"
        << QByteArray("nested deeper than 64 levels");
    QTest::newRow("65 levels, malformed after")
        << QByteArray("<schedule>").repeated(65) + "<" << QByteArray("nested deeper than 64");
    QTest::newRow("document type")
        << QByteArray("<!DOCTYPE schedule><schedule a=\"1\"><loop id=\"0\"><i "
                      "uri=\"http://a.example/\" type=\"url\"/></loop></schedule>")
        << QByteArray("document type declaration");
    QTest::newRow("entities") << QByteArray(
        "<?xml version=\"1.0\"?><!DOCTYPE schedule [<!ENTITY a \"aaaaaaaa\">"
        "<!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;\">]><schedule a=\"&b;\"><loop "
        "id=\"0\"><i uri=\"http://a.example/\" type=\"url\"/></loop></schedule>")
                              << QByteArray("document type declaration");
}

void TestRemoteServer::invalidPlaylistRejected()
{
    QFETCH(QByteArray, playlist);
    QFETCH(QByteArray, message);
    const QString path = m_home->filePath("conf/playlist");
    const QByteArray before = readFile(path);
    QNetworkReply *reply = request("POST", "/api/playlist", playlist);
    QCOMPARE(status(reply), 422);
    QVERIFY2(reply->readAll().contains(message), message.constData());
    QCOMPARE(readFile(path), before);
    QVERIFY(!m_slideshow.hasPendingDatagrams());

    // A good one replaces it, keeps the old one beside it and restarts the show.
    const QByteArray good = "#Vorsane playlist\nhttp://c.example/ 10\n";
    QCOMPARE(status(request("POST", "/api/playlist", good)), 200);
    QCOMPARE(readFile(path), good);
    QCOMPARE(readFile(path + ".previous"), before);
    QCOMPARE(action(nextDatagram()), RemoteProtocol::code(Action::Restart));
    QVERIFY(writeFile(path, before));
}

void TestRemoteServer::loopsListedSafely_data()
{
    QTest::addColumn<QByteArray>("playlist");
    QTest::addColumn<QByteArray>("loops");
    QTest::newRow("50,000 nested elements")
        << "<schedule a=\"1\"><loop id=\"0\">" + QByteArray("<i>").repeated(50000)
               + QByteArray("</i>").repeated(50000) + "</loop></schedule>"
        << QByteArray(R"({"loops":[]})");
    QTest::newRow("document type")
        << QByteArray("<!DOCTYPE schedule><schedule a=\"1\"><loop id=\"0\"><i "
                      "uri=\"http://a.example/\" type=\"url\"/></loop></schedule>")
        << QByteArray(R"({"loops":[]})");
    QTest::newRow("a kernel file that blocks its reader")
        << QByteArray("#Vorsane playlist\nfile:///proc/kmsg 7\nhttp://c.example/ 10\n")
        << QByteArray(R"("name":"http://c.example/")");
}

// The file the loops are listed from is written by others: what the editor refuses is not
// parsed from there either, and what it names is not read when it is no content.
void TestRemoteServer::loopsListedSafely()
{
    QFETCH(QByteArray, playlist);
    QFETCH(QByteArray, loops);
    if (playlist.contains("/proc/kmsg") && ::geteuid() != 0)
        QSKIP("only root may open /proc/kmsg, whose reads block");
    const QString path = m_home->filePath("conf/playlist");
    const QByteArray before = readFile(path);
    QVERIFY(writeFile(path, playlist));
    QNetworkReply *reply = request("GET", "/api/loops");
    QVERIFY(writeFile(path, before));
    QCOMPARE(status(reply), 200);
    const QByteArray answer = reply->readAll();
    QVERIFY2(answer.contains(loops), answer.constData());
}

void TestRemoteServer::concurrentUploadsKeepTheReserve()
{
    SmallDiskServer disk;
    // 100 MiB less the 64 MiB kept free: room for one 20 MiB upload, not for two.
    const QString why = disk.start(100);
    if (!why.isEmpty())
        QSKIP(qPrintable(why));
    const QPair<QByteArray, QByteArray> first = uploadFraming("first.png", 20 * MiB);
    QTcpSocket uploading;
    uploading.connectToHost(QHostAddress::LocalHost, disk.port());
    QVERIFY(uploading.waitForConnected());
    uploading.write(first.first + QByteArray(int(MiB), 'a'));
    // Under way once the server writes it aside.
    const QDir staging(disk.filePath(".vorsane-kiosk/remote-upload"));
    QTRY_VERIFY(!staging.isEmpty(QDir::Files));

    const QPair<QByteArray, QByteArray> second = uploadFraming("second.png", 20 * MiB);
    const QByteArray refused
        = flood(disk.port(), second.first, QByteArray(int(MiB), 'b'), 20 * MiB);
    QVERIFY2(refused.startsWith("HTTP/1.1 507"), refused.left(200).constData());

    for (int i = 1; i < 20; ++i)
        uploading.write(QByteArray(int(MiB), 'a'));
    uploading.write(first.second);
    QByteArray answer;
    while (!answer.contains("}") && uploading.waitForReadyRead(10000))
        answer += uploading.readAll();
    QVERIFY2(answer.startsWith("HTTP/1.1 200"), answer.constData());
    QCOMPARE(QFileInfo(disk.filePath(".vorsane-kiosk/dragndrop/first.png")).size(), 20 * MiB);
    QVERIFY(!QFile::exists(disk.filePath(".vorsane-kiosk/dragndrop/second.png")));
}

void TestRemoteServer::fullDiskLeavesThePlaylist()
{
    SmallDiskServer disk;
    const QString why = disk.start(4);
    if (!why.isEmpty())
        QSKIP(qPrintable(why));
    const QString path = disk.filePath("conf/playlist");
    const QByteArray before = readFile(path);
    QVERIFY(writeFile(path + ".previous", "#Vorsane playlist\nhttp://older.example/ 10\n"));
    QFile filler(disk.filePath("filler"));
    QVERIFY(filler.open(QIODevice::WriteOnly));
    while (filler.write(QByteArray(64 * 1024, 'f')) > 0 && filler.flush()) {
    }
    filler.close();

    const QByteArray replacement = "#Vorsane playlist\nhttp://new.example/ 10\n";
    const QByteArray post = "POST /api/playlist HTTP/1.1\r\nHost: x\r\n" + keyCookie
                            + "Content-Length: " + QByteArray::number(replacement.size())
                            + "\r\n\r\n" + replacement;
    const QByteArray answer = disk.exchange(post);
    QVERIFY2(answer.startsWith("HTTP/1.1 507"), answer.constData());
    QCOMPARE(readFile(path), before);
    QCOMPARE(readFile(path + ".previous"),
             QByteArray("#Vorsane playlist\nhttp://older.example/ 10\n"));
    QCOMPARE(QDir(disk.filePath("conf")).entryList(QDir::Files | QDir::Hidden),
             QStringList({"playlist", "playlist.previous", "preferences"}));
    QTRY_VERIFY(disk.output().contains("Remote server: could not write"));
    QVERIFY(!m_slideshow.hasPendingDatagrams());

    // With room again it goes through.
    QVERIFY(filler.remove());
    QVERIFY(disk.exchange(post).startsWith("HTTP/1.1 200"));
    QCOMPARE(readFile(path), replacement);
    QCOMPARE(readFile(path + ".previous"), before);
    QCOMPARE(action(nextDatagram()), RemoteProtocol::code(Action::Restart));
}

void TestRemoteServer::pageRunsInTheWebEngine()
{
    // The kiosk's own engine shows the page (the inline remote).
    prepareWebEngine();
    // The settings keep the command line they were read with.
    static const auto parser = makeParser(m_home->filePath("conf"));
    Settings::load(true, parser.get());
    WebView view(nullptr);
    auto *page = new CustomQWebPage(&view);
    view.setPage(page);
    QStringList errors;
    connect(page, &CustomQWebPage::scriptError, this, [&errors](const QString &message, int line) {
        errors << QStringLiteral("%1: %2").arg(line).arg(message);
    });
    QSignalSpy loaded(&view, &WebView::loadFinished);
    view.load(QUrl(QStringLiteral("http://127.0.0.1:%1/?k=%2")
                       .arg(m_port)
                       .arg(QString::fromLatin1(key.toPercentEncoding()))));
    QVERIFY(loaded.wait(10000));
    QCOMPARE(loaded.first().first().toBool(), true);
    // The loops of the playlist arrived through the API, so the scripts ran and the cookie works.
    QTRY_COMPARE(runScript(&view, "document.getElementById('loop').options.length").toInt(), 2);
    QCOMPARE(runScript(&view, "document.getElementById('loop').options[1].textContent").toString(),
             QStringLiteral("Loop 7"));
    // A local file is refused, and the page says so.
    runScript(&view, "document.getElementById('url').value = 'file:///etc/passwd';"
                     "document.getElementById('showUrl').click()");
    QTRY_VERIFY(runScript(&view, "document.getElementById('status').textContent")
                    .toString()
                    .startsWith(QLatin1String("Only http and https addresses")));
    runScript(&view, "document.getElementById('next').click()");
    // The page asks for screenshots on its own; the click's command comes among them.
    QList<int> actions;
    QTRY_VERIFY((m_slideshow.hasPendingDatagrams() && (actions << action(nextDatagram()), false))
                || actions.contains(RemoteProtocol::code(Action::Next)));
    QVERIFY2(errors.isEmpty(), qPrintable(errors.join('\n')));
}

void TestRemoteServer::kioskRunsAndEndsServer_data()
{
    QTest::addColumn<bool>("killed");
    QTest::newRow("interrupted") << false;
    QTest::newRow("killed") << true;
}

void TestRemoteServer::kioskRunsAndEndsServer()
{
    QFETCH(bool, killed);
    KioskProcess kiosk;
    const quint16 port = closedPort();
    QVERIFY(kiosk.start("#Vorsane playlist\n", "[remote]\nenabled=true\nkey=abc\nport="
                                                   + QByteArray::number(port) + "\n"));
    QTcpSocket probe;
    QTRY_VERIFY_WITH_TIMEOUT((probe.abort(), probe.connectToHost(QHostAddress::LocalHost, port),
                              probe.waitForConnected(200)),
                             15000);
    // The key is not on the server's command line.
    QVERIFY(kiosk.waitForLog("Remote server started:"));
    const QByteArray started = kiosk.log().mid(kiosk.log().indexOf("Remote server started:"));
    const QByteArray line = started.left(started.indexOf('\n'));
    QVERIFY2(line.contains("--port") && !line.contains("abc"), line.constData());
    // It holds nothing of the kiosk's: the web engine's sockets kept the engine's helpers alive
    // after a killed kiosk for as long as the server ran.
    const qint64 server = childRunning(kiosk.process().processId(), "/vorsane-remote");
    QVERIFY(server > 0);
    const QSet<QString> shared
        = openObjects(server).intersect(openObjects(kiosk.process().processId()));
    QVERIFY2(shared.isEmpty(), qPrintable(QStringList(shared.values()).join(", ")));
    if (killed) {
        kiosk.process().kill();
        kiosk.process().waitForFinished();
    } else {
        QCOMPARE(kiosk.interrupt(), 2);
    }
    QTRY_VERIFY_WITH_TIMEOUT((probe.abort(), probe.connectToHost(QHostAddress::LocalHost, port),
                              !probe.waitForConnected(200)),
                             10000);
}

// A player killed just after its start stops its server at once: the server must not go on
// listening, holding the port, because its loop had not begun when the stop came.
void TestRemoteServer::stopsRightAfterItsStart()
{
    const TempHome home;
    RemoteServer::Config config;
    config.port = closedPort();
    config.home = home.path();
    config.playlistPath = home.filePath("conf/playlist");
    config.loopsPath = config.playlistPath;
    for (int round = 0; round < 200; ++round) {
        auto server = std::make_unique<RemoteServer>(config);
        QVERIFY(server->start());
        std::future<void> stopped = std::async(std::launch::async, [&server] { server->stop(); });
        // A stop that never returns cannot be waited for: the test ends here.
        if (stopped.wait_for(std::chrono::seconds(10)) != std::future_status::ready)
            qFatal("Round %d: the remote server did not stop", round);
        QTcpSocket probe;
        probe.connectToHost(QHostAddress::LocalHost, config.port);
        QVERIFY2(!probe.waitForConnected(1000), qPrintable(QString("round %1").arg(round)));
    }
}

QTEST_MAIN(TestRemoteServer)
#include "tst_remoteserver.moc"
