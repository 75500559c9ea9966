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
// a broken answer (CutBody, a cut Chunked body), which closes them.
class HttpServer : public QObject
{
    Q_OBJECT

public:
    enum class Behaviour {
        Normal,
        // Read the request and never answer.
        Stall,
        // Announce the full length, send half the body, close. (An error status needs no
        // behaviour: set Route::status.)
        CutBody,
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
        int cutAfter = -1;
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
    // A route change between requests; the path must have a route already.
    void setBehaviour(const QString &path, Behaviour behaviour);

    Request lastRequest(const QString &path) const;
    // An empty method counts every method.
    int requestCount(const QByteArray &method, const QString &path) const;
    int requestCount(const QString &path) const { return requestCount(QByteArray(), path); }

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
