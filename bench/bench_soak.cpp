// Soak run of the real program: pictures, an animation, a video, PDF pages, a local web page and
// a text item, advanced by the remote "next" datagram N times. Prints resident memory, open file
// descriptors and threads at the start and at the end. Needs an X server (xvfb-run) and the
// remote-control port, so run it alone or under a private network namespace.
// RSS is the program's own; PSS sums the program and every process it started (the web
// engine's), shared pages counted once.
// Usage: bench_soak [--count N] [--program path/to/vorsane-kiosk] [--preference group/key=value]...

#include "kioskrun.h"
#include "processtree.h"

#include <QColor>
#include <QGuiApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QHostAddress>
#include <QImage>
#include <QMap>
#include <QPainter>
#include <QPdfWriter>
#include <QProcess>
#include <QThread>
#include <QUdpSocket>

#include <cstdio>
#include <utility>

using namespace kioskrun;

namespace {

struct Usage
{
    qint64 rssKib = 0;
    qint64 pssKib = 0;
    int fds = 0;
    int threads = 0;
};

Usage usageOf(qint64 pid)
{
    Usage usage;
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (status.open(QIODevice::ReadOnly)) {
        for (const QByteArray &line : status.readAll().split('\n')) {
            if (line.startsWith("VmRSS:"))
                usage.rssKib = line.mid(6).trimmed().split(' ').value(0).toLongLong();
            else if (line.startsWith("Threads:"))
                usage.threads = line.mid(8).trimmed().toInt();
        }
    }
    usage.pssKib = processtree::pssKiB(pid);
    usage.fds = QDir(QStringLiteral("/proc/%1/fd").arg(pid))
                    .entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot)
                    .size();
    return usage;
}

void print(const char *when, int transitions, const Usage &usage)
{
    std::printf("%-6s after %6d transitions: RSS %7lld KiB, all processes PSS %7lld KiB, %4d fds, "
                "%3d threads\n",
                when, transitions, static_cast<long long>(usage.rssKib),
                static_cast<long long>(usage.pssKib), usage.fds, usage.threads);
    std::fflush(stdout);
}

// The content: every item shows for a minute, so only the datagrams move the show on.
QByteArray makeContent(const QString &dir)
{
    QStringList items;
    const QColor colours[] = {Qt::red, Qt::green, Qt::blue};
    for (int i = 0; i < 3; ++i) {
        QImage picture(1600, 900, QImage::Format_RGB32);
        picture.fill(colours[i]);
        const QString path = dir + QStringLiteral("/picture%1.png").arg(i);
        picture.save(path);
        items << QStringLiteral("<i uri='file://%1' type='image' time='60'/>").arg(path);
    }
    // An animation and a clip long enough that every transition cuts it short.
    for (const auto &media :
         {std::make_pair("animation.gif", "gif"), std::make_pair("clip.mp4", "video")}) {
        const QString path = dir + QLatin1Char('/') + QLatin1String(media.first);
        QProcess ffmpeg;
        ffmpeg.start(QStringLiteral("ffmpeg"),
                     {QStringLiteral("-loglevel"), QStringLiteral("error"), QStringLiteral("-f"),
                      QStringLiteral("lavfi"), QStringLiteral("-i"),
                      QStringLiteral("testsrc=size=640x360:rate=25"), QStringLiteral("-frames:v"),
                      QStringLiteral("250"), path});
        if (ffmpeg.waitForFinished(60000) && QFile::exists(path))
            items << QStringLiteral("<i uri='file://%1' type='%2' time='60'/>")
                         .arg(path, QLatin1String(media.second));
        else
            std::fprintf(stderr, "ffmpeg missing: no %s in the soak\n", media.second);
    }

    const QString pdf = dir + QStringLiteral("/document.pdf");
    {
        QPdfWriter writer(pdf);
        QPainter painter(&writer);
        for (int page = 0; page < 3; ++page) {
            if (page > 0)
                writer.newPage();
            painter.drawText(200, 200, QStringLiteral("Page %1").arg(page + 1));
        }
    }
    items << QStringLiteral("<i uri='file://%1' type='pdf' time='60'/>").arg(pdf);

    const QString page = dir + QStringLiteral("/page.html");
    write(page, "<html><body style='background:#804000'><h1>Soak</h1></body></html>");
    items << QStringLiteral("<i uri='file://%1' type='url' time='60'/>").arg(page);
    const QString text = dir + QStringLiteral("/notice.txt");
    write(text, "Opening hours: 9 to 5.\n");
    items << QStringLiteral("<i uri='file://%1' type='document' time='60'/>").arg(text);

    return "<?xml version=\"1.0\"?>\n<schedule>\n<loop id=\"0\">\n" + items.join('\n').toUtf8()
           + "\n</loop>\n</schedule>\n";
}

} // namespace

int main(int argc, char *argv[])
{
    QGuiApplication app(argc, argv);
    int count = 10000;
    QString program = builtProgram();
    QMap<QString, QStringList> preferences{
        {QStringLiteral("main"), {"version=QFGLs6IVf1", "fullscreen=false"}},
        {QStringLiteral("slideshow"), {"hide_pointer=false"}}};
    const QStringList arguments = app.arguments();
    for (int i = 1; i + 1 < arguments.size(); i += 2) {
        if (arguments.at(i) == QLatin1String("--count"))
            count = arguments.at(i + 1).toInt();
        else if (arguments.at(i) == QLatin1String("--program"))
            program = arguments.at(i + 1);
        else if (arguments.at(i) == QLatin1String("--preference"))
            preferences[arguments.at(i + 1).section('/', 0, 0)]
                << arguments.at(i + 1).section('/', 1);
    }

    Home home;
    const QString conf = home.conf();
    const QByteArray playlist = makeContent(home.media());
    write(conf + QStringLiteral("/playlist"), playlist);
    // Two rounds show every kind of item, so each library and engine has been loaded once.
    const int warmAfter = 2 * int(playlist.count("<i "));
    QByteArray preferenceFile;
    for (auto group = preferences.cbegin(); group != preferences.cend(); ++group)
        preferenceFile
            += '[' + group.key().toUtf8() + "]\n" + group.value().join('\n').toUtf8() + '\n';
    write(conf + QStringLiteral("/preferences"), preferenceFile);

    QProcess kiosk;
    kiosk.setProcessEnvironment(home.environment());
    kiosk.setWorkingDirectory(home.path());
    QByteArray log;
    int shown = 0;
    QObject::connect(&kiosk, &QProcess::readyReadStandardError, [&] {
        log += kiosk.readAllStandardError();
        // Every replaced item says so once.
        int at = 0;
        while ((at = log.indexOf("DELETE CALLED", at)) >= 0) {
            ++shown;
            at += 13;
        }
        const int cut = log.lastIndexOf('\n');
        if (cut >= 0)
            log.remove(0, cut + 1);
    });
    if (!home.start(kiosk, program))
        return 1;

    auto waitFor = [&](int transitions, int timeoutMs) {
        QElapsedTimer timer;
        timer.start();
        while (shown < transitions && timer.elapsed() < timeoutMs
               && kiosk.state() == QProcess::Running) {
            kiosk.waitForReadyRead(50);
            QCoreApplication::processEvents();
        }
        return shown >= transitions;
    };

    QUdpSocket socket;
    auto next = [&] {
        socket.writeDatagram("{\"action\":1}", QHostAddress::LocalHost, 54545);
    };
    // The remote port opens some time after the start: ask until the show answers.
    for (int attempt = 0; attempt < 30 && shown == 0; ++attempt) {
        next();
        waitFor(1, 1000);
    }
    if (shown == 0) {
        std::fprintf(stderr, "the program did not start showing items\n");
        return 1;
    }
    const int base = shown;
    const Usage start = usageOf(kiosk.processId());
    print("start", 0, start);

    QElapsedTimer clock;
    clock.start();
    // The first rounds load libVLC's plugins and the script engine, and the toolkit's bounded
    // caches fill for a while after; growth over the second half is what would add up over
    // months.
    Usage warm;
    Usage second;
    const int half = count / 2;
    int done = 0;
    while (done < count && kiosk.state() == QProcess::Running) {
        next();
        if (!waitFor(base + done + 1, 10000)) {
            std::fprintf(stderr, "transition %d did not happen within 10 s\n", done + 1);
            break;
        }
        ++done;
        if (done % 1000 == 0 || done == half || done == warmAfter) {
            const Usage now = usageOf(kiosk.processId());
            if (done == warmAfter)
                warm = now;
            if (done == half)
                second = now;
            print(done == warmAfter ? "warm" : "", done, now);
        }
    }
    const Usage end = usageOf(kiosk.processId());
    print("end", done, end);
    std::printf("%d transitions in %.1f s; RSS %+lld KiB, PSS %+lld KiB, fds %+d, threads %+d\n",
                done, clock.elapsed() / 1000.0, static_cast<long long>(end.rssKib - start.rssKib),
                static_cast<long long>(end.pssKib - start.pssKib), end.fds - start.fds,
                end.threads - start.threads);
    const auto growth = [&end](const char *since, const Usage &from) {
        if (from.rssKib > 0)
            std::printf("since %s: RSS %+lld KiB, PSS %+lld KiB, fds %+d, threads %+d\n", since,
                        static_cast<long long>(end.rssKib - from.rssKib),
                        static_cast<long long>(end.pssKib - from.pssKib), end.fds - from.fds,
                        end.threads - from.threads);
    };
    growth("every kind was shown", warm);
    growth("the second half began", second);

    kiosk.terminate();
    if (!kiosk.waitForFinished(10000))
        kiosk.kill();
    return done == count ? 0 : 1;
}
