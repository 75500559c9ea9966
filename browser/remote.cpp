#include "remote.h"

#include "statepaths.h"

#include <QDateTime>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJSEngine>
#include <QJSValue>
#include <QJsonDocument>
#include <QTimer>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace {
using RemoteProtocol::Action;
using RemoteProtocol::code;

// Called with the action codes, in a fresh engine before any of the datagram's code runs, it
// gives the function that evaluates a datagram's text and copies what its action needs into an
// object of the wire's shape ({action, data: {...}}) holding plain values only. Every step that
// can run the sender's code (getters, toString, valueOf, proxies) happens inside that one call:
// the built-ins it relies on are taken before the sender could replace them, and the copy has no
// prototype, so reading it afterwards runs nothing. A script error, like anything that is not an
// object, gives action 0.
const char commandReader[] = R"((function (actions) {
    var evaluate = eval, create = Object.create, toText = String, toNumber = Number,
        floor = Math.floor, ceil = Math.ceil, finite = isFinite, notANumber = isNaN,
        parse = parseInt, isDigits = RegExp.prototype.test.bind(/^\s*[+-]?\d+\s*$/);
    var GoTo = actions.GoTo, Text = actions.Text, ReadUrl = actions.ReadUrl,
        RemoveDroppedFile = actions.RemoveDroppedFile, ScreenPower = actions.ScreenPower;
    var isObject = function (x) {
        return x !== null && (typeof x === 'object' || typeof x === 'function');
    };
    // As a number, a string holding one, or nothing: what QVariant::toInt makes of it.
    var action = function (a) {
        if (typeof a === 'number')
            return finite(a) ? (a >= 0 ? floor(a + 0.5) : ceil(a - 0.5)) : 0;
        if (typeof a === 'string')
            return isDigits(a) ? parse(a, 10) : 0;
        return a === true ? 1 : 0;
    };
    // An absent field reads as empty text; one that is there, whatever it holds, as its text.
    var text = function (d, name) {
        return isObject(d) && (name in d) ? toText(d[name]) : '';
    };
    var integer = function (d, name) {
        var n = isObject(d) ? toNumber(d[name]) : 0;
        return notANumber(n) ? 0 : (n < 0 ? ceil(n) : floor(n));
    };
    var duration = function (d) {
        return isObject(d) ? d.duration | 0 : 0;
    };
    return function (source) {
        var out = create(null);
        var data = create(null);
        out.data = data;
        try {
            var v = evaluate('(' + source + ')');
            out.isObject = isObject(v);
            out.action = isObject(v) ? action(v.action) : 0;
            var d = isObject(v) ? v.data : undefined;
            switch (out.action) {
            case GoTo:
                if (isObject(d) && ('filePath' in d)) {
                    data.filePath = toText(d.filePath);
                } else {
                    data.index = integer(d, 'index');
                    data.loop = integer(d, 'loop');
                }
                break;
            case Text:
                data.text = text(d, 'text');
                data.duration = duration(d);
                break;
            case ReadUrl:
                data.url = text(d, 'url');
                data.duration = duration(d);
                break;
            case RemoveDroppedFile:
                data.path = text(d, 'path');
                break;
            case ScreenPower:
                // Only a real true or false: a missing or mistyped value switches nothing.
                if (isObject(d) && typeof d.on === 'boolean')
                    data.on = d.on;
                break;
            }
            return out;
        } catch (e) {
            return null;
        }
    };
}))";

// Interrupts the engine once the time is up. QJSEngine has no time limit of its own; its
// interrupt flag is the one thing another thread may touch, and the GUI thread is busy running
// the script.
class EvaluationDeadline
{
public:
    EvaluationDeadline(QJSEngine &engine, int limitMs)
        : m_thread([this, &engine, limitMs] {
            std::unique_lock<std::mutex> lock(m_mutex);
            if (!m_stopped.wait_for(lock, std::chrono::milliseconds(limitMs),
                                    [this] { return m_finished; })) {
                m_expired = true;
                engine.setInterrupted(true);
            }
        })
    {
    }

    ~EvaluationDeadline() { finish(); }

    // Stops the clock; true when the time was up before.
    bool finish()
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_finished = true;
        }
        m_stopped.notify_one();
        if (m_thread.joinable())
            m_thread.join();
        return m_expired;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_stopped;
    bool m_finished = false;
    bool m_expired = false;
    // Last, so that it starts once everything it uses is there.
    std::thread m_thread;
};
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
        enqueue(datagram, Origin::Datagram);
    }
}

void Remote::enqueue(const QByteArray &command, Origin origin)
{
    const int nul = command.indexOf('\0');
    const bool plain = QJsonDocument::fromJson(nul < 0 ? command : command.left(nul)).isObject();
    if (!plain && origin == Origin::Datagram) {
        const qint64 second = QDateTime::currentMSecsSinceEpoch() / 1000;
        if (second != m_oddSecond) {
            if (m_oddDropped > 0)
                qWarning() << "Remote:" << m_oddDropped
                           << "datagrams that are no JSON object dropped in one second.";
            m_oddSecond = second;
            m_oddInSecond = 0;
            m_oddDropped = 0;
        }
        if (++m_oddInSecond > MaxOddPerSecond) {
            ++m_oddDropped;
            return;
        }
    }
    if (m_waiting.size() >= MaxWaiting) {
        // A real command makes room by pushing out the oldest odd one.
        const auto odd = std::find_if(m_waiting.begin(), m_waiting.end(),
                                      [](const Waiting &waiting) { return !waiting.plain; });
        if (!plain || odd == m_waiting.end()) {
            qDebug() << "Remote datagram dropped: too many commands waiting.";
            if (origin == Origin::Fleet)
                Q_EMIT fleetCommandDone(-1, false);
            return;
        }
        m_waiting.erase(odd);
    }
    m_waiting.append({command, origin, plain});
    // One command per pass of the event loop: a steady stream of them (a page asking for
    // screenshots as fast as they are written) must not keep the show's timers from running.
    if (!m_turnScheduled) {
        m_turnScheduled = true;
        QTimer::singleShot(0, this, &Remote::handleOne);
    }
}

void Remote::handleOne()
{
    m_turnScheduled = false;
    if (m_waiting.isEmpty())
        return;
    const Waiting waiting = m_waiting.takeFirst();
    const int action = handle(waiting.command, waiting.origin);
    if (waiting.origin == Origin::Fleet)
        Q_EMIT fleetCommandDone(action, m_lastAborted);
    if (!m_waiting.isEmpty() && !m_turnScheduled) {
        m_turnScheduled = true;
        QTimer::singleShot(0, this, &Remote::handleOne);
    }
}

int Remote::handle(const QByteArray &datagram, Origin origin)
{
    const int nul = datagram.indexOf('\0');
    const QByteArray bytes = nul >= 0 ? datagram.left(nul) : datagram;
    // Datagrams are Latin-1 as they always were; MQTT payloads are UTF-8 by that protocol's rule.
    const QString text
        = origin == Origin::Fleet ? QString::fromUtf8(bytes) : QString::fromLatin1(bytes);
    qDebug() << (origin == Origin::Fleet ? "Received fleet command:" : "Received DataGram:")
             << text;

    QJSEngine engine;
    QJSValue command;
    bool aborted = false;
    {
        // An endless script in a datagram must not freeze the show.
        EvaluationDeadline deadline(engine, MaxEvaluationMs);
        QJSValue actions = engine.newObject();
        actions.setProperty(QStringLiteral("GoTo"), code(Action::GoTo));
        actions.setProperty(QStringLiteral("Text"), code(Action::Text));
        actions.setProperty(QStringLiteral("ReadUrl"), code(Action::ReadUrl));
        actions.setProperty(QStringLiteral("RemoveDroppedFile"), code(Action::RemoveDroppedFile));
        actions.setProperty(QStringLiteral("ScreenPower"), code(Action::ScreenPower));
        QJSValue reader = engine.evaluate(QLatin1String(commandReader)).call({actions});
        command = reader.call({QJSValue(text)});
        aborted = deadline.finish();
    }
    m_lastAborted = aborted;
    if (aborted)
        qDebug() << "Remote datagram evaluation aborted after" << MaxEvaluationMs << "ms.";
    if (origin == Origin::Fleet
        && (aborted || !command.isObject()
            || !command.property(QStringLiteral("isObject")).toBool())) {
        qWarning() << "Fleet command ignored: not a command object.";
        return -1;
    }
    // A datagram that is not an object literal, or whose evaluation was cut off, acts as a
    // pause, as a script error always has.
    if (aborted || !command.isObject()) {
        Q_EMIT pause();
        return code(Action::Pause);
    }

    const QJSValue data = command.property(QStringLiteral("data"));
    const auto field = [&data](const char *name) { return data.property(QLatin1String(name)); };
    const int action = command.property(QStringLiteral("action")).toInt();
    switch (static_cast<Action>(action)) {
    case Action::Pause:
        Q_EMIT pause();
        break;
    case Action::Next:
        Q_EMIT next();
        break;
    case Action::GoTo:
        processGoTo(command);
        break;
    case Action::Screenshot:
        Q_EMIT screenshot();
        break;
    case Action::Restart:
        Q_EMIT restart();
        break;
    case Action::Text: {
        const QString message = field("text").toString();
        if (!message.isEmpty())
            Q_EMIT this->text(message, field("duration").toInt());
        break;
    }
    case Action::Loop:
        Q_EMIT loop();
        break;
    case Action::ReadUrl:
        Q_EMIT readUrl(field("url").toString(), field("duration").toInt());
        break;
    case Action::RemoveDroppedFile:
        removeDroppedFile(field("path").toString());
        break;
    case Action::ScreenPower:
        if (field("on").isBool())
            Q_EMIT screenPower(field("on").toBool());
        break;
    default:
        return -1;
    }
    return action;
}

void Remote::processGoTo(const QJSValue &value)
{
    const QJSValue data = value.property(QStringLiteral("data"));
    const QJSValue filePath = data.property(QStringLiteral("filePath"));
    if (filePath.isUndefined()) {
        Q_EMIT goTo(data.property(QStringLiteral("index")).toInt(),
                    data.property(QStringLiteral("loop")).toInt());
        return;
    }
    Q_EMIT goTo(filePath.toString());
}

void Remote::removeDroppedFile(const QString &relativePath)
{
    // Any local process can send datagrams: only a file inside the folder may go.
    const QDir folder(StatePaths::dropFolder());
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
