#pragma once

#include "playlistloop.h"

#include <QDateTime>
#include <QHash>

class PlaylistParser;

// Where the show stands in its playlist: one last-shown position per loop, so that each loop
// resumes where it left off when it becomes current again, and the loop chosen by a remote
// "go to", which plays before the schedule takes over again.
class LoopPositions
{
public:
    enum Step {
        Item,            // the next item of the current loop
        LoopStartedOver, // the loop was at its end: selected afresh, from its first item
        ForcedLoopOver,  // the forced loop has ended; the schedule decides from now on
        NothingToShow,   // no loop, or an empty one
    };

    LoopPositions();

    // A local playlist keeps one position for all its loops.
    void setSingleKey(bool singleKey);
    // Loops are selected as of now from here on.
    void restartSchedule();
    void dropForcedLoop();
    // The loop plays from that item (its own stored position moves there), then the schedule.
    void forceLoop(const PlaylistLoopPtr &loop, int item);
    // A one-item loop of a file, shown for a second; stored positions stay as they are.
    void forceFile(const QString &path);

    Step step(PlaylistParser &parser);
    PlaylistLoopPtr currentLoop() const { return m_currentLoop; }
    // The item stepped to by the last step that found one.
    PlaylistItemPtr item() const;
    // What the next step will most likely find, and its loop, without stepping: null when the
    // schedule decides afresh (a forced loop ending). A loop at its end starts over.
    PlaylistItemPtr upcoming(PlaylistParser &parser, PlaylistLoopPtr *loop) const;

private:
    int positionOf(int key) const;
    void setPosition(int key, int position);
    int loopKey(const PlaylistLoopPtr &loop) const;
    void moveTo(const PlaylistLoopPtr &loop, int position);

    bool m_singleKey = false;
    QDateTime m_reference;
    PlaylistLoopPtr m_currentLoop;
    int m_position = -1;
    // Keyed by loop id: ids come from the playlist and may be negative or far apart.
    QHash<int, int> m_positions;
    PlaylistLoopPtr m_forcedLoop;
    bool m_forcedHasOwnPosition = false;
    int m_forcedPosition = -1;
};
