#include "panelmanager.h"

#include "childprocess.h"
#include "desktop.h"
#include "lxdemanager.h"
#include "wfpanelmanager.h"
#include "xfcemanager.h"

#include <QDebug>

namespace panel {

namespace {

// The panel only gets in the way of a full-screen window, or of a locked-down kiosk.
bool shouldHide(bool fullscreen, bool passwordSet)
{
    return fullscreen || passwordSet;
}
} // namespace

std::unique_ptr<Manager> Manager::create(bool fullscreen, bool passwordSet)
{
    if (!shouldHide(fullscreen, passwordSet))
        return nullptr;
    const Desktop::Kind desktop = Desktop::detect();
    switch (desktop) {
    case Desktop::Kind::Lxde:
    case Desktop::Kind::LxdePi:
        return std::make_unique<LxdeManager>(desktop);
    case Desktop::Kind::Xfce:
        return std::make_unique<XfceManager>();
    case Desktop::Kind::Labwc:
    case Desktop::Kind::Wayfire:
        return std::make_unique<WfPanelManager>();
    case Desktop::Kind::Sway:
        // swaybar stays under a full-screen window by itself.
    case Desktop::Kind::None:
        break;
    }
    return nullptr;
}

QStringList Manager::detached() const
{
    return QStringList{QStringLiteral("setsid"), QStringLiteral("-f")} + startCommand();
}

QList<QStringList> Manager::giveBackCommands() const
{
    return {detached()};
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
    // The panel lives on after the program: it must hold none of the program's descriptors.
    const QStringList command = detached();
    ChildProcess setsid;
    setsid.start(command.first(), command.mid(1));
    setsid.waitForFinished(5000);
    qDebug() << "Desktop panel restored.";
}

} // namespace panel
