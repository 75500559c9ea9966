#include "pointerhider.h"

#include "blankcursorpointerhider.h"

#include <QDebug>

std::unique_ptr<PointerHider> PointerHider::create()
{
    return std::make_unique<BlankCursorPointerHider>();
}

PointerHider::PointerHider()
    : DesktopTakeover(QStringLiteral("Mouse pointer"))
{
}

bool PointerHider::takeOverImpl()
{
    qDebug() << "Hiding mouse pointer.";
    return hideImpl();
}

void PointerHider::giveBackImpl()
{
    showImpl();
    qDebug() << "Mouse pointer shown again.";
}
