#include "kioskprocess.h"
#include "testsupport.h"

#include <QtTest>

using namespace testsupport;

// The real program under Xvfb, playing solid-colour pictures and steered by real datagrams.
class TestSlideshow : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void playsInOrderAndStopsOnInterrupt();
    void remoteCommands();

private:
    QByteArray picturePlaylist(KioskProcess &kiosk, int seconds);
};

QByteArray TestSlideshow::picturePlaylist(KioskProcess &kiosk, int seconds)
{
    QByteArray playlist = "#Vorsane playlist\n";
    for (const auto &[name, color] :
         {std::pair{"red.png", Qt::red}, std::pair{"green.png", Qt::green},
          std::pair{"blue.png", Qt::blue}}) {
        const QString path = kiosk.home().filePath(QString("pics/") + name);
        makeImage(path, QSize(320, 240), color, "PNG");
        playlist += "file://" + path.toUtf8() + " " + QByteArray::number(seconds) + "\n";
    }
    return playlist;
}

void TestSlideshow::playsInOrderAndStopsOnInterrupt()
{
    KioskProcess kiosk;
    QVERIFY(kiosk.start(picturePlaylist(kiosk, 2), "fullscreen=false\n"));
    for (const QColor &color :
         {QColor(Qt::red), QColor(Qt::green), QColor(Qt::blue), QColor(Qt::red)})
        QVERIFY2(kiosk.screenShows(color), kiosk.log().right(3000));

    QCOMPARE(kiosk.interrupt(), 2);
    QVERIFY(kiosk.log().contains("Caught signal 2"));
    QCOMPARE(kiosk.fakes().callLines("xset").first(), QStringLiteral("dpms 0 0 0"));
}

void TestSlideshow::remoteCommands()
{
    KioskProcess::Templates templates;
    KioskProcess kiosk;
    QVERIFY(kiosk.start(picturePlaylist(kiosk, 3), "fullscreen=false\n"));
    QVERIFY2(kiosk.screenShows(Qt::red), kiosk.log().right(3000));

    // Positions count the demo picture the loop carries at position 1.
    kiosk.sendDatagram(R"({"action": 2, "data": {"index": 2, "loop": 0}})");
    QVERIFY2(kiosk.screenShows(Qt::green, 5000), kiosk.log().right(3000));
    kiosk.sendDatagram(R"({"action": "1"})");
    QVERIFY2(kiosk.screenShows(Qt::blue, 5000), kiosk.log().right(3000));

    // Unknown codes change nothing; a screenshot rewrites the file.
    const int started = kiosk.log().count("Starting");
    kiosk.sendDatagram(R"({"action": 9})");
    kiosk.sendDatagram(R"({"action": -1})");
    QFile::remove("/tmp/screen.png");
    kiosk.sendDatagram(R"({"action": 3})");
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists("/tmp/screen.png"), 5000);
    QCOMPARE(kiosk.screenColor(), QColor(Qt::blue));
    QCOMPARE(kiosk.log().count("Starting"), started);

    // Paused, the picture stays well past its three seconds; a second pause lets it go on.
    kiosk.sendDatagram(R"({"action": 0})");
    QVERIFY(kiosk.waitForLog("Pause", 5000));
    QTest::qWait(5000);
    QCOMPARE(kiosk.log().count("Starting"), started);
    kiosk.sendDatagram(R"({"action": 0})");
    QVERIFY(kiosk.waitForLog("Resume", 5000));
    QVERIFY2(kiosk.screenShows(Qt::red, 8000), kiosk.log().right(3000));

    // A text over the show for two seconds, then the show goes on.
    kiosk.sendDatagram(R"({"action": 5, "data": {"text": "Hello", "duration": 2}})");
    QVERIFY2(kiosk.screenShows(Qt::black, 5000, QPointF(0.02, 0.02)), kiosk.log().right(3000));
    QVERIFY(kiosk.log().contains("For 2 seconds."));
    QVERIFY2(kiosk.screenShows(Qt::green, 8000) || kiosk.screenShows(Qt::blue, 8000),
             kiosk.log().right(3000));

    // A web address over the show for two seconds.
    const QString page = kiosk.home().filePath("page.html");
    QVERIFY(writeFile(page, "<html><body style='background:#ff00ff'></body></html>"));
    kiosk.sendDatagram(R"({"action": 7, "data": {"url": "file://)" + page.toUtf8()
                       + R"(", "duration": 2}})");
    QVERIFY2(kiosk.screenShows(Qt::magenta, 5000), kiosk.log().right(3000));
    QVERIFY(kiosk.log().contains("Displaying webpage: \"file://" + page.toUtf8()));
    QTRY_VERIFY_WITH_TIMEOUT(kiosk.screenColor() != QColor(Qt::magenta), 8000);

    // A file dropped for the show is removed on request; a missing one is only logged.
    const QString dropped = kiosk.home().filePath(".vorsane-kiosk/dragndrop/photo.jpg");
    QVERIFY(writeFile(dropped, "x"));
    kiosk.sendDatagram(R"({"action": 8, "data": {"path": "photo.jpg"}})");
    QTRY_VERIFY_WITH_TIMEOUT(!QFile::exists(dropped), 5000);
    kiosk.sendDatagram(R"({"action": 8, "data": {"path": "photo.jpg"}})");
    QVERIFY(kiosk.waitForLog("Drag and drop file not removed because doesn't exists:", 5000));

    // Go to a file, then restart from the first item.
    kiosk.sendDatagram(R"({"action": 2, "data": {"filePath": ")"
                       + kiosk.home().filePath("pics/blue.png").toUtf8() + R"("}})");
    QVERIFY2(kiosk.screenShows(Qt::blue, 5000), kiosk.log().right(3000));
    kiosk.sendDatagram(R"({"action": 4})");
    QVERIFY2(kiosk.screenShows(Qt::red, 10000), kiosk.log().right(3000));
    QCOMPARE(kiosk.interrupt(), 2);
}

QTEST_GUILESS_MAIN(TestSlideshow)
#include "tst_slideshow.moc"
