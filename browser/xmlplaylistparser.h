#pragma once

#include "playlistparser.h"

// An XML schedule: one loop per "loop" element, the first being the default.
class XmlPlaylistParser : public PlaylistParser
{
    Q_OBJECT

public:
    XmlPlaylistParser(int defaultDuration, const QString &text, const QString &source,
                      QObject *parent = nullptr);

    PlaylistLoopPtr selectLoop(const QDateTime &reference) override;
    PlaylistLoopPtr selectLoop(const QDateTime &reference, const QDateTime &now) override;
    void refresh() override;
    QList<PlaylistLoopPtr> getLoops() override;

    int defaultDuration;
    QString source;
    QList<PlaylistLoopPtr> loops;
    bool valid = false;
    QString scheduleAttribute;
};
