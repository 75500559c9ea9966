#pragma once

#include "remoteprotocol.h"

#include <QList>
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

    // Where a command comes from. A command from the fleet's broker that is no command object
    // is only logged, where a datagram's acts as a pause; the fleet is told when each is done.
    enum class Origin { Datagram, Fleet };

    explicit Remote(QObject *parent = nullptr);

    // The value is a command as the datagram reader copies it: {action, data: {filePath} or
    // {index, loop}}, plain values only.
    void processGoTo(const QJSValue &value);
    // Carries out one datagram's command; the action carried out, -1 for none.
    int handle(const QByteArray &datagram, Origin origin = Origin::Datagram);
    // Waits its turn behind the commands already waiting, as a datagram does.
    void enqueue(const QByteArray &command, Origin origin);

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
    // Switch the screen on or off.
    void screenPower(bool on);
    // A command from the fleet's broker is done: action -1 when it was not carried out,
    // aborted when its evaluation ran out of time.
    void fleetCommandDone(int action, bool aborted);

private:
    // Commands waiting for their turn; more than this many waiting are dropped.
    static constexpr int MaxWaiting = 64;
    // Datagrams that are not plain JSON objects (each still acts, a malformed one as a pause)
    // taken per second; a flood of them beyond that is dropped, so that it can neither crowd
    // out real commands nor keep the show pausing and resuming.
    static constexpr int MaxOddPerSecond = 8;

    struct Waiting
    {
        QByteArray command;
        Origin origin;
        // A plain JSON object: never crowded out by a flood of other datagrams.
        bool plain;
    };

    void handleOne();
    void removeDroppedFile(const QString &relativePath);

    QList<Waiting> m_waiting;
    bool m_lastAborted = false;
    qint64 m_oddSecond = -1;
    int m_oddInSecond = 0;
    int m_oddDropped = 0;
    bool m_turnScheduled = false;
};
