#include "desktoptakeover.h"

#include "watchdog.h"

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
    if (m_taken)
        Watchdog::setGiveBack(m_what, giveBackCommands());
}

void DesktopTakeover::giveBack()
{
    if (!m_taken)
        return;
    giveBackImpl();
    // Cleared only now: a program ended at once in the middle still gives it back.
    Watchdog::setGiveBack(m_what, {});
    m_taken = false;
}
