#include "idle.h"

#include "displaypower.h"

#include "playlistitem.h"

#include <QDebug>
#include <QMouseEvent>
#include <QProcess>

Idle::Idle(PlaylistItem *item, QWidget *parent)
    : QLabel(parent)
    , Runnable(item->duration)
{
    connect(this, &Idle::end, notifier(), &RunnableNotifier::end);
    setBlackBackground();
}

void Idle::setBlackBackground()
{
    QPalette palette = this->palette();
    palette.setBrush(QPalette::All, QPalette::Window, QBrush(Qt::black));
    setPalette(palette);
    setAutoFillBackground(true);
}

bool Idle::startImpl()
{
    qDebug() << "Starting idle";
    // Turning the display back on is left to whoever ends the idle period.
    DisplayPower::off();
    return true;
}

bool Idle::stopImpl()
{
    return true;
}

bool Idle::onTimeoutImpl()
{
    Q_EMIT end();
    return true;
}

bool Idle::pauseImpl()
{
    return true;
}

bool Idle::resumeImpl()
{
    return true;
}

void Idle::mousePressEvent(QMouseEvent *event)
{
    if (event->button() == Qt::RightButton)
        Q_EMIT rightclick();
    event->accept();
}
