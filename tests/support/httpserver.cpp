#include "httpserver.h"

#include <QTcpSocket>

namespace testsupport {

namespace {

// Clients read the status code only; the phrase is for people reading a capture.
QByteArray reasonPhrase(int status)
{
    static const QHash<int, QByteArray> phrases{
        {200, "OK"}, {206, "Partial Content"}, {301, "Moved Permanently"},
        {302, "Found"}, {404, "Not Found"}, {500, "Internal Server Error"}};
    return phrases.value(status, "Status");
}

bool hasHeader(const QList<QPair<QByteArray, QByteArray>> &headers, const QByteArray &name)
{
    for (const auto &header : headers) {
        if (header.first.toLower() == name.toLower())
            return true;
    }
    return false;
}

// "bytes=first-last" or "bytes=first-"; suffix ranges and lists are not needed by the tests.
bool parseRange(const QByteArray &value, qint64 size, qint64 &first, qint64 &last)
{
    if (!value.startsWith("bytes="))
        return false;
    const QList<QByteArray> bounds = value.mid(6).trimmed().split('-');
    if (bounds.size() != 2 || bounds.at(0).isEmpty())
        return false;
    bool ok = false;
    first = bounds.at(0).toLongLong(&ok);
    if (!ok)
        return false;
    last = size - 1;
    if (!bounds.at(1).isEmpty()) {
        last = bounds.at(1).toLongLong(&ok);
        if (!ok || last < first)
            return false;
        last = qMin(last, size - 1);
    }
    return true;
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

void HttpServer::removeRoute(const QString &path)
{
    m_routes.remove(path);
}

void HttpServer::setBody(const QString &path, const QByteArray &body)
{
    m_routes[path].body = body;
}

void HttpServer::setStatus(const QString &path, int status)
{
    m_routes[path].status = status;
}

void HttpServer::setBehaviour(const QString &path, Behaviour behaviour)
{
    m_routes[path].behaviour = behaviour;
}

void HttpServer::setHeader(const QString &path, const QByteArray &name, const QByteArray &value)
{
    removeHeader(path, name);
    m_routes[path].headers.append(qMakePair(name, value));
}

void HttpServer::removeHeader(const QString &path, const QByteArray &name)
{
    auto &headers = m_routes[path].headers;
    for (int i = headers.size() - 1; i >= 0; --i) {
        if (headers.at(i).first.toLower() == name.toLower())
            headers.removeAt(i);
    }
}

QList<HttpServer::Request> HttpServer::requests(const QString &path) const
{
    QList<Request> result;
    for (const Request &request : m_requests) {
        if (request.path == path)
            result << request;
    }
    return result;
}

HttpServer::Request HttpServer::lastRequest(const QString &path) const
{
    const QList<Request> matching = requests(path);
    return matching.isEmpty() ? Request() : matching.last();
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
        QByteArray head = "HTTP/1.1 " + QByteArray::number(route.status) + ' '
                          + reasonPhrase(route.status) + "\r\n";
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
    int status = route.status;
    QByteArray body = route.body;
    QList<QPair<QByteArray, QByteArray>> headers = route.headers;
    if (route.acceptRanges) {
        headers.append(qMakePair(QByteArray("Accept-Ranges"), QByteArray("bytes")));
        qint64 first = 0;
        qint64 last = 0;
        const QByteArray range = request.header("Range");
        if (status == 200 && !range.isEmpty() && parseRange(range, body.size(), first, last)) {
            const QByteArray total = QByteArray::number(body.size());
            if (first >= body.size()) {
                status = 416;
                headers.append(qMakePair(QByteArray("Content-Range"), "bytes */" + total));
                body.clear();
            } else {
                status = 206;
                headers.append(qMakePair(QByteArray("Content-Range"),
                                         "bytes " + QByteArray::number(first) + '-'
                                             + QByteArray::number(last) + '/' + total));
                body = body.mid(int(first), int(last - first + 1));
            }
        }
    }

    const bool broken
        = route.behaviour == Behaviour::CutBody || route.behaviour == Behaviour::LongerLength;
    qint64 contentLength = body.size();
    if (route.behaviour == Behaviour::LongerLength)
        contentLength += route.extraLength;
    if (route.behaviour == Behaviour::CutBody)
        body = body.left(route.cutAfter >= 0 ? route.cutAfter : body.size() / 2);
    if (broken)
        headers.append(qMakePair(QByteArray("Connection"), QByteArray("close")));

    const bool bodyAllowed = status != 204 && status != 304 && status >= 200;
    send(socket, status, headers, body, contentLength, bodyAllowed && request.method != "HEAD");
    if (broken) {
        m_buffers.remove(socket);
        socket->disconnectFromHost();
    }
}

void HttpServer::send(QTcpSocket *socket, int status,
                      const QList<QPair<QByteArray, QByteArray>> &headers, const QByteArray &body,
                      qint64 contentLength, bool withBody)
{
    QByteArray head
        = "HTTP/1.1 " + QByteArray::number(status) + ' ' + reasonPhrase(status) + "\r\n";
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
