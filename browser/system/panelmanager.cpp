#include "panelmanager.h"

#include "lxdemanager.h"
#include "xfcemanager.h"

#include <QDebug>

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
} // namespace

std::unique_ptr<Manager> Manager::create(bool fullscreen, bool passwordSet)
{
    if (!shouldHide(fullscreen, passwordSet))
        return nullptr;
    const QString desktop = desktopName();
    if (desktop.contains(QLatin1String("XFCE")))
        return std::make_unique<XfceManager>();
    if (desktop.contains(QLatin1String("LXDE")))
        return std::make_unique<LxdeManager>();
    return nullptr;
}

Manager::Manager()
    : DesktopTakeover(QStringLiteral("Desktop panel"))
{
}

bool Manager::takeOverImpl()
{
    if (!hideImpl())
        return false;
    qDebug() << "Desktop panel hidden.";
    return true;
}

void Manager::giveBackImpl()
{
    restoreImpl();
    qDebug() << "Desktop panel restored.";
}

} // namespace panel
