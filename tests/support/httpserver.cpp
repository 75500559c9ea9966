#include "httpserver.h"

#include <QTcpSocket>

namespace testsupport {

HttpServer::HttpServer(QObject *parent)
    : QObject(parent)
{
    connect(&m_server, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket *socket = m_server.nextPendingConnection()) {
            m_buffers.insert(socket, QByteArray());
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onReadyRead(socket); });
            connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
                m_buffers.remove(socket);
                m_stalled.removeAll(socket);
                socket->deleteLater();
            });
        }
    });
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
    return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(m_server.serverPort()).arg(path));
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

void HttpServer::closeStalledConnections()
{
    const QList<QTcpSocket *> stalled = m_stalled;
    for (QTcpSocket *socket : stalled)
        socket->abort();
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
    request.path = QUrl::fromPercentEncoding(requestLine.value(1).split('?').first());
    for (int i = 1; i < lines.size(); ++i) {
        const int colon = lines.at(i).indexOf(':');
        if (colon > 0)
            request.headers.insert(lines.at(i).left(colon).trimmed().toLower(),
                                   lines.at(i).mid(colon + 1).trimmed());
    }
    const int end = headerEnd + 4 + request.header("Content-Length").toInt();
    if (buffer.size() < end)
        return false;
    buffer.remove(0, end);
    return true;
}

void HttpServer::answer(QTcpSocket *socket, const Request &request)
{
    const Route route = m_routes.value(request.path, Route{"Not Found", 404});
    if (route.behaviour == Behaviour::Stall) {
        m_buffers.remove(socket);
        m_stalled << socket;
        return;
    }
    const bool chunked = route.behaviour == Behaviour::Chunked && request.method != "HEAD";
    const bool cut = route.behaviour == Behaviour::CutBody || (chunked && route.cutAfter >= 0);
    // Clients read the status code only; the reason phrase is a placeholder.
    QByteArray head = "HTTP/1.1 " + QByteArray::number(route.status) + " X\r\n";
    bool lengthGiven = false;
    for (const auto &header : route.headers) {
        head += header.first + ": " + header.second + "\r\n";
        lengthGiven |= header.first.toLower() == "content-length";
    }
    if (chunked)
        head += "Transfer-Encoding: chunked\r\n";
    else if (!lengthGiven)
        head += "Content-Length: " + QByteArray::number(route.body.size()) + "\r\n";
    socket->write(head + (cut ? "Connection: close\r\n\r\n" : "\r\n"));

    QByteArray body = route.body;
    if (chunked) {
        if (route.cutAfter >= 0)
            body.truncate(route.cutAfter);
        for (int at = 0; at < body.size(); at += 4096) {
            const QByteArray chunk = body.mid(at, 4096);
            socket->write(QByteArray::number(chunk.size(), 16) + "\r\n" + chunk + "\r\n");
        }
        if (!cut)
            socket->write("0\r\n\r\n");
    } else if (request.method != "HEAD" && route.status >= 200 && route.status != 204
               && route.status != 304) {
        socket->write(route.behaviour == Behaviour::CutBody ? body.left(body.size() / 2) : body);
    }
    if (cut) {
        m_buffers.remove(socket);
        socket->disconnectFromHost();
    }
}

} // namespace testsupport
