#include "blankcursorpointerhider.h"

#include <QCursor>
#include <QGuiApplication>

BlankCursorPointerHider::BlankCursorPointerHider()
{
    takeOver();
}

BlankCursorPointerHider::~BlankCursorPointerHider()
{
    giveBack();
}

bool BlankCursorPointerHider::hideImpl()
{
    QGuiApplication::setOverrideCursor(QCursor(Qt::BlankCursor));
    return true;
}

void BlankCursorPointerHider::showImpl()
{
    QGuiApplication::restoreOverrideCursor();
}

QList<QStringList> BlankCursorPointerHider::giveBackCommands() const
{
    return {};
}
