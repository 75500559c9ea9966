#include "playlisteventfilter.h"

#include "settings.h"
#include "viewer.h"

#include <QCoreApplication>
#include <QMouseEvent>
#include <QWidget>

PlaylistEventFilter::PlaylistEventFilter(Settings *settings, QObject *parent)
    : QObject(parent)
    , m_settings(settings)
{
}

bool PlaylistEventFilter::eventFilter(QObject *watched, QEvent *event)
{
    const QEvent::Type type = event->type();
    if (m_locked)
        return type == QEvent::MouseButtonPress;

    // The viewer stacks the content, so it is the content's parent; a web view may hand its input
    // to a widget inside it, whose ancestor the viewer is then.
    auto *widget = qobject_cast<QWidget *>(watched);
    Viewer *viewer = nullptr;
    for (QWidget *parent = widget ? widget->parentWidget() : nullptr; parent && !viewer;
         parent = parent->parentWidget())
        viewer = qobject_cast<Viewer *>(parent);
    switch (type) {
    case QEvent::MouseMove:
        // In other modes a move would reach the viewer's press handler, where a move without a
        // button does nothing.
        if (viewer && m_settings->mode() == Settings::Mode::Kiosk)
            viewer->emitMouseEvent();
        return true;
    case QEvent::KeyPress:
        if (widget)
            widget->setCursor(Qt::BlankCursor);
        return true;
    case QEvent::MouseButtonPress:
        if (viewer) {
            // Sent as the viewer's own press so that its mousePressEvent() decides by button
            // (only the button matters there, so whole pixels are enough).
            auto *press = static_cast<QMouseEvent *>(event);
            QMouseEvent forwarded(QEvent::MouseButtonPress,
                                  QPointF(widget->mapTo(viewer, press->pos())),
                                  QPointF(widget->mapToGlobal(press->pos())), press->button(),
                                  press->buttons(), press->modifiers());
            QCoreApplication::sendEvent(viewer, &forwarded);
        }
        return true;
    default:
        return false;
    }
}
