// What a viewer of the real program sees, on the X server of DISPLAY. Run by hand:
//   bench_show [--program PATH] [--rounds N] [--settle MS]
// 1. Start of the program to its first picture on the screen.
// 2. A remote "next" datagram to the next item painted, per kind of item (a video through
//    libVLC): the screen's centre
//    pixel is polled about every millisecond until it shows the next item's colour.
// 3. The CPU the whole program (web engine processes included) takes while a still web page shows.
// 4. A timed end to the next item painted, between two local web pages of 2 s each: how much
//    later than the first page's time the second one is on the screen.
// Each item is a solid colour, so the pixel tells the items apart; the program's own demo
// picture, which a flat list inserts, is avoided by an XML schedule.

#include "kioskrun.h"
#include "processtree.h"

#include <QColor>
#include <QElapsedTimer>
#include <QGuiApplication>
#include <QImage>
#include <QMap>
#include <QPainter>
#include <QPdfWriter>
#include <QProcess>
#include <QScreen>
#include <QThread>
#include <QUdpSocket>

#include <cstdio>
#include <unistd.h>

using namespace kioskrun;

namespace {

struct Item
{
    const char *kind;
    QColor colour;
};

const Item items[] = {
    {"picture (PNG)", QColor(220, 0, 0)},    {"picture (4K JPEG)", QColor(0, 0, 220)},
    {"web page (local)", QColor(0, 200, 0)}, {"PDF page", QColor(220, 220, 0)},
    {"text document", QColor(0, 200, 200)},  {"GIF", QColor(230, 120, 0)},
    {"video", QColor(200, 0, 200)},
};

QByteArray makeContent(const QString &dir)
{
    QStringList entries;
    QImage png(640, 480, QImage::Format_RGB32);
    png.fill(items[0].colour);
    png.save(dir + "/red.png");
    entries << QString("<i uri='file://%1/red.png' type='image' time='600'/>").arg(dir);
    QImage jpeg(3840, 2160, QImage::Format_RGB32);
    jpeg.fill(items[1].colour);
    jpeg.save(dir + "/blue.jpg", "JPEG", 90);
    entries << QString("<i uri='file://%1/blue.jpg' type='image' time='600'/>").arg(dir);
    write(dir + "/page.html",
          "<html><body style='margin:0;background:" + items[2].colour.name().toLatin1()
              + "'><h1 style='color:#006000'>Menu</h1></body></html>");
    entries << QString("<i uri='file://%1/page.html' type='url' time='600'/>").arg(dir);
    {
        QPdfWriter pdf(dir + "/doc.pdf");
        QPainter painter(&pdf);
        painter.fillRect(QRect(QPoint(0, 0), QSize(pdf.width(), pdf.height())), items[3].colour);
    }
    entries << QString("<i uri='file://%1/doc.pdf' type='pdf' time='600'/>").arg(dir);
    write(dir + "/notice.html",
          "<html><body style='margin:0;background:" + items[4].colour.name().toLatin1()
              + "'><p>Opening hours: 9 to 5.</p></body></html>");
    entries << QString("<i uri='file://%1/notice.html' type='document' time='600'/>").arg(dir);
    if (!ffmpeg({"-f", "lavfi", "-i",
                 QString("color=c=%1:size=320x240:rate=5:duration=1").arg(items[5].colour.name()),
                 dir + "/anim.gif"})
        || !ffmpeg(
            {"-f", "lavfi", "-i",
             QString("color=c=%1:size=640x360:rate=25:duration=60").arg(items[6].colour.name()),
             "-c:v", "libx264", "-preset", "veryfast", "-pix_fmt", "yuv420p", dir + "/clip.mp4"}))
        return QByteArray();
    entries << QString("<i uri='file://%1/anim.gif' type='gif' time='600'/>").arg(dir);
    // Played by libVLC; each of its turns is far shorter than the clip.
    entries << QString("<i uri='file://%1/clip.mp4' type='video' time='600'/>").arg(dir);
    return "<?xml version=\"1.0\"?>\n<schedule>\n<loop id=\"0\">\n" + entries.join('\n').toUtf8()
           + "\n</loop>\n</schedule>\n";
}

} // namespace

int main(int argc, char *argv[])
{
    QGuiApplication app(argc, argv);
    const QStringList arguments = app.arguments();
    const QString program = option(arguments, "--program", builtProgram());
    const int rounds = option(arguments, "--rounds", 10, 1);
    // How long each item shows before the next "next": long enough for the one after it to be
    // made ready, as when an operator presses next on an item seen for a moment.
    const int settleMs = option(arguments, "--settle", 1000, 200);
    QScreen *screen = QGuiApplication::primaryScreen();
    const QSize size = screen->geometry().size();

    Home home;
    const QString conf = home.conf();
    const QString media = home.media();
    const QByteArray playlist = makeContent(media);
    if (playlist.isEmpty()) {
        std::fprintf(stderr, "ffmpeg could not make the animation or the clip\n");
        return 1;
    }
    write(conf + "/playlist", playlist);
    write(conf + "/preferences", wholeScreenPreferences(size, "external_player=false\n"));

    QProcess kiosk;
    home.prepare(kiosk);

    QElapsedTimer clock;
    clock.start();
    if (!home.start(kiosk, program))
        return 1;
    auto waitFor = [&](const QColor &colour, qint64 timeoutMs) {
        const qint64 until = clock.elapsed() + timeoutMs;
        while (clock.elapsed() < until && kiosk.state() == QProcess::Running) {
            if (near(centre(screen), colour))
                return true;
            QThread::usleep(500);
        }
        return false;
    };
    const qint64 started = clock.elapsed();
    if (!waitFor(items[0].colour, 20000)) {
        std::fprintf(stderr, "the first picture never showed (log in %s)\n",
                     qPrintable(home.path()));
        home.keep();
        return 1;
    }
    std::printf("start to first picture: %lld ms\n", clock.elapsed() - started);

    // Whatever comes next is timed from the datagram to the first changed pixel, and filed
    // under the kind its colour names; the program's demo picture, which it inserts into every
    // loop, has a kind of its own.
    const int count = int(sizeof(items) / sizeof(items[0]));
    auto kindOf = [&](QRgb pixel) {
        for (int i = 0; i < count; ++i) {
            if (near(pixel, items[i].colour))
                return i;
        }
        return count;
    };
    QUdpSocket socket;
    QMap<int, QList<qint64>> times;
    QRgb before = centre(screen);
    for (int step = 0; step < rounds * (count + 2); ++step) {
        const qint64 sent = clock.elapsed();
        socket.writeDatagram("{\"action\":1}", QHostAddress::LocalHost, 54545);
        QRgb now = before;
        while (now == before && clock.elapsed() - sent < 10000)
            now = centre(screen);
        const qint64 painted = clock.elapsed() - sent;
        // A picture fading or scaling in passes through other colours: the item is named once
        // the screen has settled.
        QThread::msleep(settleMs);
        before = centre(screen);
        times[kindOf(before)] << painted;
    }
    std::printf("remote next to painted, %d rounds (p50 / p95 / max ms):\n", rounds);
    for (int i = 0; i <= count; ++i)
        std::printf("  %-20s %5lld %5lld %5lld\n", i < count ? items[i].kind : "demo picture",
                    percentile(times[i], 0.5), percentile(times[i], 0.95),
                    percentile(times[i], 1.0));

    // A still web page: what the program takes while nothing moves.
    for (int step = 0; step < count + 2 && !near(centre(screen), items[2].colour); ++step) {
        socket.writeDatagram("{\"action\":1}", QHostAddress::LocalHost, 54545);
        QThread::msleep(500);
    }
    if (near(centre(screen), items[2].colour)) {
        QThread::sleep(2);
        const qint64 before = processtree::cpuTicks(kiosk.processId());
        QElapsedTimer still;
        still.start();
        QThread::sleep(10);
        const double seconds = still.elapsed() / 1000.0;
        const double share = 100.0 * (processtree::cpuTicks(kiosk.processId()) - before)
                             / ::sysconf(_SC_CLK_TCK) / seconds;
        std::printf("CPU on a still web page: %.1f %% of one core (%d processes)\n", share,
                    int(processtree::processTree(kiosk.processId()).size()));
    }
    kiosk.terminate();
    kiosk.waitForFinished(5000);

    // Timed ends between two web pages: each boundary is found by the pixel's change.
    const QColor first = items[2].colour;
    const QColor second = items[4].colour;
    write(media + "/first.html",
          "<html><body style='margin:0;background:" + first.name().toLatin1() + "'></body></html>");
    write(media + "/second.html", "<html><body style='margin:0;background:"
                                      + second.name().toLatin1() + "'></body></html>");
    write(conf + "/playlist",
          QString("<?xml version=\"1.0\"?>\n<schedule>\n<loop id=\"0\">\n"
                  "<i uri='file://%1/first.html' type='url' time='2'/>\n"
                  "<i uri='file://%1/second.html' type='url' time='2'/>\n</loop>\n</schedule>\n")
              .arg(media)
              .toUtf8());
    // From the program's word that the shown item's time is over to the next page painted.
    QProcess timed;
    timed.setProcessEnvironment(home.environment());
    timed.start(program, {"--basepath", conf});
    QByteArray log;
    QList<qint64> late;
    // The page last seen, when, and the last time an item's time was over. The loop also holds
    // the program's demo picture: only a page that follows the other page at once counts.
    QColor lastPage;
    qint64 lastPageSeen = -1;
    qint64 lastTimeout = -1;
    const qint64 until = clock.elapsed() + 20000 + 6000 * rounds;
    const auto readLog = [&] {
        timed.waitForReadyRead(0);
        log += timed.readAllStandardError();
        if (log.contains("Timeout\n"))
            lastTimeout = clock.elapsed();
        log = log.mid(log.lastIndexOf('\n') + 1);
    };
    while (late.size() < 2 * rounds && clock.elapsed() < until
           && timed.state() != QProcess::NotRunning) {
        readLog();
        const QRgb pixel = centre(screen);
        const QColor page = near(pixel, first) ? first : near(pixel, second) ? second : QColor();
        if (!page.isValid())
            continue;
        const qint64 now = clock.elapsed();
        if (lastPage.isValid() && page != lastPage && now - lastPageSeen < 500
            && lastTimeout >= 0) {
            // The line may have come between reading the log and reading the pixel: the page
            // then changed within this one round, not an item's time late.
            if (now - lastTimeout > 1000)
                readLog();
            late << qMax<qint64>(0, now - lastTimeout);
        }
        lastPage = page;
        lastPageSeen = now;
    }
    timed.terminate();
    timed.waitForFinished(5000);
    std::printf("timed end to next web page painted, %d boundaries (p50 / p95 / max ms): "
                "%lld %lld %lld\n",
                int(late.size()), percentile(late, 0.5), percentile(late, 0.95),
                percentile(late, 1.0));
    return 0;
}
