#pragma once

#include "videoimpl.h"

#include <QObject>
#include <QProcess>
#include <QStringList>

class PlaylistItem;
class Video;

// Plays the item with an external command-line player ("omxplayer" unless configured).
class ExternalVideoImpl : public QObject, public VideoImpl
{
    Q_OBJECT

public:
    ExternalVideoImpl(Video *video, const QStringList &command, PlaylistItem *item);
    ~ExternalVideoImpl() override;

    void pause() override;
    void resume() override;
    bool onTimeout() override;
    bool start() override;
    bool stop() override;

public Q_SLOTS:
    void onMediaEndReached(int exitCode);
    void readyReadStandardOutput();
    void readyReadStandardError();

private:
    void onErrorOccurred(QProcess::ProcessError error);
    void onStartFailed();
    void releaseProcess();
    void killPlayers();

    Video *m_video;
    QString m_location;
    QStringList m_command;
    QProcess *m_process = nullptr;
    int m_exitCode = 0;
    bool m_startFailed = false;
};
