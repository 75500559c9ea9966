#include "httpserver.h"
#include "kioskprocess.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QPageSize>
#include <QPainter>
#include <QPdfWriter>
#include <QProcess>
#include <QTcpServer>
#include <QUdpSocket>
#include <QtTest>

using namespace testsupport;

namespace {

const QColor magenta(255, 0, 255);
const QColor cyan(0, 255, 255);

// A PDF with one solid page per colour, small enough to be scaled up to the screen.
bool makeColourPdf(const QString &path, const QList<QColor> &pages)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QPdfWriter writer(path);
    writer.setResolution(72);
    writer.setPageSize(QPageSize(QSizeF(300, 200), QPageSize::Point));
    writer.setPageMargins(QMarginsF(0, 0, 0, 0));
    QPainter painter(&writer);
    if (!painter.isActive())
        return false;
    for (int page = 0; page < pages.size(); ++page) {
        if (page > 0)
            writer.newPage();
        painter.fillRect(QRect(0, 0, writer.width(), writer.height()), pages.at(page));
    }
    return painter.end();
}

bool runFfmpeg(const QStringList &arguments)
{
    QProcess ffmpeg;
    ffmpeg.start(
        QStringLiteral("ffmpeg"),
        QStringList{QStringLiteral("-y"), QStringLiteral("-loglevel"), QStringLiteral("error")}
            + arguments);
    return ffmpeg.waitForFinished(60000) && ffmpeg.exitStatus() == QProcess::NormalExit
           && ffmpeg.exitCode() == 0;
}

// An animated GIF of a few frames of one colour, as large as a typical picture.
bool makeColourGif(const QString &path, const QString &colour)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    return runFfmpeg({QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"),
                      QStringLiteral("color=c=%1:size=320x240:rate=10").arg(colour),
                      QStringLiteral("-frames:v"), QStringLiteral("5"), path});
}

// GIF palettes and smooth scaling shift a colour a little.
bool sameColour(const QColor &a, const QColor &b)
{
    return a.isValid() && b.isValid() && qAbs(a.red() - b.red()) <= 24
           && qAbs(a.green() - b.green()) <= 24 && qAbs(a.blue() - b.blue()) <= 24;
}

// The centre of the last screenshot, once the program has finished writing it.
QColor settledScreenColour()
{
    const QFileInfo shot(QStringLiteral("/tmp/screen.png"));
    if (!shot.exists() || shot.lastModified().msecsTo(QDateTime::currentDateTime()) < 50)
        return QColor();
    return KioskProcess::screenColor();
}

// The program's own lines from the end of its log, without the media library's chatter.
QString logTail(KioskProcess &kiosk)
{
    QStringList lines;
    for (const QByteArray &line : kiosk.log().split('\n')) {
        if (!line.startsWith('['))
            lines << QString::fromUtf8(line);
    }
    return lines.mid(qMax(0, lines.size() - 80)).join(QLatin1Char('\n'));
}

QByteArray fileLine(const QString &path, int seconds)
{
    return "file://" + path.toUtf8() + ' ' + QByteArray::number(seconds) + '\n';
}

QByteArray xmlItem(const QString &uri, const char *type, int seconds)
{
    return "<item uri=\"" + uri.toUtf8() + "\" type=\"" + type + "\" time=\""
           + QByteArray::number(seconds) + "\"/>\n";
}

QByteArray schedule(const QByteArray &items)
{
    return "<?xml version=\"1.0\"?>\n<schedule>\n<loop id=\"0\">\n" + items
           + "</loop>\n</schedule>\n";
}

// Asks the running show for fresh screenshots until the centre shows the colour.
bool waitForScreen(KioskProcess &kiosk, const QColor &color, int timeoutMs = 15000)
{
    QStringList seen;
    QString last;
    QElapsedTimer waited;
    waited.start();
    QElapsedTimer sinceRequest;
    const bool shown = QTest::qWaitFor(
        [&] {
            // The show saves a screenshot only when the content changes; pages load and PDF
            // pages turn without such a change, so ask for one now and then.
            if (!sinceRequest.isValid() || sinceRequest.elapsed() >= 150) {
                kiosk.sendDatagram(R"({"action": 3})");
                sinceRequest.start();
            }
            const QColor current = settledScreenColour();
            if (!current.isValid())
                return false;
            if (current.name() != last) {
                last = current.name();
                seen << last + QLatin1Char('@') + QString::number(waited.elapsed());
            }
            return sameColour(current, color);
        },
        timeoutMs);
    if (!shown) {
        qWarning().noquote() << "Waited for" << color.name() << "; the screen showed"
                             << seen.join(QStringLiteral(", ")) << "\n"
                             << logTail(kiosk);
    }
    return shown;
}

// Prints the end of the program's log when the text does not come.
bool waitForLog(KioskProcess &kiosk, const QByteArray &text)
{
    if (kiosk.waitForLog(text))
        return true;
    qWarning().noquote() << "Missing in the log:" << text << "\n" << logTail(kiosk);
    return false;
}

// Starts the show once nothing else holds the remote-control port: the screenshots are asked
// for there, and another program on it would answer with its own screen.
bool startKiosk(KioskProcess &kiosk, const QByteArray &playlist, const QByteArray &preferences)
{
    const bool portFree = QTest::qWaitFor(
        [] {
            QUdpSocket probe;
            return probe.bind(QHostAddress::LocalHost, 54545);
        },
        30000);
    if (!portFree) {
        qWarning() << "UDP port 54545 stays taken; is another kiosk running?";
        return false;
    }
    return kiosk.start(playlist, "fullscreen=false\n" + preferences);
}

} // namespace

// The real program under Xvfb playing every kind of content one after the other, checked on
// its screenshots and its log.
class TestSlideshowMedia : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void mixedPlaylistPlaysInOrder();
    void untimedVideoEndsWithItsPlayer_data();
    void untimedVideoEndsWithItsPlayer();
    void brokenContentIsPassedOver();
};

void TestSlideshowMedia::initTestCase()
{
    QProcess probe;
    probe.start(QStringLiteral("ffmpeg"), {QStringLiteral("-version")});
    QVERIFY2(probe.waitForFinished(10000) && probe.exitCode() == 0,
             "ffmpeg is needed to make the test media");
}

void TestSlideshowMedia::mixedPlaylistPlaysInOrder()
{
    HttpServer server;
    QVERIFY(server.isListening());
    server.setRoute(QStringLiteral("/page.html"),
                    "<html><body style=\"background:#00ffff\"></body></html>", 200,
                    {{"Content-Type", "text/html"}});

    KioskProcess kiosk;
    const QString pdf = kiosk.home().filePath(QStringLiteral("media/pages.pdf"));
    const QString gif = kiosk.home().filePath(QStringLiteral("media/anim.gif"));
    const QString html = kiosk.home().filePath(QStringLiteral("media/local.html"));
    const QString clip = kiosk.home().filePath(QStringLiteral("media/clip.mp4"));
    const QString picture = kiosk.home().filePath(QStringLiteral("media/picture.png"));
    QVERIFY(makeColourPdf(pdf, {Qt::red, Qt::green}));
    QVERIFY(makeColourGif(gif, QStringLiteral("blue")));
    QVERIFY(writeFile(html, "<html><body style=\"background:#ff00ff\"></body></html>\n"));
    QVERIFY2(makeVideo(clip, 3), "ffmpeg could not make the test video");
    QVERIFY(makeImage(picture, QSize(320, 240), Qt::yellow, "PNG"));

    // Types are guessed from the files; the untimed video plays to its own end.
    const QByteArray playlist = "#Vorsane playlist\n" + fileLine(pdf, 2) + fileLine(gif, 2)
                                + fileLine(html, 2) + server.url("/page.html").toEncoded() + " 2\n"
                                + fileLine(clip, 0) + fileLine(picture, 2);
    QVERIFY(startKiosk(kiosk, playlist, "[slideshow]\nexternal_player=false\n"));

    // The demo pictures the loop inserts after the PDF and after the served page are not
    // checked.
    QVERIFY2(waitForScreen(kiosk, Qt::red), "PDF page 1");
    QVERIFY2(waitForScreen(kiosk, Qt::green), "PDF page 2");
    QVERIFY2(waitForScreen(kiosk, Qt::blue), "GIF");
    QVERIFY2(waitForScreen(kiosk, magenta), "local page");
    QVERIFY2(waitForScreen(kiosk, cyan), "served page");
    QCOMPARE(server.requestCount("GET", QStringLiteral("/page.html")), 1);

    // Without a display module libVLC decodes unpaced here, so only the way the clip ends is
    // checked: by its end of media, not by an error and not by a timer.
    QVERIFY2(waitForLog(kiosk, "Reading uri: \"file://" + clip.toUtf8()), "video");
    QVERIFY2(waitForScreen(kiosk, Qt::yellow), "picture");
    QVERIFY2(!kiosk.log().contains("Cannot play video"), qPrintable(logTail(kiosk)));

    // Round again, from the first PDF page.
    QVERIFY2(waitForScreen(kiosk, Qt::red), "PDF page 1 again");
    QCOMPARE(kiosk.interrupt(), 2);
}

void TestSlideshowMedia::untimedVideoEndsWithItsPlayer_data()
{
    QTest::addColumn<bool>("external");
    QTest::newRow("libVLC") << false;
    QTest::newRow("external player") << true;
}

void TestSlideshowMedia::untimedVideoEndsWithItsPlayer()
{
    QFETCH(bool, external);

    KioskProcess kiosk;
    // The stand-in player takes two seconds, as if it played a two-second clip, and leaves a
    // mark when it has run to its end.
    kiosk.fakes().addScript(QStringLiteral("omxplayer"), "sleep 2\ntouch \"$HOME/player-done\"");
    const QString before = kiosk.home().filePath(QStringLiteral("media/before.png"));
    const QString clip = kiosk.home().filePath(QStringLiteral("media/clip.mp4"));
    const QString after = kiosk.home().filePath(QStringLiteral("media/after.png"));
    QVERIFY(makeImage(before, QSize(320, 240), Qt::red, "PNG"));
    QVERIFY2(makeVideo(clip, 2), "ffmpeg could not make the test video");
    QVERIFY(makeImage(after, QSize(320, 240), Qt::green, "PNG"));

    const QByteArray playlist
        = schedule(xmlItem("file://" + before, "image", 1) + xmlItem("file://" + clip, "video", 0)
                   + xmlItem("file://" + after, "image", 30));
    QVERIFY(startKiosk(kiosk, playlist,
                       QByteArray("[slideshow]\nexternal_player=")
                           + (external ? "true\n" : "false\n")));
    QVERIFY2(waitForScreen(kiosk, Qt::red), "first picture");

    const QByteArray started = external ? "Launching command:" : "Reading uri:";
    QVERIFY2(waitForLog(kiosk, started), "video");
    QVERIFY2(waitForScreen(kiosk, Qt::green), "next picture");

    // No duration timer ran out between the start of the video and the next item.
    const QByteArray log = kiosk.log();
    const int launched = log.indexOf(started);
    const int next = log.indexOf("Starting", launched);
    QVERIFY(next > launched);
    QVERIFY2(!log.mid(launched, next - launched).contains("Timeout"), qPrintable(logTail(kiosk)));
    if (external) {
        // The player ran its full two seconds, and the next item came only after it ended.
        QVERIFY(QFile::exists(kiosk.home().filePath(QStringLiteral("player-done"))));
        const int ended = log.indexOf("Video player ended with exit code 0", launched);
        QVERIFY2(ended > launched && ended < next, qPrintable(logTail(kiosk)));
        const QList<QStringList> calls = kiosk.fakes().calls(QStringLiteral("omxplayer"));
        QCOMPARE(calls.size(), 1);
        QCOMPARE(calls.first().constLast(), clip);
        QVERIFY(kiosk.fakes().callLines(QStringLiteral("pkill")).contains("-9 omxplayer"));
    } else {
        // Without a display module libVLC decodes unpaced here, so the end comes early; what
        // counts is that the end of media, not an error or a time-out, moved the show on.
        QVERIFY(log.contains("Reading uri: \"file://" + clip.toUtf8()));
        QVERIFY(!log.contains("Cannot play video"));
        QVERIFY(!log.contains("Video did not start in time"));
        QVERIFY(kiosk.fakes().calls(QStringLiteral("omxplayer")).isEmpty());
    }
    QCOMPARE(kiosk.interrupt(), 2);
}

void TestSlideshowMedia::brokenContentIsPassedOver()
{
    KioskProcess kiosk;
    const QString first = kiosk.home().filePath(QStringLiteral("media/first.png"));
    const QString pdf = kiosk.home().filePath(QStringLiteral("media/corrupt.pdf"));
    const QString gif = kiosk.home().filePath(QStringLiteral("media/notagif.gif"));
    const QString clip = kiosk.home().filePath(QStringLiteral("media/empty.mp4"));
    const QString last = kiosk.home().filePath(QStringLiteral("media/last.png"));
    QVERIFY(makeImage(first, QSize(320, 240), Qt::red, "PNG"));
    QVERIFY(writeFile(pdf, "%PDF-1.4\n" + QByteArray(2000, '\xa7') + "\n%%EOF\n"));
    QVERIFY(writeFile(gif, "this is a text file, not a picture\n"));
    QVERIFY(writeFile(clip, QByteArray()));
    QVERIFY(makeImage(last, QSize(320, 240), Qt::green, "PNG"));
    const QString down = QStringLiteral("http://127.0.0.1:%1/page.html").arg(closedPort());

    // Long durations: each broken item has to give up by itself for the show to reach the
    // last picture in time.
    const QByteArray playlist
        = schedule(xmlItem("file://" + first, "image", 1) + xmlItem("file://" + pdf, "pdf", 60)
                   + xmlItem("file://" + gif, "gif", 2) + xmlItem("file://" + clip, "video", 0)
                   + xmlItem(down, "url", 60) + xmlItem("file://" + last, "image", 1));
    QVERIFY(startKiosk(kiosk, playlist, "[slideshow]\nexternal_player=false\n"));

    QVERIFY2(waitForScreen(kiosk, Qt::red), "first picture");
    QVERIFY2(waitForLog(kiosk, "Cannot load PDF"), "corrupt PDF");
    // The GIF that is not one still starts, and ends by its duration on a black screen.
    QVERIFY2(waitForScreen(kiosk, Qt::black, 3000), "black screen after the corrupt PDF");
    const QByteArray video = "Reading uri: \"file://" + clip.toUtf8();
    QVERIFY2(waitForLog(kiosk, video), "empty video");
    const QByteArray log = kiosk.log();
    const int gifTimeout = log.indexOf("Timeout", log.indexOf("Cannot load PDF"));
    QVERIFY2(gifTimeout > 0 && gifTimeout < log.indexOf(video), "the GIF did not run its time");
    QVERIFY2(waitForLog(kiosk, "Cannot play video \"file://" + clip.toUtf8()), "video error");
    QVERIFY2(waitForScreen(kiosk, Qt::green, 20000), "last picture");
    QVERIFY2(waitForScreen(kiosk, Qt::red), "first picture again");

    QCOMPARE(kiosk.process().state(), QProcess::Running);
    QCOMPARE(kiosk.interrupt(), 2);
}

QTEST_MAIN(TestSlideshowMedia)
#include "tst_slideshowmedia.moc"
