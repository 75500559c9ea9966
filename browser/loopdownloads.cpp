#include "loopdownloads.h"

#include "downloader.h"
#include "playlistparser.h"
#include "signalrelay.h"

#include <QDebug>
#include <QEventLoop>
#include <QTimer>

LoopDownloads::LoopDownloads(QObject *parent)
    : QObject(parent)
{
}

bool LoopDownloads::downloadLoops(PlaylistParser &parser, bool revalidate)
{
    bool allDone = true;
    m_setUpClock.start();
    const QList<PlaylistLoopPtr> loops = parser.getLoops();
    for (const PlaylistLoopPtr &loop : loops) {
        // The program is ending: no further wait would be answered.
        if (SignalRelay::caughtSignal())
            return false;
        if (loop->active)
            allDone = downloadLoop(loop, revalidate, parser.playsOfflineCopy()) && allDone;
    }
    return allDone;
}

bool LoopDownloads::downloadLoop(const PlaylistLoopPtr &loop, bool revalidate, bool keepPrevious)
{
    auto *downloader = new Downloader(loop, revalidate);
    downloader->setKeepPrevious(keepPrevious);
    QEventLoop wait;
    bool finished = false;
    bool done = false;
    connect(downloader, &Downloader::downloadDone, &wait, [&] {
        finished = done = true;
        wait.quit();
    });
    connect(downloader, &Downloader::downloadNotDone, &wait, [&] {
        finished = true;
        wait.quit();
    });
    // All walks of one set-up share one deadline: a server that never answers must not keep
    // the screen blank once per item, nor once per loop.
    QTimer deadline;
    deadline.setSingleShot(true);
    connect(&deadline, &QTimer::timeout, &wait, &QEventLoop::quit);
    downloader->start();
    // A walk with nothing to fetch ends before the wait would begin.
    if (!finished) {
        deadline.start(int(qMax<qint64>(MinimumWalkWaitMs, SetUpWaitMs - m_setUpClock.elapsed())));
        wait.exec();
    }
    if (!finished && !SignalRelay::caughtSignal()) {
        // The show starts with what is cached or local; the walk goes on behind it, and the
        // items it has not fetched yet are passed over until it has.
        disconnect(downloader, nullptr, &wait, nullptr);
        ++m_walksInFlight;
        qDebug() << "Loop still downloading; showing what is cached meanwhile.";
        connect(downloader, &Downloader::downloadDone, this, [this] {
            --m_walksInFlight;
            qDebug() << "Loop downloaded";
        });
        connect(downloader, &Downloader::downloadNotDone, this, [this] {
            --m_walksInFlight;
            qDebug() << "Loop not downloaded";
            Q_EMIT failedBehindShow();
        });
        return true;
    }
    qDebug() << (done ? "Loop downloaded" : "Loop not downloaded");
    return done;
}
