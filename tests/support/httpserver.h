#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QMap>
#include <QObject>
#include <QPair>
#include <QString>
#include <QTcpServer>
#include <QUrl>

class QTcpSocket;

namespace testsupport {

// A small HTTP/1.1 server on 127.0.0.1 with a free port. Routes are set per path (the query
// is ignored for matching); every request is recorded. Connections are kept alive, except after
// a broken answer (CutBody, LongerLength), which closes them.
class HttpServer : public QObject
{
    Q_OBJECT

public:
    enum class Behaviour {
        Normal,
        // Read the request and never answer.
        Stall,
        // Announce the full length, send part of the body (cutAfter bytes, default half), close.
        CutBody,
        // Announce more bytes than the body has (extraLength), send the body, close.
        // (An error status needs no behaviour: set Route::status.)
        LongerLength,
        // Send the body with Transfer-Encoding: chunked and no length; with cutAfter set, only
        // that many bytes and no final chunk, then close.
        Chunked,
    };

    struct Route
    {
        QByteArray body{};
        int status = 200;
        // Sent in this order after the status line; Content-Length is added unless given.
        QList<QPair<QByteArray, QByteArray>> headers{};
        Behaviour behaviour = Behaviour::Normal;
        // Answer "Range: bytes=" requests with 206 and the slice asked for.
        bool acceptRanges = false;
        int cutAfter = -1;
        int extraLength = 100;
    };

    struct Request
    {
        QByteArray method;
        QString path;
        // Path and query as sent.
        QByteArray target;
        // Header names lower-cased.
        QMap<QByteArray, QByteArray> headers;
        QByteArray body;

        QByteArray header(const QByteArray &name) const { return headers.value(name.toLower()); }
    };

    explicit HttpServer(QObject *parent = nullptr);
    ~HttpServer() override;

    bool isListening() const { return m_server.isListening(); }
    quint16 port() const { return m_server.serverPort(); }
    QUrl url(const QString &path) const;

    void setRoute(const QString &path, const Route &route);
    // A plain answer: body, status and extra headers.
    void setRoute(const QString &path, const QByteArray &body, int status = 200,
                  const QList<QPair<QByteArray, QByteArray>> &headers = {});
    void removeRoute(const QString &path);
    // Route changes between requests; the path must have a route already.
    void setBody(const QString &path, const QByteArray &body);
    void setStatus(const QString &path, int status);
    void setBehaviour(const QString &path, Behaviour behaviour);
    // Replaces a header of that name, or adds it.
    void setHeader(const QString &path, const QByteArray &name, const QByteArray &value);
    void removeHeader(const QString &path, const QByteArray &name);
    Route route(const QString &path) const { return m_routes.value(path); }

    QList<Request> requests() const { return m_requests; }
    QList<Request> requests(const QString &path) const;
    Request lastRequest(const QString &path) const;
    // An empty method counts every method.
    int requestCount(const QByteArray &method, const QString &path) const;
    int requestCount(const QString &path) const { return requestCount(QByteArray(), path); }
    int totalRequests() const { return m_requests.size(); }
    void clearRequests() { m_requests.clear(); }

    // Connections held open by Stall routes.
    int stalledConnections() const;
    void closeStalledConnections();

Q_SIGNALS:
    void requestReceived(const QByteArray &method, const QString &path);

private:
    void onNewConnection();
    void onReadyRead(QTcpSocket *socket);
    bool parseRequest(QByteArray &buffer, Request &request);
    void answer(QTcpSocket *socket, const Request &request);
    void send(QTcpSocket *socket, int status, const QList<QPair<QByteArray, QByteArray>> &headers,
              const QByteArray &body, qint64 contentLength, bool withBody);

    QTcpServer m_server;
    QMap<QString, Route> m_routes;
    QList<Request> m_requests;
    QHash<QTcpSocket *, QByteArray> m_buffers;
    QList<QTcpSocket *> m_stalled;
};

} // namespace testsupport
