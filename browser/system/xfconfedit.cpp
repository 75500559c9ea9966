#include "xfconfedit.h"

#include "utils.h"

namespace {
const char program[] = "xfconf-query";
}

XfconfEdit::XfconfEdit(const QString &channel)
    : m_channel(channel)
{
}

QStringList XfconfEdit::query(const QStringList &arguments) const
{
    return QStringList{QString::fromLatin1(program), QStringLiteral("-c"), m_channel} + arguments;
}

bool XfconfEdit::list(const QString &prefix, QMap<QString, QString> *values) const
{
    QByteArray output;
    const QStringList command = query({QStringLiteral("-l"), QStringLiteral("-v")});
    if (Utils::runAndWait(command.first(), command.mid(1), &output) != 0)
        return false;
    // One property a line: its path, blanks, its value (which may hold blanks itself).
    for (const QByteArray &line : output.split('\n')) {
        const QString text = QString::fromUtf8(line).trimmed();
        const int blank = text.indexOf(QLatin1Char(' '));
        const QString property = blank < 0 ? text : text.left(blank);
        if (property.startsWith(prefix))
            values->insert(property, blank < 0 ? QString() : text.mid(blank + 1).trimmed());
    }
    return true;
}

void XfconfEdit::saveBackup(const QList<Change> &changes, const QMap<QString, QString> &known)
{
    m_previous.clear();
    for (const Change &change : changes) {
        const QString type = change.type.isEmpty() ? QStringLiteral("string") : change.type;
        if (change.type.isEmpty() && known.contains(change.property)) {
            m_previous << Change{change.property, type, known.value(change.property)};
            continue;
        }
        QByteArray output;
        const QStringList command = query({QStringLiteral("-p"), change.property});
        const bool exists = Utils::runAndWait(command.first(), command.mid(1), &output) == 0;
        m_previous << Change{change.property, exists ? type : QString(),
                             QString::fromUtf8(output).trimmed()};
    }
}

bool XfconfEdit::write(const QList<Change> &changes) const
{
    bool ok = true;
    for (const Change &change : changes) {
        QStringList command
            = change.type.isEmpty()
                  ? query({QStringLiteral("-p"), change.property, QStringLiteral("-r")})
                  : query({QStringLiteral("-p"), change.property, QStringLiteral("-n"),
                           QStringLiteral("-t"), change.type, QStringLiteral("-s"), change.value});
        ok = Utils::runAndWait(command.first(), command.mid(1)) == 0 && ok;
    }
    return ok;
}

QList<QStringList> XfconfEdit::restoreCommands() const
{
    QList<QStringList> commands;
    for (const Change &change : m_previous) {
        if (change.type.isEmpty())
            commands << query({QStringLiteral("-p"), change.property, QStringLiteral("-r")});
        else
            commands << query({QStringLiteral("-p"), change.property, QStringLiteral("-n"),
                               QStringLiteral("-t"), change.type, QStringLiteral("-s"),
                               change.value});
    }
    return commands;
}
