#include "browsereventfilter.h"

#include "viewer.h"

#include <QCoreApplication>
#include <QInputEvent>
#include <QWidget>

BrowserEventFilter::BrowserEventFilter(Viewer *viewer, QObject *parent)
    : QObject(parent)
    , m_viewer(viewer)
{
}

void BrowserEventFilter::watch(QWidget *browser)
{
    m_browser = browser;
    // Installing again does not add a second filter.
    if (browser)
        QCoreApplication::instance()->installEventFilter(this);
    else
        QCoreApplication::instance()->removeEventFilter(this);
}

bool BrowserEventFilter::eventFilter(QObject *watched, QEvent *event)
{
    switch (event->type()) {
    case QEvent::KeyPress:
    case QEvent::MouseMove:
    case QEvent::MouseButtonPress:
    case QEvent::Wheel:
    case QEvent::TouchBegin:
    case QEvent::TouchUpdate:
        break;
    default:
        return false;
    }
    auto *widget = qobject_cast<QWidget *>(watched);
    if (m_browser && widget && (widget == m_browser || m_browser->isAncestorOf(widget)))
        m_viewer->resetTimer();
    return false;
}
