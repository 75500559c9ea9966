#pragma once

#include "runnable.h"

#include <QLabel>
#include <QPointer>
#include <QString>

class PlaylistItem;
class QMovie;

// An animated GIF, played from start() until its display time is over.
class Gif : public QLabel, public Runnable
{
    Q_OBJECT

public:
    Gif(PlaylistItem *item, QWidget *parent);
    ~Gif() override;

    void displayGif();
    void setBlackBackground();

Q_SIGNALS:
    void end();
    void rightclick();

protected:
    void prepare() override;
    bool stopImpl() override;
    bool startImpl() override;
    bool onTimeoutImpl() override;
    bool pauseImpl() override;
    bool resumeImpl() override;

    void mousePressEvent(QMouseEvent *event) override;

private:
    QString m_location;
    QPointer<QMovie> m_movie;
};
