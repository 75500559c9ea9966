#pragma once

#include <QObject>
#include <QStringList>
#include <QTimer>

#include <memory>

class QUrl;

// Ends the program when its GUI thread has stopped answering while a web page is shown, or when
// a signal that ends the program has waited too long for it. A page script that never ends holds
// the GUI thread for good, and the web engine offers no way to interrupt it from outside: ending
// the process is the only way out, and the session supervisor starts the player again.
// Whatever the program changed on the desktop is given back first. A page that stalled the
// program is shown without its scripts for a day after that.
class Watchdog : public QObject
{
    Q_OBJECT

public:
    // The exit code after a stall: neither a normal end nor Ctrl-C, so the player is restarted.
    static const int StalledExitCode = 3;

    // Starts watching; a program without a Watchdog object is never ended by one.
    explicit Watchdog(QObject *parent = nullptr);
    ~Watchdog() override;

    // The web page now shown. Only while a page is shown does a silent GUI thread count as a
    // stall: other long waits (child programs) end by themselves.
    static void setWebPage(const QUrl &url);
    // The page is no longer shown (nothing changes if another one is shown by now).
    static void leaveWebPage(const QUrl &url);
    // Whether this page stalled the program less than a day ago.
    static bool stalledRecently(const QUrl &url);
    // Adds the page to the stalled pages with why in a word ("script", "memory"), also for a
    // page that was ended without ending the program; those older than a day are dropped. The
    // list is replaced whole or not at all; false, with a log line, when it cannot be written.
    static bool recordStall(const QUrl &url, const QString &reason);
    // While a web page is shown the program may grow by this many bytes over its size when the
    // page came; past that the page is recorded and the program ended before the system kills
    // it. 0: no ceiling. For a web engine that runs pages inside the program.
    static void setMemoryCeiling(qint64 bytes);
    // The commands that give back what one part of the program changed on the desktop, run in
    // order only when the program must end at once; an empty list when there is nothing to give
    // back. A command that stays running must detach itself.
    static void setGiveBack(const QString &what, const QList<QStringList> &commands);
    // What is registered for one part now.
    static QList<QStringList> giveBack(const QString &what);

    // Marks a wait of the program's own (a hook, a child program, maintenance) for as long as it
    // lives: the GUI thread is then busy by the program's choice, not held by a page, and the
    // time it spends does not count towards a stall. Waits may nest.
    class OwnWait
    {
    public:
        OwnWait();
        ~OwnWait();
        OwnWait(const OwnWait &) = delete;
        OwnWait &operator=(const OwnWait &) = delete;
    };

    // Called from the signal handler (async-signal-safe) and by the GUI thread once it has
    // taken the signal.
    static void signalArrived(int signum);
    static void signalTaken();

private:
    struct Thread;
    std::unique_ptr<Thread> m_thread;
    QTimer m_heartbeat;
};
