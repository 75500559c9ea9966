// Built-in video player figures on the X server of DISPLAY. Run by hand:
//   bench_video [--rounds N] [--seconds S]
// 1. Time from the end of the previous item (a red picture) to the first frame of a 1080p H.264
//    file on the X screen, found by polling the screen's centre pixel.
// 2. The process's CPU share (of one core) while a 1080p 25 fps clip plays to its end.

#include "commandlineparser.h"
#include "playlistitem.h"
#include "settings.h"
#include "video.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QScreen>
#include <QSignalSpy>
#include <QStackedWidget>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <cstdio>

#include <unistd.h>

namespace {

void quietMessages(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    if (type != QtDebugMsg && type != QtInfoMsg)
        std::fprintf(stderr, "%s\n", qPrintable(message));
}

// A 1080p 25 fps H.264 clip with a moving picture, as a camera or an editor would give it.
bool makeClip(const QString &path, int seconds)
{
    return QProcess::execute(
               QStringLiteral("ffmpeg"),
               {"-y", "-loglevel", "error", "-f", "lavfi", "-i",
                QStringLiteral("testsrc2=size=1920x1080:rate=25:duration=%1").arg(seconds), "-c:v",
                "libx264", "-preset", "veryfast", "-pix_fmt", "yuv420p", path})
           == 0;
}

QColor screenCentre()
{
    QScreen *screen = QGuiApplication::primaryScreen();
    const QPoint centre = screen->geometry().center();
    return screen->grabWindow(0, centre.x() - 2, centre.y() - 2, 4, 4).toImage().pixelColor(2, 2);
}

// User and system CPU time of this process, in seconds.
double cpuSeconds()
{
    QFile stat(QStringLiteral("/proc/self/stat"));
    if (!stat.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray line = stat.readAll();
    // Fields after the command name, which is in parentheses and may hold blanks.
    const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
    if (fields.size() < 13)
        return 0;
    return (fields.at(11).toDouble() + fields.at(12).toDouble()) / double(sysconf(_SC_CLK_TCK));
}

// Shows the red picture, then moves to the video as the viewer does; milliseconds until the
// video's first frame is on the X screen, -1 if none came.
qint64 timeToFirstFrame(QStackedWidget &stage, QWidget &previous, PlaylistItem &item)
{
    stage.setCurrentWidget(&previous);
    if (!QTest::qWaitFor([] { return screenCentre() == QColor(Qt::red); }, 5000)) {
        std::fprintf(stderr, "the previous item is not on screen (%s)\n",
                     qPrintable(screenCentre().name()));
        return -1;
    }

    QElapsedTimer clock;
    clock.start();
    auto *video = new Video(&item, &stage);
    stage.addWidget(video);
    stage.setCurrentWidget(video);
    video->show();
    video->start();
    bool shown = false;
    while (!shown && clock.elapsed() < 10000) {
        QCoreApplication::processEvents();
        const QColor centre = screenCentre();
        shown = centre != QColor(Qt::red) && centre != QColor(Qt::black);
    }
    const qint64 elapsed = shown ? clock.elapsed() : -1;
    video->stop();
    stage.removeWidget(video);
    delete video;
    return elapsed;
}

} // namespace

int main(int argc, char **argv)
{
    QTemporaryDir home;
    qputenv("HOME", home.path().toUtf8());
    QApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    const auto option = [&arguments](const char *name, int fallback) {
        const int at = arguments.indexOf(QLatin1String(name));
        return at >= 0 && at + 1 < arguments.size() ? arguments.at(at + 1).toInt() : fallback;
    };
    const int rounds = std::max(1, option("--rounds", 5));
    const int seconds = std::max(2, option("--seconds", 10));
    qInstallMessageHandler(quietMessages);

    QByteArray base = home.path().toUtf8();
    char program[] = "bench_video";
    char basepath[] = "--basepath";
    char *parserArguments[] = {program, basepath, base.data(), nullptr};
    const CommandLineParser parser(3, parserArguments);
    Settings *settings = Settings::load(true, &parser);
    settings->set(QStringLiteral("slideshow/external_player"), false);
    settings->set(QStringLiteral("slideshow/mute"), true);
    PlaylistItem::initStrings();

    const QString shortClip = home.filePath(QStringLiteral("short.mp4"));
    const QString longClip = home.filePath(QStringLiteral("long.mp4"));
    if (!makeClip(shortClip, 3) || !makeClip(longClip, seconds)) {
        std::fprintf(stderr, "ffmpeg could not make the 1080p clips\n");
        return 1;
    }

    QStackedWidget stage;
    QWidget previous;
    QPalette red = previous.palette();
    red.setColor(QPalette::Window, Qt::red);
    previous.setPalette(red);
    previous.setAutoFillBackground(true);
    stage.addWidget(&previous);
    // No window manager sizes a full-screen window here.
    stage.setGeometry(QGuiApplication::primaryScreen()->geometry());
    stage.showFullScreen();
    if (!QTest::qWaitForWindowExposed(&stage))
        std::fprintf(stderr, "the stage was not shown\n");

    PlaylistItem shortItem("file://" + shortClip, PlaylistItem::Video, 0, false, {});
    QList<qint64> times;
    for (int round = 0; round < rounds; ++round) {
        times << timeToFirstFrame(stage, previous, shortItem);
        std::printf("first frame, round %d%s: %lld ms\n", round + 1,
                    round == 0 ? " (libVLC loads)" : "", static_cast<long long>(times.last()));
    }
    QList<qint64> warm = times.mid(1);
    std::sort(warm.begin(), warm.end());
    if (!warm.isEmpty())
        std::printf("first frame, median of later rounds: %lld ms\n",
                    static_cast<long long>(warm.at(warm.size() / 2)));

    PlaylistItem longItem("file://" + longClip, PlaylistItem::Video, 0, false, {});
    auto *video = new Video(&longItem, &stage);
    stage.addWidget(video);
    stage.setCurrentWidget(video);
    QSignalSpy end(video, &Video::end);
    const double cpuBefore = cpuSeconds();
    QElapsedTimer clock;
    clock.start();
    video->start();
    end.wait(seconds * 1000 + 20000);
    const double wall = clock.elapsed() / 1000.0;
    const double cpu = cpuSeconds() - cpuBefore;
    video->stop();
    std::printf("1080p 25 fps, %d s clip: played in %.1f s, CPU %.1f s = %.0f %% of one core\n",
                seconds, wall, cpu, 100.0 * cpu / wall);
    delete video;
    return 0;
}
