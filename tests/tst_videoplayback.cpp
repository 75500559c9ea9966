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

} // namespace

// The real program under X playing a video between two pictures, watched on its own screenshots
// and on the X screen itself.
class TestVideoPlayback : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void videoBetweenPictures();
    void videoAfterWebPageGivesTheScreenBack();
};

// Current systems have no omxplayer, the default external player: the built-in player takes
// its place.
void TestVideoPlayback::videoBetweenPictures()
{
    KioskProcess kiosk;
    // The stand-in goes, and none may be left on PATH.
    QVERIFY(QFile::remove(kiosk.fakes().dir() + QStringLiteral("/omxplayer")));
    QVERIFY(QStandardPaths::findExecutable(QStringLiteral("omxplayer")).isEmpty());

    const QString video = kiosk.home().filePath(QStringLiteral("video.mp4"));
    const QString corrupt = kiosk.home().filePath(QStringLiteral("corrupt.mp4"));
    const QStringList ffmpeg
        = QStringLiteral("-y -loglevel error -f lavfi -i "
                         "color=c=0x0000ff:size=160x120:rate=25:duration=2.5 -f lavfi -i "
                         "color=c=0x00ff00:size=160x120:rate=25:duration=2.5 -filter_complex "
                         "[0][1]concat=n=2:v=1 -c:v libx264 -pix_fmt yuv420p")
              .split(QLatin1Char(' '))
          << video;
    QCOMPARE(QProcess::execute(QStringLiteral("ffmpeg"), ffmpeg), 0);
    QByteArray noise(64 * 1024, '\0');
    QRandomGenerator(7).fillRange(reinterpret_cast<quint32 *>(noise.data()), noise.size() / 4);
    QVERIFY(writeFile(corrupt, noise));

    const QByteArray playlist = schedule(xmlLoop(
        "id=\"0\"", xmlItem("file://" + kiosk.picture("before.png", Qt::yellow), "image", 2)
                        + xmlItem("file://" + video, "video", 0)
                        + xmlItem("file://" + corrupt, "video", 0)
                        + xmlItem("file://" + video + ".missing", "video", 0)
                        + xmlItem("file://" + kiosk.picture("after.png", Qt::red), "image")));
    const QStringList colours{"yellow", "blue", "green", "red"};
    QVERIFY(kiosk.start(playlist, "fullscreen=true\n[slideshow]\nexternal_player=true\n"));

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
                                        QString::fromUtf8(kiosk.log().right(3000)))));

    const QByteArray log = kiosk.log();
    QVERIFY2(log.contains("Reading uri:"), log.right(3000));
    QCOMPARE(log.count("Cannot play video"), 2);
    // One line per video.
    QCOMPARE(log.count("Video player not installed, playing with the built-in player: "
                       "\"omxplayer\""),
             3);
    QVERIFY(!log.contains("Launching command:"));
    QVERIFY(!log.contains("Video did not start in time"));
    QCOMPARE(kiosk.interrupt(), 2);
}

// Once a web view has been shown, the window is composed differently; a video's own window must
// not stop it from updating. Watched on the X screen alone: a screenshot redraws the window.
void TestVideoPlayback::videoAfterWebPageGivesTheScreenBack()
{
    KioskProcess kiosk;
    // Composed with OpenGL, as on a player with a graphics chip, not with the software scene graph
    // other tests use.
    kiosk.setEnvironment(QStringLiteral("QT_QUICK_BACKEND"), QStringLiteral("rhi"));
    const QString page = kiosk.home().filePath(QStringLiteral("page.html"));
    QVERIFY(writeFile(page, "<html><body style='background:#ffff00'></body></html>"));
    const QString video = kiosk.home().filePath(QStringLiteral("video.mp4"));
    QCOMPARE(QProcess::execute(QStringLiteral("ffmpeg"),
                               QStringLiteral("-y -loglevel error -f lavfi -i "
                                              "color=c=0x0000ff:size=160x120:rate=25:duration=1.5 "
                                              "-c:v libx264 -pix_fmt yuv420p")
                                       .split(QLatin1Char(' '))
                                   << video),
             0);
    const QByteArray playlist = schedule(xmlLoop(
        "id=\"0\"", xmlItem("file://" + page, "url", 2) + xmlItem("file://" + video, "video", 0)
                        + xmlItem("file://" + kiosk.picture("after.png", Qt::red), "image")));
    QVERIFY(kiosk.start(playlist, "fullscreen=true\n[slideshow]\nexternal_player=false\n"));

    QStringList onXScreen;
    const bool shown = QTest::qWaitFor(
        [&] {
            note(onXScreen, colourName(xScreenCentre()));
            return showsInOrder(onXScreen, {"yellow", "blue", "red"});
        },
        30000);
    QVERIFY2(shown, qPrintable(onXScreen.join(' ') + '\n' + kiosk.log().right(3000)));
    QCOMPARE(kiosk.interrupt(), 2);
}

QTEST_MAIN(TestVideoPlayback)
#include "tst_videoplayback.moc"
