#pragma once

#include "playlistloop.h"

#include <QDateTime>
#include <QList>
#include <QObject>
#include <QString>

class QUrl;
class QWidget;

// The playlist source: fetches the playlist text, keeps an offline copy and answers which loop
// applies now. Loops are shared, so a caller still showing a loop keeps it alive after a refresh
// or after the parser itself is replaced.
class PlaylistParser : public QObject
{
    Q_OBJECT

public:
    ~PlaylistParser() override;

    // A new parser owned by the caller. widget is hidden before the offline message is shown.
    static PlaylistParser *get(int defaultDuration, const QUrl &url, QWidget *widget);
    // The playlist kept from the network, read without asking the network (the offline backup,
    // else the last copy); nullptr when there is none. Marked as an offline copy.
    static PlaylistParser *fromKeptCopy(int defaultDuration);

    // The schedule played whenever no playlist can be had: one loop, no items.
    static QString emptySchedule();
    // The state folder's playlist copy and its offline backup.
    static QString localCopyPath();
    static QString offlineCopyPath();

    // Limits on a playlist document: larger or deeper documents are rejected, not parsed.
    static qint64 maxDocumentBytes();
    static constexpr int MaxDocumentDepth = 64;
    // A content server's playlist must have arrived whole within this, however it trickles.
    static constexpr int FetchDeadlineMs = 120000;
    // Whether a fetched text may replace the kept copy: it must parse as a playlist that has at
    // least one loop. A captive portal's page or half a document is not one.
    static bool isPlaylist(const QString &text);

    // The text played is the kept offline copy, not what the source gave this time: the walk
    // over it must leave that copy in place.
    bool playsOfflineCopy() const { return m_offlineCopy; }

    virtual PlaylistLoopPtr selectLoop(const QDateTime &reference) = 0;
    // The same at a given instant instead of the current local time.
    virtual PlaylistLoopPtr selectLoop(const QDateTime &reference, const QDateTime &now) = 0;
    virtual void refresh() = 0;
    virtual QList<PlaylistLoopPtr> getLoops() = 0;

protected:
    explicit PlaylistParser(QObject *parent = nullptr);

private:
    static QString fetch(const QUrl &url, QWidget *widget, bool &offlineCopy);
    static PlaylistParser *fromText(int defaultDuration, const QString &text,
                                    const QString &source);

    bool m_offlineCopy = false;
};
