// The fade between two still items, on the X server of DISPLAY. Run by hand:
//   bench_fade [--program PATH] [--rounds N] [--ms FADE_MS]
// Two full-screen pictures follow each other with slideshow/transition=fade; the screen's centre
// is polled from the moment the first starts to change until the second has come. Prints the
// frames seen (distinct colours on the way) per second, and the CPU the program and its child
// processes used meanwhile, as a share of one core.

#include "kioskrun.h"
#include "processtree.h"

#include <QElapsedTimer>
#include <QGuiApplication>
#include <QImage>
#include <QThread>

#include <cstdio>
#include <functional>
#include <unistd.h>

using namespace kioskrun;

namespace {
const QColor grey(128, 128, 128);
const QColor from(220, 0, 0);
const QColor to(0, 0, 220);

QByteArray picture(const QString &path, const QColor &colour, const QSize &size, int seconds)
{
    QImage image(size, QImage::Format_RGB32);
    image.fill(colour);
    image.save(path);
    return QStringLiteral("<i uri='file://%1' type='image' time='%2'/>\n")
        .arg(path)
        .arg(seconds)
        .toUtf8();
}
} // namespace

int main(int argc, char *argv[])
{
    QGuiApplication app(argc, argv);
    const QStringList arguments = app.arguments();
    const QString program = option(arguments, "--program", builtProgram());
    const int rounds = option(arguments, "--rounds", 3, 1);
    const int fadeMs = option(arguments, "--ms", 1000, 100);
    QScreen *screen = QGuiApplication::primaryScreen();
    const QSize size = screen->geometry().size();

    Home home;
    // The program's demo picture comes after the first item: the second and third follow each
    // other.
    write(home.conf() + "/playlist", "<?xml version=\"1.0\"?>\n<schedule>\n<loop id=\"0\">\n"
                                         + picture(home.media() + "/grey.png", grey, size, 1)
                                         + picture(home.media() + "/from.png", from, size, 3)
                                         + picture(home.media() + "/to.png", to, size, 600)
                                         + "</loop>\n</schedule>\n");
    write(home.conf() + "/preferences",
          wholeScreenPreferences(
              size, QStringLiteral("transition=fade\ntransition_ms=%1\n").arg(fadeMs).toUtf8()));
    std::printf("fade of %d ms at %dx%d, %s\n", fadeMs, size.width(), size.height(),
                qPrintable(program));

    const double ticksPerSecond = double(sysconf(_SC_CLK_TCK));
    for (int round = 0; round < rounds; ++round) {
        QDir(home.path() + "/.vorsane-kiosk").removeRecursively();
        QProcess kiosk;
        home.prepare(kiosk);
        if (!home.start(kiosk, program))
            return 1;
        QElapsedTimer clock;
        clock.start();
        auto waitWhile = [&](const std::function<bool(QRgb)> &condition) {
            QRgb pixel = centre(screen);
            while (condition(pixel) && clock.elapsed() < 60000
                   && kiosk.state() == QProcess::Running)
                pixel = centre(screen);
            return pixel;
        };
        waitWhile([](QRgb pixel) { return !near(pixel, from); });
        QRgb last = waitWhile([](QRgb pixel) { return near(pixel, from); });
        QElapsedTimer fade;
        fade.start();
        const qint64 ticksBefore = processtree::cpuTicks(kiosk.processId());
        int frames = 1;
        while (!near(last, to) && fade.elapsed() < 10000) {
            const QRgb pixel = centre(screen);
            if (pixel != last) {
                ++frames;
                last = pixel;
            }
        }
        const double seconds = fade.elapsed() / 1000.0;
        const double cpu
            = (processtree::cpuTicks(kiosk.processId()) - ticksBefore) / ticksPerSecond / seconds;
        kiosk.terminate();
        kiosk.waitForFinished(10000);
        if (!near(last, to)) {
            home.keep();
            std::fprintf(stderr, "the fade never reached the second picture (log in %s)\n",
                         qPrintable(home.log()));
            return 1;
        }
        std::printf("round %d: %d frames in %.0f ms, %.1f frames per second, CPU %.0f %% of one "
                    "core\n",
                    round + 1, frames, seconds * 1000, frames / seconds, cpu * 100);
    }
    return 0;
}
