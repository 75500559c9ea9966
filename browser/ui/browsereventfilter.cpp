#include "browsereventfilter.h"

#include "viewer.h"

#include <QInputEvent>

BrowserEventFilter::BrowserEventFilter(QObject *parent)
    : QObject(parent)
{
}

bool BrowserEventFilter::eventFilter(QObject *watched, QEvent *event)
{
    // The browser's parent is the viewer, whose resetTimer() restarts the session timer only
    // when it is running.
    if (!dynamic_cast<QInputEvent *>(event))
        return false;
    if (auto *viewer = qobject_cast<Viewer *>(watched->parent()))
        viewer->resetTimer();
    return false;
}
