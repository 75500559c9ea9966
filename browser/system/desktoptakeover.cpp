#include "desktoptakeover.h"

#include "statepaths.h"
#include "utils.h"
#include "watchdog.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSaveFile>

namespace {
QString recordPath(const QString &what)
{
    return StatePaths::giveBackDir() + QLatin1Char('/') + what;
}

QByteArray toJson(const QList<QStringList> &commands)
{
    QJsonArray list;
    for (const QStringList &command : commands)
        list.append(QJsonArray::fromStringList(command));
    return QJsonDocument(list).toJson(QJsonDocument::Compact);
}

QList<QStringList> fromJson(const QByteArray &json)
{
    QList<QStringList> commands;
    const QJsonArray list = QJsonDocument::fromJson(json).array();
    for (const QJsonValue &entry : list) {
        QStringList command;
        for (const QJsonValue &argument : entry.toArray())
            command << argument.toString();
        if (!command.isEmpty() && !command.first().isEmpty())
            commands << command;
    }
    return commands;
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
    QDir().mkpath(StatePaths::giveBackDir());
    QSaveFile record(recordPath(m_what));
    if (!record.open(QIODevice::WriteOnly) || record.write(toJson(commands)) < 0
        || !record.commit())
        qDebug() << "Unable to record how to give back:" << m_what;
}

void DesktopTakeover::clearGiveBack()
{
    Watchdog::setGiveBack(m_what, {});
    QFile::remove(recordPath(m_what));
    m_registered = false;
}

void DesktopTakeover::runGiveBackCommands() const
{
    run(giveBackCommands());
}

void DesktopTakeover::recoverAll()
{
    QDir dir(StatePaths::giveBackDir());
    const QStringList names = dir.entryList(QDir::Files, QDir::Name);
    for (const QString &what : names) {
        QFile record(dir.filePath(what));
        if (!record.open(QIODevice::ReadOnly))
            continue;
        const QList<QStringList> commands = fromJson(record.readAll());
        record.close();
        qDebug().noquote() << QStringLiteral("%1 was left taken by an earlier run; giving it back.")
                                  .arg(what);
        run(commands);
        record.remove();
    }
}
