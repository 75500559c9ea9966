#pragma once

#include "playlistparser.h"

// A flat text playlist: the whole text is one loop that applies at any time.
class FlatPlaylistParser : public PlaylistParser
{
    Q_OBJECT

public:
    FlatPlaylistParser(int defaultDuration, const QString &text, QObject *parent = nullptr);

    PlaylistLoopPtr selectLoop(const QDateTime &reference) override;
    PlaylistLoopPtr selectLoop(const QDateTime &reference, const QDateTime &now) override;
    void refresh() override;
    QList<PlaylistLoopPtr> getLoops() override;

    int defaultDuration;
    PlaylistLoopPtr loop;
    // Kept so that the loop can be rebuilt from what is on disk now.
    QString text;
};
