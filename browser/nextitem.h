#pragma once

#include "playlistloop.h"

#include <QObject>
#include <QPointer>
#include <QTimer>

class ContentFactory;
class LoopDownloads;
class LoopPositions;
class PlaylistParser;
class Viewer;

// Builds the widget of the item that plays next. While the current item plays, the one expected
// after it is built and made ready under it (shown, but lowered), so that its turn is a single
// raise with nothing black or white in between. At most one item is prepared ahead; it is used
// only when the show steps to that very item, and goes otherwise.
class NextItem : public QObject
{
    Q_OBJECT

public:
    // Time the item just raised gets to paint before the next one is built.
    static constexpr int DelayMs = 50;

    NextItem(Viewer *viewer, ContentFactory *content, LoopDownloads *downloads,
             QObject *parent = nullptr);
    ~NextItem() override;

    // Steps the positions to the next item that can be shown (item set to it) and gives its
    // widget: the prepared one when it is that item's, else a new one; the "nothing to display"
    // picture when nothing can be shown. A whole pass of items that could not start (more of
    // them than the loop holds) rests on that picture once, and the count starts over.
    QWidget *nextWidget(LoopPositions &positions, PlaylistParser &parser, int &failedStarts,
                        PlaylistItemPtr &item);
    // Prepares, shortly, what the next step from these positions will find; anything else
    // prepared before goes.
    void prepareAfter(const LoopPositions &positions, PlaylistParser &parser);
    // The widget prepared for that item, handed over; null when there is none, in which case
    // whatever was prepared goes.
    QWidget *take(const PlaylistItemPtr &item);
    void discard();

private:
    void build();

    Viewer *m_viewer;
    ContentFactory *m_content;
    LoopDownloads *m_downloads;
    QTimer m_delay;
    PlaylistItemPtr m_wanted;
    PlaylistLoopPtr m_wantedLoop;
    PlaylistItemPtr m_item;
    QPointer<QWidget> m_widget;
    bool m_failed = false;
};
