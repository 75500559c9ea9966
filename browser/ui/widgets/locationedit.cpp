#include "locationedit.h"

#include <QPainter>
#include <QPalette>

LocationEdit::LocationEdit(QWidget *parent)
    : QLineEdit(parent)
{
}

void LocationEdit::setProgress(int progress)
{
    m_progress = progress;
    update();
}

void LocationEdit::paintEvent(QPaintEvent *event)
{
    QLineEdit::paintEvent(event);
    if (m_progress <= 0 || m_progress >= 100)
        return;
    // Translucent, so the text stays readable under the shading.
    QColor done = palette().color(QPalette::Highlight);
    done.setAlpha(60);
    QPainter painter(this);
    painter.fillRect(QRect(0, 0, width() * m_progress / 100, height()), done);
}
