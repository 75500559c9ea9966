#include "kioskprocess.h"
#include "testsupport.h"

#include <QGuiApplication>
#include <QRandomGenerator>
#include <QScreen>
#include <QtTest>

using namespace testsupport;

namespace {

// The name of a test colour near c, "other" for anything else.
QString colourName(const QColor &c)
{
    if (!c.isValid())
        return QString();
    const QList<QPair<QString, QColor>> known{{"black", Qt::black},
                                              {"blue", QColor(0, 0, 255)},
                                              {"green", QColor(0, 255, 0)},
                                              {"red", QColor(255, 0, 0)},
                                              {"yellow", QColor(255, 255, 0)}};
    for (const auto &[name, k] : known) {
        if (qAbs(c.red() - k.red()) < 48 && qAbs(c.green() - k.green()) < 48
            && qAbs(c.blue() - k.blue()) < 48)
            return name;
    }
    return QStringLiteral("other");
}

// The colours a source showed, each run of the same colour once.
void note(QStringList &seen, const QString &colour)
{
    if (!colour.isEmpty() && (seen.isEmpty() || seen.constLast() != colour))
        seen << colour;
}

bool showsInOrder(const QStringList &seen, const QStringList &wanted)
{
    int next = 0;
    for (const QString &colour : seen) {
        if (next < wanted.size() && colour == wanted.at(next))
            ++next;
    }
    return next == wanted.size();
}

QColor xScreenCentre()
{
    QScreen *screen = QGuiApplication::primaryScreen();
    const QPoint centre = screen->geometry().center();
    return screen->grabWindow(0, centre.x() - 2, centre.y() - 2, 4, 4).toImage().pixelColor(2, 2);
}

QByteArray xmlItem(const QString &path, const char *type, int seconds)
{
    return "<item uri=\"file://" + path.toUtf8() + "\" type=\"" + type + "\" time=\""
           + QByteArray::number(seconds) + "\"/>\n";
}

// The program's own lines, without the media library's and the remote control's chatter.
QString ownLog(const QByteArray &log)
{
    QStringList lines;
    for (const QByteArray &line : log.split('\n')) {
        if (!line.startsWith('[') && !line.contains("DataGram") && !line.startsWith('"'))
            lines << QString::fromUtf8(line);
    }
    return lines.mid(qMax(0, lines.size() - 60)).join(QLatin1Char('\n'));
}

} // namespace

// The real program under X playing a video between two pictures, watched on its own screenshots
// and on the X screen itself.
class TestVideoPlayback : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void videoBetweenPictures_data();
    void videoBetweenPictures();
};

void TestVideoPlayback::videoBetweenPictures_data()
{
    QTest::addColumn<bool>("external");
    QTest::addColumn<QString>("media");
    QTest::addColumn<QStringList>("colours");
    QTest::addColumn<QByteArray>("logLine");

    const QStringList played{"yellow", "blue", "green", "red"};
    QTest::newRow("built-in player") << false << "clip" << played << QByteArray("Reading uri:");
    QTest::newRow("external player not installed")
        << true << "clip" << played
        << QByteArray("Video player not installed, playing with the built-in player: "
                      "\"omxplayer\"");
    QTest::newRow("corrupt file") << false << "corrupt" << QStringList{"yellow", "red"}
                                  << QByteArray("Cannot play video");
    QTest::newRow("missing file") << false << "missing" << QStringList{"yellow", "red"}
                                  << QByteArray("Cannot play video");
}

void TestVideoPlayback::videoBetweenPictures()
{
    QFETCH(bool, external);
    QFETCH(QString, media);
    QFETCH(QStringList, colours);
    QFETCH(QByteArray, logLine);

    KioskProcess kiosk;
    // Current systems have no omxplayer: the stand-in goes, and none may be left on PATH.
    QVERIFY(QFile::remove(kiosk.fakes().dir() + QStringLiteral("/omxplayer")));
    QVERIFY(QStandardPaths::findExecutable(QStringLiteral("omxplayer")).isEmpty());

    const QString before = kiosk.home().filePath(QStringLiteral("media/before.png"));
    const QString video = kiosk.home().filePath(QStringLiteral("media/video.mp4"));
    const QString after = kiosk.home().filePath(QStringLiteral("media/after.png"));
    QVERIFY(makeImage(before, QSize(320, 240), Qt::yellow, "PNG"));
    QVERIFY(makeImage(after, QSize(320, 240), Qt::red, "PNG"));
    if (media == QLatin1String("clip")) {
        const QStringList ffmpeg{"-y",
                                 "-loglevel",
                                 "error",
                                 "-f",
                                 "lavfi",
                                 "-i",
                                 "color=c=0x0000ff:size=160x120:rate=25:duration=2.5",
                                 "-f",
                                 "lavfi",
                                 "-i",
                                 "color=c=0x00ff00:size=160x120:rate=25:duration=2.5",
                                 "-filter_complex",
                                 "[0][1]concat=n=2:v=1",
                                 "-c:v",
                                 "libx264",
                                 "-pix_fmt",
                                 "yuv420p",
                                 video};
        QCOMPARE(QProcess::execute(QStringLiteral("ffmpeg"), ffmpeg), 0);
    } else if (media == QLatin1String("corrupt")) {
        QByteArray noise(64 * 1024, '\0');
        QRandomGenerator(7).fillRange(reinterpret_cast<quint32 *>(noise.data()), noise.size() / 4);
        QVERIFY(writeFile(video, noise));
    }

    const QByteArray playlist = "<?xml version=\"1.0\"?>\n<schedule>\n<loop id=\"0\">\n"
                                + xmlItem(before, "image", 2) + xmlItem(video, "video", 0)
                                + xmlItem(after, "image", 60) + "</loop>\n</schedule>\n";
    QVERIFY(kiosk.start(playlist, QByteArray("fullscreen=true\n[slideshow]\nexternal_player=")
                                      + (external ? "true\n" : "false\n")));

    QStringList onScreenshot;
    QStringList onXScreen;
    QElapsedTimer sinceRequest;
    QDateTime lastShot;
    const bool shown = QTest::qWaitFor(
        [&] {
            // A playing video is no change of content, for which the program would save a
            // screenshot by itself: one is asked for as soon as the last one is written.
            const QDateTime shot = QFileInfo(QStringLiteral("/tmp/screen.png")).lastModified();
            if (!sinceRequest.isValid() || shot != lastShot || sinceRequest.elapsed() > 1000) {
                KioskProcess::sendDatagram(R"({"action": 3})");
                sinceRequest.start();
                lastShot = shot;
            }
            note(onScreenshot, colourName(KioskProcess::screenColor()));
            note(onXScreen, colourName(xScreenCentre()));
            return showsInOrder(onScreenshot, colours) && showsInOrder(onXScreen, colours);
        },
        60000);
    QVERIFY2(shown, qPrintable(QStringLiteral("screenshot: %1; X screen: %2\n%3")
                                   .arg(onScreenshot.join(' '), onXScreen.join(' '),
                                        ownLog(kiosk.log()))));

    const QByteArray log = kiosk.log();
    QVERIFY2(log.contains(logLine), qPrintable(ownLog(log)));
    QCOMPARE(log.count("Video player not installed"), external ? 1 : 0);
    QVERIFY(!log.contains("Launching command:"));
    QVERIFY(!log.contains("Video did not start in time"));
    QCOMPARE(kiosk.interrupt(), 2);
}

QTEST_MAIN(TestVideoPlayback)
#include "tst_videoplayback.moc"
