#include "kioskprocess.h"
#include "remoteprotocol.h"
#include "testsupport.h"

#include <QHttpMultiPart>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QRegularExpression>
#include <QTcpSocket>
#include <QUdpSocket>
#include <QWebFrame>
#include <QWebPage>
#include <QtTest>

using namespace testsupport;
using RemoteProtocol::Action;

namespace {
const QByteArray key = "k&ey 42";

// Collects what the page's scripts report: errors end up here in QtWebKit.
class ConsolePage : public QWebPage
{
public:
    QStringList messages;

protected:
    void javaScriptConsoleMessage(const QString &message, int line, const QString &) override
    {
        messages << QStringLiteral("%1: %2").arg(line).arg(message);
    }
};
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
    void screenshot();
    void screenSwitch_data();
    void screenSwitch();
    void commandsBecomeDatagrams();
    void upload();
    void brokenUploadsLeaveNothing();
    void invalidPlaylistRejected_data();
    void invalidPlaylistRejected();
    void pageRunsInWebKit();
    void kioskRunsAndEndsServer_data();
    void kioskRunsAndEndsServer();

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
    QProcess m_server;
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

void TestRemoteServer::pageRunsInWebKit()
{
    ConsolePage page;
    QSignalSpy loaded(&page, &QWebPage::loadFinished);
    page.mainFrame()->load(QUrl(QStringLiteral("http://127.0.0.1:%1/?k=%2")
                                    .arg(m_port)
                                    .arg(QString::fromLatin1(key.toPercentEncoding()))));
    QVERIFY(loaded.wait(10000));
    QCOMPARE(loaded.first().first().toBool(), true);
    // The loops of the playlist arrived through the API, so the scripts ran and the cookie works.
    QTRY_COMPARE(page.mainFrame()
                     ->evaluateJavaScript("document.getElementById('loop').options.length")
                     .toInt(),
                 2);
    QCOMPARE(page.mainFrame()
                 ->evaluateJavaScript("document.getElementById('loop').options[1].textContent")
                 .toString(),
             QStringLiteral("Loop 7"));
    page.mainFrame()->evaluateJavaScript("document.getElementById('next').click()");
    // The page asks for screenshots on its own; the click's command comes among them.
    QList<int> actions;
    QTRY_VERIFY((m_slideshow.hasPendingDatagrams() && (actions << action(nextDatagram()), false))
                || actions.contains(RemoteProtocol::code(Action::Next)));
    QVERIFY2(page.messages.isEmpty(), qPrintable(page.messages.join('\n')));
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

QTEST_MAIN(TestRemoteServer)
#include "tst_remoteserver.moc"
