// What a viewer sees between two items of a show, on the X server of DISPLAY. Run by hand:
//   bench_gaps [--program PATH] [--rounds N] [--slideshow key=value ...]
// One loop holds every ordered pair of kinds (picture, GIF, PDF, web page, text document, video)
// back to back, each item a solid colour of its kind, shown for a second; videos play through
// libVLC. The screen's centre is polled about every millisecond; at every boundary the longest
// span of a colour that belongs to neither item (black, white, anything else) is its gap. The
// program inserts its demo picture after the first item and then after every third: the items
// are laid out so that each pair still follows directly somewhere, and a boundary that passes
// through the demo is not counted.

#include "kioskrun.h"

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

#include <algorithm>
#include <cstdio>
#include <vector>

using namespace kioskrun;

namespace {

struct Kind
{
    const char *name;
    QColor colour;
};

const Kind kinds[] = {
    {"picture", QColor(220, 0, 0)},  {"GIF", QColor(0, 0, 255)},    {"PDF", QColor(220, 220, 0)},
    {"web page", QColor(0, 200, 0)}, {"text", QColor(0, 200, 200)}, {"video", QColor(200, 0, 200)},
};
const int kindCount = int(sizeof(kinds) / sizeof(kinds[0]));
// A span of another colour longer than this is the demo picture, not a gap.
const qint64 demoSpanMs = 1500;

int kindOf(QRgb pixel)
{
    for (int i = 0; i < kindCount; ++i) {
        if (near(pixel, kinds[i].colour))
            return i;
    }
    return -1;
}

// Every ordered pair of two different kinds once: an Euler circuit of the complete directed
// graph on the kinds.
std::vector<int> everyPair()
{
    std::vector<std::vector<int>> left(kindCount);
    for (int from = 0; from < kindCount; ++from) {
        for (int to = kindCount - 1; to >= 0; --to) {
            if (to != from)
                left[from].push_back(to);
        }
    }
    std::vector<int> stack{0};
    std::vector<int> circuit;
    while (!stack.empty()) {
        const int at = stack.back();
        if (left[at].empty()) {
            circuit.push_back(at);
            stack.pop_back();
        } else {
            stack.push_back(left[at].back());
            left[at].pop_back();
        }
    }
    std::reverse(circuit.begin(), circuit.end());
    return circuit;
}

// One file per kind; the playlist entry of an item of that kind.
QString entry(const QString &dir, int kind)
{
    static const char *const files[]
        = {"picture.png", "anim.gif", "doc.pdf", "page.html", "text.html", "clip.mp4"};
    static const char *const types[] = {"image", "gif", "pdf", "url", "document", "video"};
    return QString("<i uri='file://%1/%2' type='%3' time='1'/>")
        .arg(dir, QLatin1String(files[kind]), QLatin1String(types[kind]));
}

bool makeContent(const QString &dir, QByteArray *playlist)
{
    QImage png(640, 480, QImage::Format_RGB32);
    png.fill(kinds[0].colour);
    png.save(dir + "/picture.png");
    if (!ffmpeg({"-f", "lavfi", "-i",
                 QString("color=c=%1:size=320x240:rate=5:duration=1").arg(kinds[1].colour.name()),
                 dir + "/anim.gif"}))
        return false;
    {
        QPdfWriter pdf(dir + "/doc.pdf");
        QPainter painter(&pdf);
        painter.fillRect(QRect(QPoint(0, 0), QSize(pdf.width(), pdf.height())), kinds[2].colour);
    }
    write(dir + "/page.html", "<html><body style='margin:0;background:"
                                  + kinds[3].colour.name().toLatin1() + "'></body></html>");
    write(dir + "/text.html",
          "<html><body style='margin:0;background:" + kinds[4].colour.name().toLatin1()
              + "'><p>Opening hours: 9 to 5.</p></body></html>");
    if (!ffmpeg(
            {"-f", "lavfi", "-i",
             QString("color=c=%1:size=640x360:rate=25:duration=1.5").arg(kinds[5].colour.name()),
             "-c:v", "libx264", "-preset", "veryfast", "-pix_fmt", "yuv420p", dir + "/clip.mp4"}))
        return false;

    // The demo picture comes after the first item and after every third one from there: the
    // circuit goes in as chains of three, v0 v1 v2 | v2 v3 v4 | ..., so every pair is direct.
    const std::vector<int> circuit = everyPair();
    QStringList entries{entry(dir, circuit.front())};
    for (size_t i = 0; i + 2 < circuit.size(); i += 2) {
        for (size_t j = i; j <= i + 2; ++j)
            entries << entry(dir, circuit[j]);
    }
    *playlist = "<?xml version=\"1.0\"?>\n<schedule>\n<loop id=\"0\">\n"
                + entries.join('\n').toUtf8() + "\n</loop>\n</schedule>\n";
    return true;
}

} // namespace

int main(int argc, char *argv[])
{
    QGuiApplication app(argc, argv);
    QString program = builtProgram();
    int rounds = 1;
    QStringList preferences;
    const QStringList arguments = app.arguments();
    for (int i = 1; i + 1 < arguments.size(); i += 2) {
        if (arguments.at(i) == QLatin1String("--program"))
            program = arguments.at(i + 1);
        else if (arguments.at(i) == QLatin1String("--rounds"))
            rounds = arguments.at(i + 1).toInt();
        else if (arguments.at(i) == QLatin1String("--slideshow"))
            preferences << arguments.at(i + 1);
    }
    QScreen *screen = QGuiApplication::primaryScreen();
    const QSize size = screen->geometry().size();

    Home home;
    const QString conf = home.conf();
    const QString media = home.media();
    QByteArray playlist;
    if (!makeContent(media, &playlist)) {
        std::fprintf(stderr, "ffmpeg could not make the animation or the clip\n");
        return 1;
    }
    write(conf + "/playlist", playlist);
    write(conf + "/preferences",
          wholeScreenPreferences(size, "external_player=false\n" + preferences.join('\n').toUtf8()
                                           + '\n'));

    QProcess kiosk;
    home.prepare(kiosk);
    if (!home.start(kiosk, program))
        return 1;

    // gaps[from][to]: the longest span of a foreign colour at each boundary seen.
    QMap<int, QMap<int, QList<qint64>>> gaps;
    auto complete = [&] {
        for (int from = 0; from < kindCount; ++from) {
            for (int to = 0; to < kindCount; ++to) {
                if (from != to && gaps[from][to].size() < rounds)
                    return false;
            }
        }
        return true;
    };
    QElapsedTimer clock;
    clock.start();
    int shown = -1;
    qint64 foreignSince = -1;
    qint64 longest = 0;
    const qint64 until = 30000 + qint64(rounds) * 150000;
    while (clock.elapsed() < until && kiosk.state() == QProcess::Running && !complete()) {
        const int kind = kindOf(centre(screen));
        const qint64 now = clock.elapsed();
        if (kind < 0) {
            if (foreignSince < 0)
                foreignSince = now;
        } else {
            if (foreignSince >= 0)
                longest = qMax(longest, now - foreignSince);
            foreignSince = -1;
            if (kind != shown) {
                if (shown >= 0 && longest < demoSpanMs)
                    gaps[shown][kind] << longest;
                shown = kind;
                longest = 0;
            } else if (longest >= demoSpanMs) {
                longest = 0;
            }
        }
        QThread::usleep(500);
    }
    kiosk.terminate();
    kiosk.waitForFinished(5000);

    std::printf("longest span of neither item's colour per boundary, %d round(s) "
                "(count, p50 / p95 / max ms):\n",
                rounds);
    QList<qint64> all;
    for (int from = 0; from < kindCount; ++from) {
        for (int to = 0; to < kindCount; ++to) {
            if (from == to)
                continue;
            const QList<qint64> &values = gaps[from][to];
            all += values;
            std::printf("  %-9s -> %-9s %2d  %4lld %4lld %4lld\n", kinds[from].name, kinds[to].name,
                        int(values.size()), percentile(values, 0.5), percentile(values, 0.95),
                        percentile(values, 1.0));
        }
    }
    std::printf("  all boundaries        %2d  %4lld %4lld %4lld\n", int(all.size()),
                percentile(all, 0.5), percentile(all, 0.95), percentile(all, 1.0));
    return complete() ? 0 : 2;
}
