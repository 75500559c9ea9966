#pragma once

#include <QList>
#include <QString>
#include <QStringList>

// One thing the program takes from the desktop while it runs (the panel, the pointer, the
// sound, the system shortcuts) and gives back when it ends. While it is taken, the watchdog
// knows how to give it back should the program have to end at once.
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

protected:
    // what names the take-over in the watchdog's "... given back." line.
    explicit DesktopTakeover(const QString &what);

    void takeOver();
    // True when something was taken and must be given back.
    virtual bool takeOverImpl() = 0;
    virtual void giveBackImpl() = 0;
    // The child programs that give it back from outside the program; empty when the end of
    // the process gives it back by itself.
    virtual QList<QStringList> giveBackCommands() const = 0;

private:
    QString m_what;
    bool m_taken = false;
};
