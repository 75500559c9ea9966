#include "initext.h"

namespace {
bool isSection(const QByteArray &line)
{
    const QByteArray trimmed = line.trimmed();
    return trimmed.startsWith('[') && trimmed.endsWith(']');
}

QByteArray sectionName(const QByteArray &line)
{
    const QByteArray trimmed = line.trimmed();
    return trimmed.mid(1, trimmed.size() - 2).trimmed();
}

QByteArray keyOf(const QByteArray &line)
{
    const QByteArray trimmed = line.trimmed();
    if (trimmed.startsWith('#') || trimmed.startsWith(';'))
        return QByteArray();
    const int equals = trimmed.indexOf('=');
    return equals > 0 ? trimmed.left(equals).trimmed() : QByteArray();
}
} // namespace

QByteArray IniText::set(const QByteArray &text, const QByteArray &section, const QByteArray &key,
                        const QByteArray &value)
{
    QList<QByteArray> lines = text.split('\n');
    const bool endsWithNewline = text.endsWith('\n');
    if (endsWithNewline)
        lines.removeLast();
    const QByteArray entry = key + " = " + value;
    bool inSection = false;
    int lastInSection = -1;
    for (int i = 0; i < lines.size(); ++i) {
        if (isSection(lines.at(i))) {
            inSection = sectionName(lines.at(i)) == section;
            if (inSection)
                lastInSection = i;
            continue;
        }
        if (!inSection)
            continue;
        if (keyOf(lines.at(i)) == key) {
            lines[i] = entry;
            return lines.join('\n') + (endsWithNewline ? "\n" : "");
        }
        if (!lines.at(i).trimmed().isEmpty())
            lastInSection = i;
    }
    if (lastInSection >= 0) {
        lines.insert(lastInSection + 1, entry);
    } else {
        if (!lines.isEmpty() && !lines.last().trimmed().isEmpty())
            lines << QByteArray();
        lines << "[" + section + "]" << entry;
    }
    return lines.join('\n') + "\n";
}

QList<QByteArray> IniText::keys(const QByteArray &text, const QByteArray &section)
{
    QList<QByteArray> found;
    bool inSection = false;
    for (const QByteArray &line : text.split('\n')) {
        if (isSection(line)) {
            inSection = sectionName(line) == section;
            continue;
        }
        const QByteArray key = keyOf(line);
        if (inSection && !key.isEmpty())
            found << key;
    }
    return found;
}
