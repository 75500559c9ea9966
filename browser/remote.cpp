#include "remote.h"

#include <QDebug>
#include <QFile>
#include <QScriptEngine>
#include <QScriptValue>
#include <QTimer>

Remote::Remote(QObject *parent)
    : QUdpSocket(parent)
{
    qDebug() << "Remote handler created.";
    if (!bind(QHostAddress::LocalHost, Port))
        qWarning() << "Remote control port" << Port << "unavailable:" << errorString();
    connect(this, &QIODevice::readyRead, this, &Remote::processMessage);
}

void Remote::processMessage()
{
    while (hasPendingDatagrams()) {
        QByteArray datagram;
        const qint64 size = pendingDatagramSize();
        datagram.resize(int(qMax<qint64>(size, 0)));
        QHostAddress sender;
        quint16 senderPort = 0;
        if (readDatagram(datagram.data(), datagram.size(), &sender, &senderPort) < 0)
            continue;
        handle(datagram);
    }
}

void Remote::handle(const QByteArray &datagram)
{
    const int nul = datagram.indexOf('\0');
    const QString text = QString::fromLatin1(nul >= 0 ? datagram.left(nul) : datagram);
    qDebug() << "Received DataGram:" << text;

    QScriptEngine engine;
    // An endless script in a datagram must not freeze the show: the engine hands control back
    // to the event loop now and then, and a timer stops the evaluation.
    engine.setProcessEventsInterval(50);
    QTimer deadline;
    deadline.setSingleShot(true);
    connect(&deadline, &QTimer::timeout, &engine, [&engine] { engine.abortEvaluation(); });
    deadline.start(MaxEvaluationMs);
    QScriptValue value = engine.evaluate(QLatin1Char('(') + text + QLatin1Char(')'));
    if (!deadline.isActive())
        qDebug() << "Remote datagram evaluation aborted after" << MaxEvaluationMs << "ms.";
    deadline.stop();

    const int action = value.property(QStringLiteral("action")).toVariant().toInt();
    const QScriptValue data = value.property(QStringLiteral("data"));
    switch (action) {
    case 0:
        Q_EMIT pause();
        break;
    case 1:
        Q_EMIT next();
        break;
    case 2:
        processGoTo(&value);
        break;
    case 3:
        Q_EMIT screenshot();
        break;
    case 4:
        Q_EMIT restart();
        break;
    case 5: {
        const QString message = data.property(QStringLiteral("text")).toString();
        if (!message.isEmpty())
            Q_EMIT this->text(message, data.property(QStringLiteral("duration")).toInt32());
        break;
    }
    case 6:
        Q_EMIT loop();
        break;
    case 7:
        Q_EMIT readUrl(data.property(QStringLiteral("url")).toString(),
                       data.property(QStringLiteral("duration")).toInt32());
        break;
    case 8:
        removeDroppedFile(data.property(QStringLiteral("path")).toString());
        break;
    default:
        break;
    }
}

void Remote::processGoTo(QScriptValue *value)
{
    const QScriptValue data = value->property(QStringLiteral("data"));
    const QScriptValue filePath = data.property(QStringLiteral("filePath"));
    if (!filePath.isValid()) {
        Q_EMIT goTo(int(data.property(QStringLiteral("index")).toInteger()),
                    int(data.property(QStringLiteral("loop")).toInteger()));
        return;
    }
    Q_EMIT goTo(filePath.toString());
}

void Remote::removeDroppedFile(const QString &relativePath)
{
    // The name is used as the sender gave it; the sender is the trusted local server.
    const QString path = QString::fromLocal8Bit(qgetenv("HOME"))
                         + QLatin1String("/.vorsane-kiosk/dragndrop/") + relativePath;
    if (QFile::exists(path)) {
        QFile::remove(path);
        qDebug() << "Remove drag and drop file:" << path;
    } else {
        qDebug() << "Drag and drop file not removed because doesn't exists:" << path;
    }
}
