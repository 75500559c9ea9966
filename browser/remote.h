#pragma once

#include "remoteprotocol.h"

#include <QByteArrayList>
#include <QUdpSocket>

class QJSValue;

// Receives the remote-control datagrams on 127.0.0.1:54545 and turns each into one signal.
class Remote : public QUdpSocket
{
    Q_OBJECT

public:
    static constexpr quint16 Port = RemoteProtocol::DatagramPort;
    // A datagram whose evaluation, reads included, takes longer than this counts as a script error.
    static constexpr int MaxEvaluationMs = 1000;

    explicit Remote(QObject *parent = nullptr);

    // The value is a command as the datagram reader copies it: {action, data: {filePath} or
    // {index, loop}}, plain values only.
    void processGoTo(const QJSValue &value);
    // Carries out one datagram's command.
    void handle(const QByteArray &datagram);

public Q_SLOTS:
    void processMessage();

Q_SIGNALS:
    void pause();
    void next();
    void goTo(int index, int loop);
    void goTo(QString path);
    void screenshot();
    void restart();
    void text(QString text, int duration);
    void loop();
    void readUrl(QString url, int duration);

private:
    // Commands waiting for their turn; more than this many waiting are dropped.
    static constexpr int MaxWaiting = 64;

    void handleOne();
    void removeDroppedFile(const QString &relativePath);

    QByteArrayList m_waiting;
    bool m_turnScheduled = false;
};
