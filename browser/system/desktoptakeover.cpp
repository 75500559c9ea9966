#include "desktoptakeover.h"

#include "statepaths.h"
#include "utils.h"
#include "watchdog.h"

#include <QDateTime>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <atomic>

namespace {
QString recordPath(const QString &what)
{
    return StatePaths::giveBackDir() + QLatin1Char('/') + what;
}

// A record holds when it was taken, so that a later start gives back in the reverse order, as
// the program itself does.
QByteArray toJson(qint64 taken, const QList<QStringList> &commands)
{
    QJsonArray list;
    for (const QStringList &command : commands)
        list.append(QJsonArray::fromStringList(command));
    return QJsonDocument(QJsonObject{{QStringLiteral("taken"), double(taken)},
                                     {QStringLiteral("commands"), list}})
        .toJson(QJsonDocument::Compact);
}

QList<QStringList> fromJson(const QJsonObject &record)
{
    QList<QStringList> commands;
    const QJsonArray list = record.value(QStringLiteral("commands")).toArray();
    for (const QJsonValue &entry : list) {
        QStringList command;
        for (const QJsonValue &argument : entry.toArray())
            command << argument.toString();
        if (!command.isEmpty() && !command.first().isEmpty())
            commands << command;
    }
    return commands;
}

qint64 nextTakeover()
{
    static std::atomic<qint64> last{0};
    qint64 now = QDateTime::currentMSecsSinceEpoch() * 1000;
    qint64 previous = last.load();
    while (!last.compare_exchange_weak(previous, qMax(now, previous + 1))) {
    }
    return qMax(now, previous + 1);
}

void run(const QList<QStringList> &commands)
{
    for (const QStringList &command : commands)
        Utils::runAndWait(command.first(), command.mid(1));
}
} // namespace

DesktopTakeover::DesktopTakeover(const QString &what)
    : m_what(what)
{
}

DesktopTakeover::~DesktopTakeover() = default;

void DesktopTakeover::takeOver()
{
    if (m_taken)
        return;
    m_taken = takeOverImpl();
    if (m_taken) {
        registerGiveBack();
    } else if (m_registered) {
        runGiveBackCommands();
        clearGiveBack();
    }
}

void DesktopTakeover::giveBack()
{
    if (!m_taken)
        return;
    giveBackImpl();
    // Cleared only now: a program ended at once in the middle still gives it back.
    clearGiveBack();
    m_taken = false;
}

void DesktopTakeover::registerGiveBack()
{
    const QList<QStringList> commands = giveBackCommands();
    Watchdog::setGiveBack(m_what, commands);
    m_registered = !commands.isEmpty();
    if (!m_registered) {
        QFile::remove(recordPath(m_what));
        return;
    }
    if (m_takenAt == 0)
        m_takenAt = nextTakeover();
    QDir().mkpath(StatePaths::giveBackDir());
    if (!Utils::writeWhole(recordPath(m_what), toJson(m_takenAt, commands)))
        qDebug() << "Unable to record how to give back:" << m_what;
}

void DesktopTakeover::clearGiveBack()
{
    Watchdog::setGiveBack(m_what, {});
    QFile::remove(recordPath(m_what));
    m_registered = false;
    m_takenAt = 0;
}

void DesktopTakeover::runGiveBackCommands() const
{
    run(giveBackCommands());
}

void DesktopTakeover::recoverAll()
{
    struct Record
    {
        QString what;
        qint64 taken;
        QList<QStringList> commands;
    };
    QList<Record> records;
    QDir dir(StatePaths::giveBackDir());
    for (const QString &what : dir.entryList(QDir::Files)) {
        QFile file(dir.filePath(what));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        const QJsonObject record = QJsonDocument::fromJson(file.readAll()).object();
        records << Record{what, qint64(record.value(QStringLiteral("taken")).toDouble()),
                          fromJson(record)};
    }
    std::sort(records.begin(), records.end(),
              [](const Record &a, const Record &b) { return a.taken > b.taken; });
    for (const Record &record : qAsConst(records)) {
        qDebug().noquote() << QStringLiteral("%1 was left taken by an earlier run; giving it back.")
                                  .arg(record.what);
        run(record.commands);
        QFile::remove(dir.filePath(record.what));
    }
}
