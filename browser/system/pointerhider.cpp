#include "pointerhider.h"

#include "unclutterpointerhider.h"

#include <QDebug>

std::unique_ptr<PointerHider> PointerHider::create()
{
    return std::make_unique<UnclutterPointerHider>();
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
