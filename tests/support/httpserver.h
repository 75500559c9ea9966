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
        // that many bytes and no final chunk, then close. HEAD is answered with the length.
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
        // Header names lower-cased.
        QMap<QByteArray, QByteArray> headers;

        QByteArray header(const QByteArray &name) const { return headers.value(name.toLower()); }
    };

    explicit HttpServer(QObject *parent = nullptr);
    ~HttpServer() override;

    QUrl url(const QString &path) const;

    void setRoute(const QString &path, const Route &route) { m_routes.insert(path, route); }
    // A plain answer: body, status and extra headers.
    void setRoute(const QString &path, const QByteArray &body, int status = 200,
                  const QList<QPair<QByteArray, QByteArray>> &headers = {})
    {
        m_routes.insert(path, Route{body, status, headers});
    }
    // A route change between requests; the path must have a route already.
    void setBehaviour(const QString &path, Behaviour behaviour)
    {
        m_routes[path].behaviour = behaviour;
    }

    Request lastRequest(const QString &path) const;
    // An empty method counts every method.
    int requestCount(const QByteArray &method, const QString &path) const;
    int requestCount(const QString &path) const { return requestCount(QByteArray(), path); }

    // Connections held open by Stall routes.
    int stalledConnections() const { return m_stalled.size(); }
    void closeStalledConnections();

Q_SIGNALS:
    void requestReceived(const QByteArray &method, const QString &path);

private:
    void onReadyRead(QTcpSocket *socket);
    // Takes one whole request off the front of the buffer.
    bool parseRequest(QByteArray &buffer, Request &request);
    void answer(QTcpSocket *socket, const Request &request);

    QTcpServer m_server;
    QMap<QString, Route> m_routes;
    QList<Request> m_requests;
    QHash<QTcpSocket *, QByteArray> m_buffers;
    QList<QTcpSocket *> m_stalled;
};

} // namespace testsupport
