#include "httpserver.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QSignalSpy>
#include <QTcpSocket>
#include <QtTest>

#include <memory>

using namespace testsupport;
using Behaviour = HttpServer::Behaviour;

Q_DECLARE_METATYPE(testsupport::HttpServer::Route)

namespace {

struct Answer
{
    QNetworkReply::NetworkError error = QNetworkReply::NoError;
    int status = 0;
    QByteArray body;
    QNetworkReply *reply = nullptr;
};

} // namespace

class TestHttpServer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void answersRoutes_data();
    void answersRoutes();
    void headSendsHeadersOnly();
    void countsPerMethodAndPath();
    void routeChangesBetweenRequests();
    void recordsRequestHeadersAndBody();
    void ranges_data();
    void ranges();
    void stallNeverAnswers();

private:
    Answer fetch(const QNetworkRequest &request, const QByteArray &method = "GET",
                 const QByteArray &body = QByteArray());
    Answer get(const QString &path) { return fetch(QNetworkRequest(m_server->url(path))); }

    std::unique_ptr<HttpServer> m_server;
    std::unique_ptr<QNetworkAccessManager> m_manager;
};

void TestHttpServer::init()
{
    m_server = std::make_unique<HttpServer>();
    m_manager = std::make_unique<QNetworkAccessManager>();
    QVERIFY(m_server->isListening());
    QVERIFY(m_server->port() > 0);
}

void TestHttpServer::cleanup()
{
    m_manager.reset();
    m_server.reset();
}

Answer TestHttpServer::fetch(const QNetworkRequest &request, const QByteArray &method,
                             const QByteArray &body)
{
    Answer answer;
    // Replies stay children of the manager, so they outlive the answer until cleanup().
    // A custom "HEAD" verb would make the manager wait for a body: head() knows better.
    QNetworkReply *reply = method == "HEAD" ? m_manager->head(request)
                                            : m_manager->sendCustomRequest(request, method, body);
    QSignalSpy finished(reply, &QNetworkReply::finished);
    if (!reply->isFinished() && !finished.wait(10000)) {
        answer.error = QNetworkReply::TimeoutError;
        answer.reply = reply;
        return answer;
    }
    answer.error = reply->error();
    answer.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    answer.body = reply->readAll();
    answer.reply = reply;
    return answer;
}

void TestHttpServer::answersRoutes_data()
{
    QTest::addColumn<HttpServer::Route>("route");
    QTest::addColumn<QString>("path");
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<bool>("failed");

    const QByteArray content(1000, 'c');
    HttpServer::Route plain{content};
    QTest::newRow("normal") << plain << "/file.bin" << 200 << content << false;
    QTest::newRow("unknown path") << plain << "/other.bin" << 404 << QByteArray("Not Found")
                                  << true;
    HttpServer::Route error{"broken", 500};
    QTest::newRow("error status") << error << "/file.bin" << 500 << QByteArray("broken") << true;
    HttpServer::Route cut{content, 200, {}, Behaviour::CutBody};
    QTest::newRow("cut in the middle") << cut << "/file.bin" << 200 << content.left(500) << true;
    cut.cutAfter = 10;
    QTest::newRow("cut after ten bytes") << cut << "/file.bin" << 200 << content.left(10) << true;
    HttpServer::Route longer{content, 200, {}, Behaviour::LongerLength};
    QTest::newRow("longer length than body") << longer << "/file.bin" << 200 << content << true;
}

void TestHttpServer::answersRoutes()
{
    QFETCH(HttpServer::Route, route);
    QFETCH(QString, path);
    QFETCH(int, status);
    QFETCH(QByteArray, body);
    QFETCH(bool, failed);

    m_server->setRoute("/file.bin", route);
    const Answer answer = get(path);
    QCOMPARE(answer.error != QNetworkReply::NoError, failed);
    QVERIFY(answer.error != QNetworkReply::TimeoutError);
    QCOMPARE(answer.status, status);
    QCOMPARE(answer.body, body);
    QCOMPARE(m_server->requestCount("GET", path), 1);
}

void TestHttpServer::headSendsHeadersOnly()
{
    m_server->setRoute("/a.jpg", "picture bytes", 200,
                       {{"Last-Modified", "Mon, 01 Jan 2024 10:00:00 GMT"}, {"ETag", "\"v1\""}});
    const Answer answer = fetch(QNetworkRequest(m_server->url("/a.jpg")), "HEAD");
    QCOMPARE(answer.error, QNetworkReply::NoError);
    QCOMPARE(answer.status, 200);
    QVERIFY(answer.body.isEmpty());
    QCOMPARE(answer.reply->header(QNetworkRequest::ContentLengthHeader).toInt(), 13);
    QCOMPARE(answer.reply->rawHeader("Last-Modified"), QByteArray("Mon, 01 Jan 2024 10:00:00 GMT"));
    QCOMPARE(answer.reply->rawHeader("ETag"), QByteArray("\"v1\""));
    QCOMPARE(m_server->requestCount("HEAD", "/a.jpg"), 1);
    QCOMPARE(m_server->requestCount("GET", "/a.jpg"), 0);
}

void TestHttpServer::countsPerMethodAndPath()
{
    m_server->setRoute("/a", "a");
    m_server->setRoute("/b", "b");
    get("/a");
    get("/a?version=2");
    get("/b");
    fetch(QNetworkRequest(m_server->url("/a")), "HEAD");

    QCOMPARE(m_server->requestCount("GET", "/a"), 2);
    QCOMPARE(m_server->requestCount("HEAD", "/a"), 1);
    QCOMPARE(m_server->requestCount("/a"), 3);
    QCOMPARE(m_server->requestCount("GET", "/b"), 1);
    QCOMPARE(m_server->requestCount("/c"), 0);
    QCOMPARE(m_server->totalRequests(), 4);
    QCOMPARE(m_server->requests("/a").at(1).target, QByteArray("/a?version=2"));

    m_server->clearRequests();
    QCOMPARE(m_server->totalRequests(), 0);
}

void TestHttpServer::routeChangesBetweenRequests()
{
    m_server->setRoute("/p.txt", "first", 200, {{"Last-Modified", "monday"}});
    Answer answer = get("/p.txt");
    QCOMPARE(answer.body, QByteArray("first"));
    QCOMPARE(answer.reply->rawHeader("Last-Modified"), QByteArray("monday"));

    m_server->setBody("/p.txt", "second and longer");
    m_server->setHeader("/p.txt", "last-modified", "tuesday");
    answer = get("/p.txt");
    QCOMPARE(answer.body, QByteArray("second and longer"));
    QCOMPARE(answer.reply->rawHeader("Last-Modified"), QByteArray("tuesday"));
    QCOMPARE(m_server->route("/p.txt").headers.size(), 1);

    m_server->setStatus("/p.txt", 503);
    m_server->removeHeader("/p.txt", "Last-Modified");
    answer = get("/p.txt");
    QCOMPARE(answer.status, 503);
    QVERIFY(answer.reply->rawHeader("Last-Modified").isEmpty());

    m_server->removeRoute("/p.txt");
    QCOMPARE(get("/p.txt").status, 404);
}

void TestHttpServer::recordsRequestHeadersAndBody()
{
    m_server->setRoute("/post", "ok");
    QNetworkRequest request(m_server->url("/post"));
    request.setRawHeader("If-None-Match", "\"abc\"");
    request.setRawHeader("X-Kiosk", "front desk");
    QSignalSpy received(m_server.get(), &HttpServer::requestReceived);
    fetch(request, "POST", "payload=1");

    QCOMPARE(received.count(), 1);
    QCOMPARE(received.at(0).at(0).toByteArray(), QByteArray("POST"));
    QCOMPARE(received.at(0).at(1).toString(), QString("/post"));
    const HttpServer::Request recorded = m_server->lastRequest("/post");
    QCOMPARE(recorded.method, QByteArray("POST"));
    QCOMPARE(recorded.header("if-none-match"), QByteArray("\"abc\""));
    QCOMPARE(recorded.header("X-KIOSK"), QByteArray("front desk"));
    QCOMPARE(recorded.body, QByteArray("payload=1"));
    QVERIFY(m_server->lastRequest("/never").method.isEmpty());
}

void TestHttpServer::ranges_data()
{
    QTest::addColumn<bool>("acceptRanges");
    QTest::addColumn<QByteArray>("range");
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QByteArray>("contentRange");

    const QByteArray all("0123456789");
    QTest::newRow("closed range") << true << QByteArray("bytes=2-5") << 206 << QByteArray("2345")
                                  << QByteArray("bytes 2-5/10");
    QTest::newRow("open range") << true << QByteArray("bytes=7-") << 206 << QByteArray("789")
                                << QByteArray("bytes 7-9/10");
    QTest::newRow("range past the end clipped") << true << QByteArray("bytes=8-50") << 206
                                                << QByteArray("89") << QByteArray("bytes 8-9/10");
    QTest::newRow("unsatisfiable")
        << true << QByteArray("bytes=10-") << 416 << QByteArray() << QByteArray("bytes */10");
    QTest::newRow("malformed range ignored")
        << true << QByteArray("bytes=x-y") << 200 << all << QByteArray();
    QTest::newRow("route without ranges")
        << false << QByteArray("bytes=2-5") << 200 << all << QByteArray();
    QTest::newRow("no range asked") << true << QByteArray() << 200 << all << QByteArray();
}

void TestHttpServer::ranges()
{
    QFETCH(bool, acceptRanges);
    QFETCH(QByteArray, range);
    QFETCH(int, status);
    QFETCH(QByteArray, body);
    QFETCH(QByteArray, contentRange);

    HttpServer::Route route{"0123456789"};
    route.acceptRanges = acceptRanges;
    m_server->setRoute("/v.mp4", route);
    QNetworkRequest request(m_server->url("/v.mp4"));
    if (!range.isEmpty())
        request.setRawHeader("Range", range);
    const Answer answer = fetch(request);
    QCOMPARE(answer.status, status);
    QCOMPARE(answer.body, body);
    QCOMPARE(answer.reply->rawHeader("Content-Range"), contentRange);
    QCOMPARE(answer.reply->rawHeader("Accept-Ranges").isEmpty(), !acceptRanges);
    QCOMPARE(m_server->lastRequest("/v.mp4").header("Range"), range);
}

void TestHttpServer::stallNeverAnswers()
{
    m_server->setRoute("/slow", {"never sent", 200, {}, Behaviour::Stall});
    QSignalSpy received(m_server.get(), &HttpServer::requestReceived);
    QNetworkReply *reply = m_manager->get(QNetworkRequest(m_server->url("/slow")));
    QVERIFY(received.wait(5000));
    QCOMPARE(m_server->stalledConnections(), 1);
    QVERIFY(!reply->isFinished());
    reply->abort();
    QTRY_COMPARE(m_server->stalledConnections(), 0);

    // A raw client sees the connection end without a single byte of answer.
    QTcpSocket client;
    client.connectToHost(QHostAddress::LocalHost, m_server->port());
    QVERIFY(client.waitForConnected(5000));
    client.write("GET /slow HTTP/1.1\r\nHost: localhost\r\n\r\n");
    QVERIFY(received.wait(5000));
    QCOMPARE(m_server->stalledConnections(), 1);
    QSignalSpy disconnected(&client, &QTcpSocket::disconnected);
    m_server->closeStalledConnections();
    QVERIFY(disconnected.wait(5000));
    QVERIFY(client.readAll().isEmpty());
    QCOMPARE(m_server->requestCount("GET", "/slow"), 2);
}

QTEST_GUILESS_MAIN(TestHttpServer)
#include "tst_httpserver.moc"
