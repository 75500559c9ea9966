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

    enum class Check { WellFormed, NotXml, TooDeep, Doctype };
    // A pass over the text that builds nothing, so nesting of any depth cannot exhaust the
    // stack: whether it is well-formed XML within the depth limit and without a document type
    // declaration, and how many loops it has.
    static Check inspect(const QString &text, int *loopCount = nullptr);
    // Why a document of that kind is refused; empty for one that is read.
    static QString refusal(Check check);
    // The document was XML but refused: nested too deep or with a document type declaration.
    bool rejected = false;
};
