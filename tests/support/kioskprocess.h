#pragma once

#include "testsupport.h"

#include <QColor>
#include <QObject>
#include <QPointF>
#include <QProcess>

#include <memory>

namespace testsupport {

// The real program under test: a temporary HOME and base path ("conf" inside HOME), recording
// stand-ins for every desktop command it runs, and helpers to read "/tmp/screen.png".
class KioskProcess : public QObject
{
    Q_OBJECT

public:
    KioskProcess();
    ~KioskProcess() override;

    TempHome &home() { return m_home; }
    FakePrograms &fakes() { return m_fakes; }
    QString confDir() const;
    // A picture of one colour in HOME/pics; its path.
    QString picture(const QString &name, const QColor &colour);

    // Writes the playlist and the preference file (the version line is added), then starts the
    // program on the X server of DISPLAY. Returns false if it did not start.
    bool start(const QByteArray &playlist, const QByteArray &preferences = QByteArray(),
               const QStringList &extraArguments = QStringList());
    QProcess &process() { return m_process; }
    // An environment variable for the next start, over the defaults start() sets.
    void setEnvironment(const QString &name, const QString &value) { m_env.insert(name, value); }
    QByteArray log() const { return m_log; }
    bool waitForLog(const QByteArray &text, int timeoutMs = 15000);

    // The colour of the last screenshot at a point given in parts of its size (the centre by
    // default); invalid when there is none.
    static QColor screenColor(const QPointF &where = QPointF(0.5, 0.5));
    static bool screenShows(const QColor &color, int timeoutMs = 15000,
                            const QPointF &where = QPointF(0.5, 0.5));
    static void sendDatagram(const QByteArray &datagram);

    // SIGINT, then the exit code (-1 if it did not end in time or crashed).
    int interrupt(int timeoutMs = 15000);

    // Puts the program's HTML templates where it reads them, for the lifetime of the object,
    // unless they are there already.
    class Templates
    {
    public:
        Templates();
        ~Templates();

    private:
        QStringList m_installed;
    };

private:
    TempHome m_home;
    FakePrograms m_fakes;
    QProcess m_process;
    QProcessEnvironment m_env;
    QByteArray m_log;
};

} // namespace testsupport
