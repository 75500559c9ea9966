#include "nextitem.h"

#include "contentfactory.h"
#include "looppositions.h"
#include "loopdownloads.h"
#include "playlistparser.h"
#include "runnable.h"
#include "viewer.h"

#include <QDebug>

#include <utility>

namespace {
// Two items built alike: a loop read afresh holds new items with the same content.
bool sameContent(const PlaylistItemPtr &a, const PlaylistItemPtr &b)
{
    if (!a || !b)
        return false;
    return a == b
           || (a->url == b->url && a->type == b->type && a->duration == b->duration
               && a->href == b->href && a->parameters == b->parameters);
}
} // namespace

NextItem::NextItem(Viewer *viewer, ContentFactory *content, LoopDownloads *downloads,
                   QObject *parent)
    : QObject(parent)
    , m_viewer(viewer)
    , m_content(content)
    , m_downloads(downloads)
{
    m_delay.setSingleShot(true);
    m_delay.setInterval(DelayMs);
    connect(&m_delay, &QTimer::timeout, this, &NextItem::build);
}

NextItem::~NextItem()
{
    delete m_widget.data();
}

QWidget *NextItem::nextWidget(LoopPositions &positions, PlaylistParser &parser, int &failedStarts,
                              PlaylistItemPtr &item)
{
    // Items that are passed over are skipped here in a loop rather than by recursion; a loop
    // with nothing showable shows the "nothing to display" picture instead of spinning.
    const int maxAttempts = 2 * (parser.getLoops().size() + 1);
    int attempts = 0;
    for (;;) {
        // A whole pass in which nothing could start: rest on the placeholder before trying again.
        const PlaylistLoopPtr loop = positions.currentLoop();
        if (loop && failedStarts > loop->items.size()) {
            failedStarts = 0;
            discard();
            return m_content->nothingToDisplay();
        }
        const LoopPositions::Step step = positions.step(parser);
        if (step == LoopPositions::ForcedLoopOver)
            continue;
        if (step == LoopPositions::NothingToShow
            || (step == LoopPositions::LoopStartedOver && ++attempts > maxAttempts)) {
            discard();
            return m_content->nothingToDisplay();
        }
        item = positions.item();
        if (QWidget *prepared = take(item))
            return prepared;
        if (QWidget *widget
            = m_content->widgetFor(item, positions.currentLoop(), m_downloads->downloading()))
            return widget;
    }
}

void NextItem::prepareAfter(const LoopPositions &positions, PlaylistParser &parser)
{
    PlaylistLoopPtr loop;
    const PlaylistItemPtr wanted = positions.upcoming(parser, &loop);
    if (m_item && !sameContent(m_item, wanted))
        discard();
    m_wanted = wanted;
    m_wantedLoop = loop;
    if (m_wanted && !m_item && m_content->preparable(m_wanted))
        m_delay.start();
}

void NextItem::build()
{
    const PlaylistItemPtr item = std::exchange(m_wanted, nullptr);
    if (!item || m_item)
        return;
    QWidget *widget = m_content->widgetFor(item, m_wantedLoop, m_downloads->downloading());
    Runnable *runnable = Runnable::of(widget);
    if (!runnable || !m_viewer->addLowered(widget)) {
        delete widget;
        return;
    }
    qDebug() << "Preparing" << item->url;
    m_item = item;
    m_widget = widget;
    m_failed = false;
    // Content that cannot show (a page that does not load) is built afresh at its turn and
    // fails there, as any other.
    connect(runnable->notifier(), &RunnableNotifier::end, this, [this, widget] {
        if (widget == m_widget)
            m_failed = true;
    });
    runnable->prepare();
}

QWidget *NextItem::take(const PlaylistItemPtr &item)
{
    m_delay.stop();
    m_wanted.reset();
    if (!m_widget || m_failed || !sameContent(m_item, item)) {
        discard();
        return nullptr;
    }
    QWidget *widget = m_widget;
    disconnect(Runnable::of(widget)->notifier(), nullptr, this, nullptr);
    m_widget.clear();
    m_item.reset();
    qDebug() << "Showing the item prepared ahead:" << item->url
             << (Runnable::of(widget)->isReady() ? "" : "(not painted yet)");
    return widget;
}

void NextItem::discard()
{
    m_delay.stop();
    m_wanted.reset();
    m_item.reset();
    QWidget *widget = m_widget.data();
    m_widget.clear();
    if (!widget)
        return;
    qDebug() << "Discarding the prepared item";
    if (Runnable *runnable = Runnable::of(widget))
        runnable->stop();
    m_viewer->removeLowered(widget);
    widget->deleteLater();
}
