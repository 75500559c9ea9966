#include "panelmanager.h"

#include "utils.h"
#include "watchdog.h"

#include <QDebug>
#include <QProcess>

namespace panel {

namespace {

// The panel only gets in the way of a full-screen window, or of a locked-down kiosk.
bool shouldHide(bool fullscreen, bool passwordSet)
{
    return fullscreen || passwordSet;
}

QString desktopName()
{
    QString name = QString::fromLocal8Bit(qgetenv("XDG_CURRENT_DESKTOP"));
    if (name.isEmpty())
        name = QString::fromLocal8Bit(qgetenv("DESKTOP_SESSION"));
    return name.toUpper();
}

QStringList lxpanelCommand()
{
    return {QStringLiteral("lxpanel"), QStringLiteral("--profile"), QStringLiteral("LXDE-pi")};
}
} // namespace

Manager *Manager::create(bool fullscreen, bool passwordSet)
{
    const QString desktop = desktopName();
    if (desktop.contains(QLatin1String("XFCE")))
        return new XfceManager(fullscreen, passwordSet);
    if (desktop.contains(QLatin1String("LXDE")))
        return new LxdeManager(fullscreen, passwordSet);
    return new NullManager;
}

Manager::~Manager() = default;

void Manager::hide()
{
    m_hidden = hideImpl();
    if (m_hidden)
        qDebug() << "Desktop panel hidden.";
}

void Manager::restore()
{
    if (!m_hidden)
        return;
    restoreImpl();
    Watchdog::setGiveBack(QStringLiteral("Desktop panel"), {});
    m_hidden = false;
    qDebug() << "Desktop panel restored.";
}

LxdeManager::LxdeManager(bool fullscreen, bool passwordSet)
{
    if (shouldHide(fullscreen, passwordSet))
        hide();
}

LxdeManager::~LxdeManager()
{
    restore();
}

bool LxdeManager::hideImpl()
{
    // pkill answers 0 only when a panel was running, so nothing is restarted that never ran.
    if (Utils::runAndWait(QStringLiteral("pkill"), {QStringLiteral("lxpanel")}) != 0)
        return false;
    Watchdog::setGiveBack(QStringLiteral("Desktop panel"), {lxpanelCommand()});
    return true;
}

void LxdeManager::restoreImpl()
{
    const QStringList command = lxpanelCommand();
    QProcess::startDetached(command.first(), command.mid(1));
}

XfceManager::XfceManager(bool fullscreen, bool passwordSet)
{
    if (shouldHide(fullscreen, passwordSet))
        hide();
}

XfceManager::~XfceManager()
{
    restore();
}

bool XfceManager::hideImpl()
{
    if (Utils::runAndWait(QStringLiteral("xfce4-panel"), {QStringLiteral("--quit")}) != 0)
        return false;
    Watchdog::setGiveBack(QStringLiteral("Desktop panel"), {{QStringLiteral("xfce4-panel")}});
    return true;
}

void XfceManager::restoreImpl()
{
    QProcess::startDetached(QStringLiteral("xfce4-panel"), {});
}

NullManager::~NullManager() = default;

} // namespace panel
