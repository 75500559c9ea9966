#pragma once

#include "runnable.h"

#include <QStringList>
#include <QWidget>

#include <memory>

class PlaylistItem;
class QMouseEvent;
class VideoImpl;

// One video file or stream. The widget is only a black surface; the playing is done by the
// player chosen for the item: libVLC inside the process, or an external command-line player.
class Video : public QWidget, public Runnable
{
    Q_OBJECT

public:
    Video(PlaylistItem *item, QWidget *parent);
    ~Video() override;

    VideoImpl *impl() const { return m_impl.get(); }
    // Whether videos play inside the process (libVLC) rather than in an external player.
    static bool playsInProcess();
    void setBlackBackground();

    void prepare() override;
    bool isReady() const override;
    // Its picture off the screen now, before the stop.
    void hideOutput();

Q_SIGNALS:
    void end();
    void rightclick();

protected:
    void mousePressEvent(QMouseEvent *event) override;

    bool stopImpl() override;
    bool startImpl() override;
    bool onTimeoutImpl() override;
    bool pauseImpl() override;
    bool resumeImpl() override;

private:
    QStringList defaultPlayerCommand() const;
    // The program of the external player the settings name.
    static QString externalProgram();

    std::unique_ptr<VideoImpl> m_impl;
    // The external player the settings name, when it is not installed.
    QString m_missingPlayer;
};
