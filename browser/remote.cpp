#include "remote.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QScriptEngine>
#include <QScriptValue>
#include <QTimer>

namespace {
// Reads the datagram's object (appended after this text, then a line feed and "))") into plain
// values: the
// action (a number, a string, or nothing) and, for the action, its converted arguments.
const char commandReader[] = R"((function (v) {
    var out = {};
    if (v === null || (typeof v !== 'object' && typeof v !== 'function'))
        return out;
    var a = v.action;
    if (typeof a === 'number')
        out.action = isFinite(a) ? (a >= 0 ? Math.floor(a + 0.5) : Math.ceil(a - 0.5)) : 0;
    else if (typeof a === 'string')
        out.action = /^\s*[+-]?\d+\s*$/.test(a) ? parseInt(a, 10) : 0;
    else
        out.action = a === true ? 1 : 0;
    var d = v.data;
    var isObject = d !== null && (typeof d === 'object' || typeof d === 'function');
    var text = function (x) { return isObject ? String(x) : ''; };
    var integer = function (x) {
        var n = Number(x);
        return isNaN(n) ? 0 : (n < 0 ? Math.ceil(n) : Math.floor(n));
    };
    switch (out.action) {
    case 2:
        out.hasFilePath = isObject && ('filePath' in d);
        if (out.hasFilePath)
            out.filePath = String(d.filePath);
        else {
            out.index = isObject ? integer(d.index) : 0;
            out.loop = isObject ? integer(d.loop) : 0;
        }
        break;
    case 5:
        out.text = isObject ? text(d.text) : '';
        out.duration = isObject ? d.duration | 0 : 0;
        break;
    case 7:
        out.url = isObject ? text(d.url) : '';
        out.duration = isObject ? d.duration | 0 : 0;
        break;
    case 8:
        out.path = isObject ? text(d.path) : '';
        break;
    }
    return out;
})((
)";
} // namespace

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
        datagram.resize(int(qMax<qint64>(pendingDatagramSize(), 0)));
        QHostAddress sender;
        quint16 senderPort = 0;
        if (readDatagram(datagram.data(), datagram.size(), &sender, &senderPort) < 0)
            continue;
        if (m_waiting.size() >= MaxWaiting) {
            qDebug() << "Remote datagram dropped: too many commands waiting.";
            continue;
        }
        m_waiting.append(datagram);
    }
    // One command per pass of the event loop: a steady stream of them (a page asking for
    // screenshots as fast as they are written) must not keep the show's timers from running.
    if (!m_waiting.isEmpty() && !m_turnScheduled) {
        m_turnScheduled = true;
        QTimer::singleShot(0, this, &Remote::handleOne);
    }
}

void Remote::handleOne()
{
    m_turnScheduled = false;
    if (m_waiting.isEmpty())
        return;
    handle(m_waiting.takeFirst());
    if (!m_waiting.isEmpty() && !m_turnScheduled) {
        m_turnScheduled = true;
        QTimer::singleShot(0, this, &Remote::handleOne);
    }
}

void Remote::handle(const QByteArray &datagram)
{
    const int nul = datagram.indexOf('\0');
    const QString text = QString::fromLatin1(nul >= 0 ? datagram.left(nul) : datagram);
    qDebug() << "Received DataGram:" << text;

    QScriptEngine engine;
    // An endless script in a datagram must not freeze the show: the engine hands control back
    // to the event loop now and then, and a timer stops the evaluation. Every step that can run
    // the sender's code (getters, toString, valueOf) happens inside that one evaluation, which
    // hands back plain values only.
    engine.setProcessEventsInterval(50);
    QTimer deadline;
    deadline.setSingleShot(true);
    connect(&deadline, &QTimer::timeout, &engine, [&engine] { engine.abortEvaluation(); });
    deadline.start(MaxEvaluationMs);
    const QScriptValue fields = engine.evaluate(QLatin1String(commandReader) + text
                                                + QLatin1String("\n))"));
    const bool aborted = !deadline.isActive();
    deadline.stop();
    if (aborted)
        qDebug() << "Remote datagram evaluation aborted after" << MaxEvaluationMs << "ms.";
    // A datagram that is not an object literal, or whose evaluation was cut off, acts as a
    // pause, as a script error always has.
    if (aborted || engine.hasUncaughtException() || !fields.isObject()) {
        Q_EMIT pause();
        return;
    }

    const int action = fields.property(QStringLiteral("action")).toInt32();
    const auto field = [&fields](const char *name) {
        return fields.property(QLatin1String(name));
    };
    switch (action) {
    case 0:
        Q_EMIT pause();
        break;
    case 1:
        Q_EMIT next();
        break;
    case 2:
        if (field("hasFilePath").toBool())
            Q_EMIT goTo(field("filePath").toString());
        else
            Q_EMIT goTo(int(field("index").toInteger()), int(field("loop").toInteger()));
        break;
    case 3:
        Q_EMIT screenshot();
        break;
    case 4:
        Q_EMIT restart();
        break;
    case 5: {
        const QString message = field("text").toString();
        if (!message.isEmpty())
            Q_EMIT this->text(message, field("duration").toInt32());
        break;
    }
    case 6:
        Q_EMIT loop();
        break;
    case 7:
        Q_EMIT readUrl(field("url").toString(), field("duration").toInt32());
        break;
    case 8:
        removeDroppedFile(field("path").toString());
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
    // Any local process can send datagrams: only a file inside the folder may go.
    const QDir folder(QString::fromLocal8Bit(qgetenv("HOME"))
                      + QLatin1String("/.vorsane-kiosk/dragndrop"));
    const QString path = folder.filePath(relativePath);
    const QString inside = QDir::cleanPath(folder.absolutePath()) + QLatin1Char('/');
    if (relativePath.isEmpty() || !QDir::cleanPath(path).startsWith(inside)
        || !QFileInfo(path).canonicalFilePath().startsWith(folder.canonicalPath() + QLatin1Char('/'))) {
        qDebug() << "Drag and drop file not removed because doesn't exists:" << path;
        return;
    }
    QFile::remove(path);
    qDebug() << "Remove drag and drop file:" << path;
}
