#include "httpserver.h"

#include <QTcpSocket>

namespace testsupport {

namespace {

bool hasHeader(const QList<QPair<QByteArray, QByteArray>> &headers, const QByteArray &name)
{
    for (const auto &header : headers) {
        if (header.first.toLower() == name.toLower())
            return true;
    }
    return false;
}

} // namespace

HttpServer::HttpServer(QObject *parent)
    : QObject(parent)
{
    connect(&m_server, &QTcpServer::newConnection, this, &HttpServer::onNewConnection);
    m_server.listen(QHostAddress::LocalHost, 0);
}

HttpServer::~HttpServer()
{
    m_server.close();
    const QList<QTcpSocket *> sockets = m_server.findChildren<QTcpSocket *>();
    for (QTcpSocket *socket : sockets) {
        disconnect(socket, nullptr, this, nullptr);
        socket->abort();
        delete socket;
    }
}

QUrl HttpServer::url(const QString &path) const
{
    QUrl result;
    result.setScheme(QStringLiteral("http"));
    result.setHost(QStringLiteral("127.0.0.1"));
    result.setPort(port());
    const int query = path.indexOf(QLatin1Char('?'));
    result.setPath(query < 0 ? path : path.left(query));
    if (query >= 0)
        result.setQuery(path.mid(query + 1));
    return result;
}

void HttpServer::setRoute(const QString &path, const Route &route)
{
    m_routes.insert(path, route);
}

void HttpServer::setRoute(const QString &path, const QByteArray &body, int status,
                          const QList<QPair<QByteArray, QByteArray>> &headers)
{
    Route route;
    route.body = body;
    route.status = status;
    route.headers = headers;
    setRoute(path, route);
}

void HttpServer::setBehaviour(const QString &path, Behaviour behaviour)
{
    m_routes[path].behaviour = behaviour;
}

HttpServer::Request HttpServer::lastRequest(const QString &path) const
{
    for (int i = m_requests.size() - 1; i >= 0; --i) {
        if (m_requests.at(i).path == path)
            return m_requests.at(i);
    }
    return Request();
}

int HttpServer::requestCount(const QByteArray &method, const QString &path) const
{
    int count = 0;
    for (const Request &request : m_requests) {
        if (request.path == path && (method.isEmpty() || request.method == method))
            ++count;
    }
    return count;
}

int HttpServer::stalledConnections() const
{
    return m_stalled.size();
}

void HttpServer::closeStalledConnections()
{
    const QList<QTcpSocket *> stalled = m_stalled;
    for (QTcpSocket *socket : stalled)
        socket->abort();
}

void HttpServer::onNewConnection()
{
    while (QTcpSocket *socket = m_server.nextPendingConnection()) {
        m_buffers.insert(socket, QByteArray());
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onReadyRead(socket); });
        connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
            m_buffers.remove(socket);
            m_stalled.removeAll(socket);
            socket->deleteLater();
        });
    }
}

void HttpServer::onReadyRead(QTcpSocket *socket)
{
    auto buffer = m_buffers.find(socket);
    if (buffer == m_buffers.end()) {
        // Stalled or being closed: whatever else comes is ignored.
        socket->readAll();
        return;
    }
    buffer->append(socket->readAll());
    Request request;
    while (m_buffers.contains(socket) && parseRequest(m_buffers[socket], request)) {
        m_requests.append(request);
        Q_EMIT requestReceived(request.method, request.path);
        answer(socket, request);
        request = Request();
    }
}

bool HttpServer::parseRequest(QByteArray &buffer, Request &request)
{
    const int headerEnd = buffer.indexOf("\r\n\r\n");
    if (headerEnd < 0)
        return false;
    const QList<QByteArray> lines = buffer.left(headerEnd).split('\n');
    const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
    request.method = requestLine.value(0);
    request.target = requestLine.value(1);
    const int query = request.target.indexOf('?');
    request.path
        = QUrl::fromPercentEncoding(query < 0 ? request.target : request.target.left(query));
    for (int i = 1; i < lines.size(); ++i) {
        const int colon = lines.at(i).indexOf(':');
        if (colon > 0)
            request.headers.insert(lines.at(i).left(colon).trimmed().toLower(),
                                   lines.at(i).mid(colon + 1).trimmed());
    }
    const int bodyStart = headerEnd + 4;
    const int bodyLength = request.header("Content-Length").toInt();
    if (buffer.size() - bodyStart < bodyLength)
        return false;
    request.body = buffer.mid(bodyStart, bodyLength);
    buffer.remove(0, bodyStart + bodyLength);
    return true;
}

void HttpServer::answer(QTcpSocket *socket, const Request &request)
{
    if (!m_routes.contains(request.path)) {
        send(socket, 404, {}, "Not Found", 9, request.method != "HEAD");
        return;
    }

    const Route route = m_routes.value(request.path);
    if (route.behaviour == Behaviour::Stall) {
        m_buffers.remove(socket);
        m_stalled << socket;
        return;
    }

    if (route.behaviour == Behaviour::Chunked && request.method != "HEAD") {
        QByteArray head = "HTTP/1.1 " + QByteArray::number(route.status) + " X\r\n";
        for (const auto &header : route.headers)
            head += header.first + ": " + header.second + "\r\n";
        socket->write(head + "Transfer-Encoding: chunked\r\n\r\n");
        const bool cut = route.cutAfter >= 0;
        const QByteArray body = cut ? route.body.left(route.cutAfter) : route.body;
        for (int at = 0; at < body.size(); at += 4096) {
            const QByteArray chunk = body.mid(at, 4096);
            socket->write(QByteArray::number(chunk.size(), 16) + "\r\n" + chunk + "\r\n");
        }
        if (!cut) {
            socket->write("0\r\n\r\n");
            return;
        }
        m_buffers.remove(socket);
        socket->disconnectFromHost();
        return;
    }
    const bool cut = route.behaviour == Behaviour::CutBody;
    QList<QPair<QByteArray, QByteArray>> headers = route.headers;
    if (cut)
        headers.append(qMakePair(QByteArray("Connection"), QByteArray("close")));
    const bool bodyAllowed = route.status != 204 && route.status != 304 && route.status >= 200;
    send(socket, route.status, headers, cut ? route.body.left(route.body.size() / 2) : route.body,
         route.body.size(), bodyAllowed && request.method != "HEAD");
    if (cut) {
        m_buffers.remove(socket);
        socket->disconnectFromHost();
    }
}

void HttpServer::send(QTcpSocket *socket, int status,
                      const QList<QPair<QByteArray, QByteArray>> &headers, const QByteArray &body,
                      qint64 contentLength, bool withBody)
{
    // Clients read the status code only; the reason phrase is a placeholder.
    QByteArray head = "HTTP/1.1 " + QByteArray::number(status) + " X\r\n";
    for (const auto &header : headers)
        head += header.first + ": " + header.second + "\r\n";
    if (!hasHeader(headers, "Content-Length"))
        head += "Content-Length: " + QByteArray::number(contentLength) + "\r\n";
    head += "\r\n";
    socket->write(head);
    if (withBody)
        socket->write(body);
}

} // namespace testsupport
