#pragma once

#include <QList>
#include <QString>
#include <QStringList>

// One thing the program takes from the desktop while it runs (the panel, the pointer, the
// sound, the system shortcuts, the file manager's volume handling) and gives back when it ends.
// While it is taken, the watchdog knows how to give it back should the program have to end at
// once, and the same commands wait in the state folder for the next start, should the program
// be killed outright.
//
// A concrete take-over is final, takes over in its constructor and gives back in its own
// destructor: by the time this class's destructor runs, its give-back can no longer be reached.
class DesktopTakeover
{
public:
    virtual ~DesktopTakeover();

    bool isTakenOver() const { return m_taken; }
    // Gives back now; nothing happens when nothing is taken.
    void giveBack();

    // Gives back what an earlier run left taken (it was killed, or crashed); run at start,
    // before anything is taken again.
    static void recoverAll();

protected:
    // what names the take-over in the watchdog's "... given back." line.
    explicit DesktopTakeover(const QString &what);

    void takeOver();
    // True when something was taken and must be given back.
    virtual bool takeOverImpl() = 0;
    virtual void giveBackImpl() = 0;
    // The child programs that give it back from outside the program, run one after the other;
    // empty when the end of the process gives it back by itself. A command that stays running
    // (a panel) must detach itself.
    virtual QList<QStringList> giveBackCommands() const = 0;
    // Records the give-back commands before the desktop is changed, for take-overs whose
    // change cannot be undone by the process ending; a take-over that then fails runs them.
    void registerGiveBack();
    // Runs the give-back commands in order, waiting for each.
    void runGiveBackCommands() const;

private:
    void clearGiveBack();

    QString m_what;
    bool m_taken = false;
    bool m_registered = false;
    qint64 m_takenAt = 0;
};
