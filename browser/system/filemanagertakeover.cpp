#include "filemanagertakeover.h"

#include "desktop.h"
#include "pcmanfmtakeover.h"
#include "thunartakeover.h"

#include <QDebug>

std::unique_ptr<FileManagerTakeover> FileManagerTakeover::create(bool fullscreen, bool passwordSet)
{
    if (!fullscreen && !passwordSet)
        return nullptr;
    const Desktop::Kind desktop = Desktop::detect();
    switch (desktop) {
    case Desktop::Kind::Lxde:
    case Desktop::Kind::LxdePi:
    case Desktop::Kind::Labwc:
    case Desktop::Kind::Wayfire:
        return std::make_unique<PcmanfmTakeover>(desktop);
    case Desktop::Kind::Xfce:
        return std::make_unique<ThunarTakeover>();
    case Desktop::Kind::Sway:
    case Desktop::Kind::None:
        break;
    }
    return nullptr;
}

FileManagerTakeover::FileManagerTakeover()
    : DesktopTakeover(QStringLiteral("File manager"))
{
}

bool FileManagerTakeover::takeOverImpl()
{
    if (!disableImpl())
        return false;
    qDebug() << "File manager volume popups off.";
    return true;
}

void FileManagerTakeover::giveBackImpl()
{
    runGiveBackCommands();
    qDebug() << "File manager volume popups restored.";
}
