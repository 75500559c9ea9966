#pragma once

#include "playlistloop.h"

#include <QElapsedTimer>
#include <QObject>

class PlaylistParser;

// Has the active loops of a new playlist cached before the show starts with it. All loops
// together wait at most SetUpWaitMs; a loop not cached by then goes on downloading behind the
// show, whose items still missing are passed over until it is done.
class LoopDownloads : public QObject
{
    Q_OBJECT

public:
    static constexpr int SetUpWaitMs = 15000;
    static constexpr int MinimumWalkWaitMs = 200;

    explicit LoopDownloads(QObject *parent = nullptr);

    // False when a loop could not be downloaded.
    bool downloadLoops(PlaylistParser &parser, bool revalidate);
    // Whether loops are still downloading behind the show.
    bool downloading() const { return m_walksInFlight > 0; }

Q_SIGNALS:
    // A loop that went on downloading behind the show could not be downloaded.
    void failedBehindShow();

private:
    bool downloadLoop(const PlaylistLoopPtr &loop, bool revalidate, bool keepPrevious);

    QElapsedTimer m_setUpClock;
    int m_walksInFlight = 0;
};
