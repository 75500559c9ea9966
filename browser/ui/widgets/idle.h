#pragma once

#include "runnable.h"

#include <QLabel>

class PlaylistItem;

// An empty black screen with the display switched off for the item's duration.
class Idle : public QLabel, public Runnable
{
    Q_OBJECT

public:
    Idle(PlaylistItem *item, QWidget *parent);

    void setBlackBackground();

Q_SIGNALS:
    void end();
    void rightclick();

protected:
    bool stopImpl() override;
    bool startImpl() override;
    bool onTimeoutImpl() override;
    bool pauseImpl() override;
    bool resumeImpl() override;

    void mousePressEvent(QMouseEvent *event) override;
};
