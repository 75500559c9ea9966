#pragma once

#include <QByteArray>
#include <QFile>
#include <QJsonObject>
#include <QString>

#include <deque>

// Proof-of-play records on their way to the fleet's broker, oldest first, in an append-only
// journal: a record is one line appended when its item ends, and a line {"done": n} says that
// every record up to seq n has been taken (acknowledged by the broker, or dropped). Appending is
// one short write per item, where rewriting a file of up to the whole capacity for each item
// would wear a memory card out; the journal is rewritten whole (written aside and renamed) only
// when most of it is done, and when it is opened. A line is taken only when it is complete and
// reads as JSON, so a write cut short by a crash loses at most that line.
class PlayedQueue
{
public:
    static constexpr int DefaultCapacity = 100000;

    explicit PlayedQueue(const QString &path, int capacity = DefaultCapacity);
    ~PlayedQueue();

    // Takes up what an earlier run left; false when the journal cannot be written.
    bool open();
    // Gives the record the next sequence number, keeps it, and returns that number. Past the
    // capacity the oldest record is dropped first.
    qint64 append(QJsonObject record);
    // The broker has the record, and every older one with it.
    void acknowledge(qint64 seq);
    // Notes in the journal what has been taken since the last call; until then a crash has
    // those records sent again.
    void checkpoint();

    int size() const { return int(m_entries.size()); }
    qint64 seqAt(int index) const { return m_entries[size_t(index)].seq; }
    QByteArray payloadAt(int index) const;
    // The first waiting record with a number above seq; size() when there is none.
    int indexAfter(qint64 seq) const;
    qint64 lastDone() const { return m_done; }

private:
    struct Entry
    {
        qint64 seq;
        qint64 offset;
        int length;
        // A record the journal could not take stays here, for this run only.
        QByteArray unwritten;
    };

    bool rewrite();
    void dropOldest();
    void takeUpTo(qint64 seq);
    bool appendLine(const QByteArray &line, qint64 *offset);

    QString m_path;
    int m_capacity;
    std::deque<Entry> m_entries;
    qint64 m_done = 0;
    qint64 m_writtenDone = 0;
    qint64 m_nextSeq = 1;
    qint64 m_deadBytes = 0;
    qint64 m_liveBytes = 0;
    QFile m_journal;
    mutable QFile m_reader;
};
