#pragma once

// What a program and every process it started (the web engine's renderers, say) take, read from
// /proc.

#include <QDir>
#include <QFile>
#include <QList>
#include <QMultiMap>

namespace processtree {

// The fields of /proc/<pid>/stat after the program's name, which may hold blanks.
inline QList<QByteArray> statFields(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return {};
    const QByteArray line = stat.readAll();
    return line.mid(line.lastIndexOf(')') + 2).split(' ');
}

inline QList<qint64> processTree(qint64 root)
{
    QMultiMap<qint64, qint64> children;
    const QStringList entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs);
    for (const QString &entry : entries) {
        const QList<QByteArray> fields = statFields(entry.toLongLong());
        if (fields.size() > 1)
            children.insert(fields.at(1).toLongLong(), entry.toLongLong());
    }
    QList<qint64> tree{root};
    for (int i = 0; i < tree.size(); ++i)
        tree += children.values(tree.at(i));
    return tree;
}

// Processor time of the whole tree, in clock ticks (user and system).
inline qint64 cpuTicks(qint64 root)
{
    qint64 ticks = 0;
    for (qint64 pid : processTree(root)) {
        const QList<QByteArray> fields = statFields(pid);
        ticks += fields.value(11).toLongLong() + fields.value(12).toLongLong();
    }
    return ticks;
}

// Proportional set size of the whole tree in KiB: shared pages counted once over all processes.
inline qint64 pssKiB(qint64 root)
{
    qint64 total = 0;
    for (qint64 pid : processTree(root)) {
        QFile rollup(QStringLiteral("/proc/%1/smaps_rollup").arg(pid));
        if (!rollup.open(QIODevice::ReadOnly))
            continue;
        for (QByteArray line = rollup.readLine(); !line.isEmpty(); line = rollup.readLine()) {
            if (line.startsWith("Pss:"))
                total += line.mid(4).simplified().split(' ').value(0).toLongLong();
        }
    }
    return total;
}

} // namespace processtree
