#include "screensaverblocker.h"

#include "utils.h"

ScreensaverBlocker::ScreensaverBlocker(QObject *parent)
    : QObject(parent)
{
    connect(&m_timer, &QTimer::timeout, this, &ScreensaverBlocker::poke);
}

void ScreensaverBlocker::takeOver()
{
    Utils::runAndWait(QStringLiteral("pkill"), {QStringLiteral("-9"), QStringLiteral("xscreensaver")});
    start();
}

void ScreensaverBlocker::start()
{
    m_timer.start(30000);
}

void ScreensaverBlocker::poke()
{
    Utils::runAndWait(QStringLiteral("xscreensaver-command"), {QStringLiteral("-deactivate")});
}
