#include "browsereventfilter.h"

#include <QInputEvent>

BrowserEventFilter::BrowserEventFilter(QObject *parent)
    : QObject(parent)
{
}

bool BrowserEventFilter::eventFilter(QObject *watched, QEvent *event)
{
    // The browser's parent is the viewer, whose resetTimer() restarts the session timer only
    // when it is running.
    if (dynamic_cast<QInputEvent *>(event) && watched->parent())
        QMetaObject::invokeMethod(watched->parent(), "resetTimer");
    return false;
}
