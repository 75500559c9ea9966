#include "playedqueue.h"

#include "logger.h"

#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QSaveFile>

#include <algorithm>

namespace {
const char doneKey[] = "done";
const char seqKey[] = "seq";
// The journal is rewritten when this much of it is done and that is more than what waits.
constexpr qint64 RewriteDeadBytes = 256 * 1024;

QByteArray line(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
}
} // namespace

PlayedQueue::PlayedQueue(const QString &path, int capacity)
    : m_path(path)
    , m_capacity(qMax(1, capacity))
    , m_journal(path)
    , m_reader(path)
{
}

PlayedQueue::~PlayedQueue() = default;

bool PlayedQueue::open()
{
    QDir().mkpath(QFileInfo(m_path).absolutePath());
    m_entries.clear();
    QFile file(m_path);
    if (file.open(QIODevice::ReadOnly)) {
        QList<QByteArray> records;
        int unreadable = 0;
        while (!file.atEnd()) {
            const QByteArray text = file.readLine();
            // A last line without its end is a write that a crash cut short.
            if (!text.endsWith('\n')) {
                ++unreadable;
                break;
            }
            const QJsonObject object = QJsonDocument::fromJson(text).object();
            if (object.contains(QLatin1String(doneKey))) {
                m_done = qMax(m_done, qint64(object.value(QLatin1String(doneKey)).toDouble()));
            } else if (object.value(QLatin1String(seqKey)).toDouble() >= 1) {
                records << text.chopped(1);
            } else {
                ++unreadable;
            }
        }
        if (unreadable > 0)
            qWarning() << "Proof-of-play queue:" << unreadable << "unreadable lines skipped.";
        qint64 last = m_done;
        for (const QByteArray &record : std::as_const(records)) {
            const qint64 seq = qint64(
                QJsonDocument::fromJson(record).object().value(QLatin1String(seqKey)).toDouble());
            // Only what is not done, and in order: a line repeated or out of place goes.
            if (seq <= last)
                continue;
            last = seq;
            m_entries.push_back({seq, -1, int(record.size()), record});
        }
        m_nextSeq = last + 1;
    }
    m_writtenDone = m_done;
    while (size() > m_capacity)
        dropOldest();
    return rewrite();
}

qint64 PlayedQueue::append(QJsonObject record)
{
    if (size() >= m_capacity)
        dropOldest();
    const qint64 seq = m_nextSeq++;
    record.insert(QLatin1String(seqKey), seq);
    const QByteArray text = line(record);
    Entry entry{seq, -1, int(text.size() - 1), QByteArray()};
    if (!appendLine(text, &entry.offset))
        entry.unwritten = text.chopped(1);
    else
        m_liveBytes += text.size();
    m_entries.push_back(entry);
    return seq;
}

void PlayedQueue::acknowledge(qint64 seq)
{
    // Records go out in order on one connection, and the broker answers them in order.
    takeUpTo(seq);
}

void PlayedQueue::takeUpTo(qint64 seq)
{
    if (seq <= m_done)
        return;
    while (!m_entries.empty() && m_entries.front().seq <= seq) {
        const Entry &front = m_entries.front();
        if (front.offset >= 0) {
            m_liveBytes -= front.length + 1;
            m_deadBytes += front.length + 1;
        }
        m_entries.pop_front();
    }
    m_done = seq;
}

void PlayedQueue::dropOldest()
{
    const qint64 seq = m_entries.front().seq;
    const QString text = QStringLiteral("Proof-of-play queue full (%1 records): oldest record %2 "
                                        "dropped.")
                             .arg(m_capacity)
                             .arg(seq);
    qWarning().noquote() << text;
    Logger::logWarning(text);
    takeUpTo(seq);
    // Rare, and said once: a restart must not drop and report the same record again.
    checkpoint();
}

void PlayedQueue::checkpoint()
{
    if (m_done == m_writtenDone)
        return;
    if (m_deadBytes > RewriteDeadBytes && m_deadBytes > m_liveBytes) {
        if (rewrite())
            return;
    }
    QJsonObject done;
    done.insert(QLatin1String(doneKey), m_done);
    const QByteArray text = line(done);
    qint64 offset = 0;
    if (appendLine(text, &offset)) {
        m_writtenDone = m_done;
        m_deadBytes += text.size();
    }
}

QByteArray PlayedQueue::payloadAt(int index) const
{
    const Entry &entry = m_entries[size_t(index)];
    if (entry.offset < 0)
        return entry.unwritten;
    if (!m_reader.isOpen() && !m_reader.open(QIODevice::ReadOnly))
        return QByteArray();
    if (!m_reader.seek(entry.offset))
        return QByteArray();
    return m_reader.read(entry.length);
}

int PlayedQueue::indexAfter(qint64 seq) const
{
    const auto found = std::upper_bound(m_entries.cbegin(), m_entries.cend(), seq,
                                        [](qint64 value, const Entry &e) { return value < e.seq; });
    return int(found - m_entries.cbegin());
}

bool PlayedQueue::rewrite()
{
    m_journal.close();
    m_reader.close();
    QSaveFile file(m_path);
    if (!file.open(QIODevice::WriteOnly)) {
        qWarning() << "Proof-of-play queue cannot be written:" << m_path << file.errorString();
        return false;
    }
    QJsonObject done;
    done.insert(QLatin1String(doneKey), m_done);
    file.write(line(done));
    qint64 offset = file.pos();
    std::deque<Entry> rewritten;
    for (int i = 0; i < size(); ++i) {
        const QByteArray text = payloadAt(i);
        file.write(text + '\n');
        rewritten.push_back({seqAt(i), offset, int(text.size()), QByteArray()});
        offset += text.size() + 1;
    }
    m_reader.close();
    // Flushed first: commit() alone misses a write that fails in its own flush (Qt 5.15).
    if (!file.flush() || !file.commit()) {
        qWarning() << "Proof-of-play queue cannot be written:" << m_path << file.errorString();
        return false;
    }
    m_entries = std::move(rewritten);
    m_writtenDone = m_done;
    m_deadBytes = 0;
    m_liveBytes = offset;
    return true;
}

bool PlayedQueue::appendLine(const QByteArray &text, qint64 *offset)
{
    if (!m_journal.isOpen() && !m_journal.open(QIODevice::WriteOnly | QIODevice::Append)) {
        qWarning() << "Proof-of-play queue cannot be written:" << m_path << m_journal.errorString();
        return false;
    }
    *offset = m_journal.size();
    // One write for the whole line, handed to the system at once: a crash of the player
    // cannot leave half of it in a buffer of ours.
    if (m_journal.write(text) != text.size() || !m_journal.flush()) {
        qWarning() << "Proof-of-play queue cannot be written:" << m_path << m_journal.errorString();
        m_journal.close();
        return false;
    }
    return true;
}
