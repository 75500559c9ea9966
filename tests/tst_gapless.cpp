#include "kioskprocess.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QGuiApplication>
#include <QScreen>
#include <QtTest>

using namespace testsupport;

namespace {
const QColor grey(128, 128, 128);
const QColor red(Qt::red);
const QColor green(Qt::green);
const QColor blue(Qt::blue);
const QColor yellow(Qt::yellow);

bool sameColour(const QColor &a, const QColor &b)
{
    return a.isValid() && qAbs(a.red() - b.red()) <= 24 && qAbs(a.green() - b.green()) <= 24
           && qAbs(a.blue() - b.blue()) <= 24;
}

// A point of the real screen (by default its centre), as a viewer sees it now.
QColor centre(QPoint point = QPoint(-1, -1))
{
    QScreen *screen = QGuiApplication::primaryScreen();
    if (point.x() < 0)
        point = screen->geometry().center();
    return screen->grabWindow(0, point.x(), point.y(), 1, 1).toImage().pixelColor(0, 0);
}

// The program over the whole screen, in a frameless window of its own.
QByteArray wholeScreen(const QByteArray &slideshow = QByteArray())
{
    const QSize size = QGuiApplication::primaryScreen()->geometry().size();
    return QStringLiteral("fullscreen=false\nfixedscreen=true\nlargeur_edit=%1\nhauteur_edit=%2\n"
                          "[slideshow]\nhide_pointer=false\n")
               .arg(size.width())
               .arg(size.height())
               .toUtf8()
           + slideshow;
}

// Every colour the centre passes through from one colour to the other, polled as fast as the X
// server answers; arrived tells whether the second one came.
QList<QColor> coloursBetween(const QColor &from, const QColor &to, bool *arrived)
{
    QList<QColor> between;
    QElapsedTimer clock;
    clock.start();
    QColor now = centre();
    while (!sameColour(now, to) && clock.elapsed() < 10000) {
        if (!sameColour(now, from) && !between.contains(now))
            between << now;
        QCoreApplication::processEvents();
        now = centre();
    }
    *arrived = sameColour(now, to);
    return between;
}

QString names(const QList<QColor> &colours)
{
    QStringList list;
    for (const QColor &colour : colours)
        list << colour.name();
    return list.join(' ');
}

// A colour on the way from red to blue: as much less red as it has more blue.
bool redBlueBlend(const QColor &colour)
{
    const double red = colour.redF();
    return colour.green() <= 24 && qAbs(colour.blueF() - (1.0 - red)) <= 0.12;
}

bool screenShows(const QColor &colour, int timeoutMs = 15000)
{
    return QTest::qWaitFor([&] { return sameColour(centre(), colour); }, timeoutMs);
}

// An item of that kind showing one colour for that long; its files go to HOME/media.
QByteArray item(KioskProcess &kiosk, const QString &kind, const QColor &colour, int seconds,
                bool firstApart = false)
{
    const QString base = kiosk.home().filePath("media/" + kind + colour.name().mid(1));
    const QByteArray page = "<html><body style=\"margin:0;background:" + colour.name().toLatin1()
                            + "\"><p>Opening hours</p></body></html>\n";
    if (kind == "image")
        return xmlItem("file://" + kiosk.picture(kind + colour.name().mid(1) + ".png", colour),
                       kind, seconds);
    if (kind == "pdf") {
        makePdf(base + ".pdf", {colour});
        return xmlItem("file://" + base + ".pdf", kind, seconds);
    }
    if (kind == "video") {
        // Plays through: the file lasts that long. Asked to, only its first picture has the
        // colour and the others are darker, so that the first one showing can be told.
        const auto part = [](const QColor &shade, double duration) {
            return QStringLiteral("color=c=0x%1:size=320x240:rate=25:duration=%2")
                .arg(shade.name().mid(1))
                .arg(duration);
        };
        const QString parts = part(colour, 0.04) + "[a];"
                              + part(firstApart ? colour.darker(200) : colour, seconds - 0.04)
                              + "[b];[a][b]concat=n=2:v=1:a=0";
        const QStringList ffmpeg{"-y",   "-loglevel", "error",    "-filter_complex", parts,
                                 "-c:v", "libx264",   "-pix_fmt", "yuv420p",         base + ".mp4"};
        QDir().mkpath(kiosk.home().filePath("media"));
        if (QProcess::execute(QStringLiteral("ffmpeg"), ffmpeg) != 0)
            return QByteArray();
        return xmlItem("file://" + base + ".mp4", kind, 0);
    }
    writeFile(base + ".html", page);
    return xmlItem("file://" + base + ".html", kind, seconds);
}
} // namespace

// The real program under Xvfb, its screen read pixel by pixel: the item after the current one
// is made ready ahead, and the show passes from one to the other with nothing in between.
class TestGapless : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void orderChange_data();
    void orderChange();
    void boundary_data();
    void boundary();
};

// The program composes its window as on a player with a graphics chip (with OpenGL once a web
// view is in it), not with the software scene graph the other web tests use: a window made anew
// for the first web view flashes black.
void TestGapless::initTestCase()
{
    qputenv("QT_QUICK_BACKEND", "rhi");
}

void TestGapless::orderChange_data()
{
    QTest::addColumn<QByteArray>("command");
    QTest::addColumn<QColor>("shown");
    QTest::addColumn<bool>("preparedUsed");
    QTest::addColumn<QString>("greenKind");
    QTest::addColumn<QString>("yellowKind");

    // Positions count the demo picture after the first item: red, demo, green, blue, yellow.
    const QByteArray goToLast = R"({"action": 2, "data": {"index": 4, "loop": 0}})";
    QTest::newRow("next") << QByteArray(R"({"action": 1})") << blue << true << "image"
                          << "image";
    QTest::newRow("go to the prepared item")
        << QByteArray(R"({"action": 2, "data": {"index": 3, "loop": 0}})") << blue << true
        << "image"
        << "image";
    QTest::newRow("go to a later item") << goToLast << yellow << false << "image"
                                        << "image";
    QTest::newRow("go to an earlier item")
        << QByteArray(R"({"action": 2, "data": {"index": 0, "loop": 0}})") << red << false
        << "image"
        << "image";
    // Opened only now: the item before stays until the video has a picture of its own.
    QTest::newRow("go to a video") << goToLast << yellow << false << "image"
                                   << "video";
    QTest::newRow("go from a video to another") << goToLast << yellow << false << "video"
                                                << "video";
}

void TestGapless::orderChange()
{
    QFETCH(QByteArray, command);
    QFETCH(QColor, shown);
    QFETCH(bool, preparedUsed);
    QFETCH(QString, greenKind);
    QFETCH(QString, yellowKind);

    KioskProcess kiosk;
    const QByteArray items = item(kiosk, "image", red, 60) + item(kiosk, greenKind, green, 60)
                             + item(kiosk, "image", blue, 60) + item(kiosk, yellowKind, yellow, 60);
    QVERIFY(
        kiosk.start(schedule(xmlLoop("id=\"0\"", items)), wholeScreen("external_player=false\n")));
    QVERIFY2(screenShows(red), kiosk.log().right(3000));

    kiosk.sendDatagram(R"({"action": 2, "data": {"index": 2, "loop": 0}})");
    QVERIFY2(screenShows(green, 5000), kiosk.log().right(3000));
    const QByteArray blueFile = kiosk.home().filePath("pics/image0000ff.png").toUtf8();
    QVERIFY2(kiosk.waitForLog("Preparing \"file://" + blueFile), kiosk.log().right(3000));

    kiosk.sendDatagram(command);
    bool arrived = false;
    const QList<QColor> between = coloursBetween(green, shown, &arrived);
    QVERIFY2(arrived, kiosk.log().right(3000));
    QVERIFY2(between.isEmpty(), qPrintable("seen between the items: " + names(between)));
    const bool used = kiosk.waitForLog("Showing the item prepared ahead", 2000);
    if (used != preparedUsed)
        qWarning().noquote() << kiosk.log().right(3000);
    QCOMPARE(used, preparedUsed);
    // The right item stays: nothing else takes the screen after it.
    QVERIFY(!QTest::qWaitFor([&] { return !sameColour(centre(), shown); }, 1500));
    QCOMPARE(kiosk.interrupt(), 2);
}

void TestGapless::boundary_data()
{
    QTest::addColumn<QString>("from");
    QTest::addColumn<QString>("to");
    QTest::addColumn<QByteArray>("slideshow");
    QTest::addColumn<bool>("fades");
    // The scene graph to compose web pages with; empty lets the program choose.
    QTest::addColumn<QString>("sceneGraph");

    const QByteArray fade = "transition=fade\ntransition_ms=1500\n";
    QTest::newRow("picture to web page") << "image"
                                         << "url" << QByteArray() << false << "rhi";
    QTest::newRow("picture to text document") << "image"
                                              << "document" << QByteArray() << false << "rhi";
    QTest::newRow("web page to PDF") << "url"
                                     << "pdf" << QByteArray() << false << "rhi";
    const QByteArray libVlc = "external_player=false\n";
    QTest::newRow("picture to video") << "image"
                                      << "video" << libVlc << false << "rhi";
    QTest::newRow("video to video") << "video"
                                    << "video" << libVlc << false << "rhi";
    // The picture is on the screen before libVLC, stopping, lets go of the video.
    QTest::newRow("video to picture") << "video"
                                      << "image" << libVlc << false << "rhi";
    QTest::newRow("picture to web page, fading") << "image"
                                                 << "url" << fade << true << "rhi";
    QTest::newRow("web page to PDF, fading") << "url"
                                             << "pdf" << fade << true << "rhi";
    // Without a graphics chip (as under Xvfb) the program draws pages in software by itself.
    QTest::newRow("picture to web page, scene graph of the program's choice")
        << "image"
        << "url" << QByteArray() << false << QString();
    QTest::newRow("web page to PDF, scene graph of the program's choice")
        << "url"
        << "pdf" << QByteArray() << false << QString();
}

void TestGapless::boundary()
{
    QFETCH(QString, from);
    QFETCH(QString, to);
    QFETCH(QByteArray, slideshow);
    QFETCH(bool, fades);
    QFETCH(QString, sceneGraph);

    KioskProcess kiosk;
    kiosk.setEnvironment(QStringLiteral("QT_QUICK_BACKEND"), sceneGraph);
    // The demo picture comes after the first item: the second and third follow each other.
    const QByteArray items = item(kiosk, "image", grey, 1) + item(kiosk, from, red, 2)
                             + item(kiosk, to, blue, 60, true);
    QVERIFY(kiosk.start(schedule(xmlLoop("id=\"0\"", items)), wholeScreen(slideshow)));
    QVERIFY2(screenShows(red, 20000), kiosk.log().right(3000));
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    QCOMPARE(kiosk.log().contains("Web pages are drawn in software:"), sceneGraph.isEmpty());
#endif

    bool arrived = false;
    const QList<QColor> between = coloursBetween(red, blue, &arrived);
    const QByteArray seen = "seen between the items: " + names(between).toUtf8();
    QVERIFY2(arrived, seen + "\n" + kiosk.log().right(3000));
    if (fades) {
        // Several steps of the way, and nothing that is not on it (black, white).
        QVERIFY2(between.size() >= 3, seen.constData());
        for (const QColor &colour : between)
            QVERIFY2(redBlueBlend(colour), seen.constData());
    } else {
        QVERIFY2(between.isEmpty(), seen.constData());
    }
    // The video plays on from its first picture; a 4:3 video on a wide screen: its margins turn
    // black, nothing of the item before stays.
    if (to == "video") {
        QVERIFY2(screenShows(blue.darker(200), 2000), qPrintable("then: " + centre().name()));
        QVERIFY2(QTest::qWaitFor([] { return sameColour(centre(QPoint(8, 8)), Qt::black); }, 2000),
                 qPrintable("margin: " + centre(QPoint(8, 8)).name()));
    }
    QCOMPARE(kiosk.interrupt(), 2);
}

QTEST_MAIN(TestGapless)
#include "tst_gapless.moc"
