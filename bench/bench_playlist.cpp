// A long XML schedule played by the real program, on the X server of DISPLAY. Run by hand:
//   bench_playlist [--program PATH] [--items N] [--rounds N]
// For each round the program starts on a schedule of N local pictures (200,000 by default) and
// the bench prints the time from the start to the first picture on the screen, polling the
// screen's centre pixel, and the program's peak resident memory (VmHWM) at that moment.
// The first picture is the only red one.

#include "kioskrun.h"

#include <QColor>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QGuiApplication>
#include <QImage>
#include <QProcess>
#include <QScreen>
#include <QThread>

#include <cstdio>

using namespace kioskrun;

namespace {

const QColor first(220, 0, 0);
const QColor others[] = {QColor(0, 0, 220), QColor(0, 200, 0), QColor(220, 220, 0)};

QByteArray picture(const QString &path, const QColor &colour)
{
    QImage image(640, 480, QImage::Format_RGB32);
    image.fill(colour);
    image.save(path);
    return "file://" + path.toUtf8();
}

QByteArray makeSchedule(const QString &dir, int count)
{
    const QByteArray firstAddress = picture(dir + "/first.png", first);
    QList<QByteArray> addresses;
    for (int i = 0; i < int(sizeof(others) / sizeof(others[0])); ++i)
        addresses << picture(dir + QString("/p%1.png").arg(i), others[i]);
    QByteArray text = "<?xml version=\"1.0\"?>\n<schedule name=\"bench\">\n<loop id=\"0\">\n";
    text += "<item uri=\"" + firstAddress + "\" type=\"image\" time=\"60\"/>\n";
    for (int i = 1; i < count; ++i)
        text += "<i uri=\"" + addresses.at(i % addresses.size()) + "\" type=\"image\"/>\n";
    return text + "</loop>\n</schedule>\n";
}

// kB, or -1 when the process is gone.
qint64 peakResident(qint64 pid)
{
    QFile status(QString("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith("VmHWM:"))
            return line.mid(6).trimmed().split(' ').value(0).toLongLong();
    }
    return -1;
}

} // namespace

int main(int argc, char *argv[])
{
    QGuiApplication app(argc, argv);
    const QStringList arguments = app.arguments();
    const QString program = option(arguments, "--program", builtProgram());
    const int count = option(arguments, "--items", 200000, 2);
    const int rounds = option(arguments, "--rounds", 3, 1);
    QScreen *screen = QGuiApplication::primaryScreen();
    const QSize size = screen->geometry().size();

    // Short names: the items must stay within the 16 MB a playlist may have.
    Home home(QStringLiteral("c"), QStringLiteral("m"));
    const QString conf = home.conf();
    const QString media = home.media();
    const QByteArray schedule = makeSchedule(media, count);
    write(conf + "/playlist", schedule);
    write(conf + "/preferences", wholeScreenPreferences(size));
    std::printf("%d items, %.1f MB of schedule, %s\n", count, schedule.size() / 1048576.0,
                qPrintable(program));

    QList<qint64> times;
    QList<qint64> peaks;
    for (int round = 0; round < rounds; ++round) {
        QDir(home.path() + "/.vorsane-kiosk").removeRecursively();
        QProcess kiosk;
        home.prepare(kiosk);

        QElapsedTimer clock;
        clock.start();
        if (!home.start(kiosk, program))
            return 1;
        bool shown = false;
        while (!shown && clock.elapsed() < 60000 && kiosk.state() == QProcess::Running) {
            shown = near(centre(screen), first);
            if (!shown)
                QThread::usleep(500);
        }
        const qint64 elapsed = clock.elapsed();
        const qint64 peak = peakResident(kiosk.processId());
        kiosk.terminate();
        kiosk.waitForFinished(10000);
        if (!shown) {
            home.keep();
            std::fprintf(stderr, "the first picture never showed (log in %s/log)\n",
                         qPrintable(home.path()));
            return 1;
        }
        std::printf("round %d: start to first picture %lld ms, peak resident %lld MB\n", round + 1,
                    elapsed, peak / 1024);
        times << elapsed;
        peaks << peak;
    }
    std::printf("median: start to first picture %lld ms, peak resident %lld MB\n",
                percentile(times, 0.5), percentile(peaks, 0.5) / 1024);
    return 0;
}
