#pragma once

#include "childprocess.h"

#include <QList>
#include <QObject>
#include <QPointer>

// A child program that leads its own process group, so that everything it starts in turn
// (xdg-open hands the file on to the real viewer) can be ended together.
class RProcess : public ChildProcess
{
    Q_OBJECT

public:
    explicit RProcess(QObject *parent = nullptr);
};

// Shows downloaded files in desktop programs and ends them all when the session ends.
class SubprocessManager : public QObject
{
    Q_OBJECT

public:
    explicit SubprocessManager(QObject *parent = nullptr);
    ~SubprocessManager() override;

    // Opens the file with the program set for its MIME type in main/open_with (entries
    // "type=program", separated by ";"), else with xdg-open. False if it could not start.
    bool open(const QString &path, const QString &mimeType);
    // Ends every program started by open(), with whatever those started.
    void empty();
    int running() const;

    static QString programFor(const QString &mimeType);

private:
    QList<QPointer<RProcess>> m_processes;
    QList<qint64> m_groups;
};
