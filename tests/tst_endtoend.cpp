#include "kioskprocess.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QtTest>

using namespace testsupport;

namespace {
const char screenshot[] = "/tmp/screen.png";

// Scaling shifts a colour a little.
bool sameColour(const QColor &a, const QColor &b)
{
    return a.isValid() && qAbs(a.red() - b.red()) <= 24 && qAbs(a.green() - b.green()) <= 24
           && qAbs(a.blue() - b.blue()) <= 24;
}

// Asks the show for fresh screenshots until the centre shows the colour: pages that finish
// loading change the screen without a new item. Not too often: each request costs the show a
// grab of the screen. Every picture read must be whole.
bool waitForScreen(KioskProcess &kiosk, const QColor &colour, int timeoutMs = 15000)
{
    QElapsedTimer sinceRequest;
    QString seen;
    const bool shown = QTest::qWaitFor(
        [&] {
            if (!sinceRequest.isValid() || sinceRequest.elapsed() >= 700) {
                KioskProcess::sendDatagram(R"({"action": 3})");
                sinceRequest.start();
            }
            const QColor current = KioskProcess::screenColor();
            if (QFile::exists(screenshot) && !current.isValid())
                seen += " HALF-WRITTEN";
            else if (current.isValid() && !seen.endsWith(current.name()))
                seen += " " + current.name();
            return sameColour(current, colour);
        },
        timeoutMs);
    if (!shown)
        qWarning().noquote() << "Waited for" << colour.name() << "; saw" << seen << "\n"
                             << kiosk.log().right(3000);
    return shown && !seen.contains("HALF");
}
} // namespace

// The real program under Xvfb: what it shows is read from the screenshots it writes, and it is
// steered by real datagrams on the remote-control port.
class TestEndToEnd : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void scheduledMixedMedia();
    void remoteControl();
    void longSchedulePlays();
};

void TestEndToEnd::scheduledMixedMedia()
{
    KioskProcess kiosk;
    const QString pdf = kiosk.home().filePath("media/pages.pdf");
    const QString html = kiosk.home().filePath("media/page.html");
    QVERIFY(makePdf(pdf, {Qt::red, Qt::green}));
    QVERIFY(writeFile(html, "<html><body style=\"background:#ff00ff\"></body></html>\n"));
    // The player runs until it is killed: only the item's duration ends the video.
    kiosk.fakes().addHanging("omxplayer");
    // Only loop 1 applies now; a demo picture comes after its first item.
    const auto item = [](const QString &path, const char *type) {
        return xmlItem("file://" + path, type, 1);
    };
    const QByteArray playlist = schedule(
        xmlLoop("id=\"0\"", item(kiosk.picture("blue.png", Qt::blue), "image"))
        + xmlLoop("id=\"1\" start=\"" + clockIn(-3600) + "\" end=\"" + clockIn(3600) + "\"",
                  item(pdf, "pdf") + item(kiosk.home().filePath("media/clip.mp4"), "video")
                      + item(html, "url"))
        + xmlLoop("id=\"2\" repeat=\"7\"", item(kiosk.picture("cyan.png", Qt::cyan), "image")));
    QVERIFY(kiosk.start(playlist, "fullscreen=false\n[slideshow]\nexternal_player=true\n"));

    QVERIFY2(waitForScreen(kiosk, Qt::red), "PDF page 1");
    QVERIFY2(waitForScreen(kiosk, Qt::green), "PDF page 2");
    QVERIFY(kiosk.waitForLog("Launching command:"));
    QVERIFY2(waitForScreen(kiosk, QColor(255, 0, 255)), "page after the video");
    QVERIFY(kiosk.fakes().callLines("pkill").contains("-9 omxplayer"));
    QVERIFY(!kiosk.log().contains("file://" + kiosk.home().filePath("pics/blue.png").toUtf8()));
    QCOMPARE(kiosk.interrupt(), 2);
}

void TestEndToEnd::remoteControl()
{
    KioskProcess::Templates templates;
    KioskProcess kiosk;
    const QByteArray items = xmlItem("file://" + kiosk.picture("red.png", Qt::red), "image")
                             + xmlItem("file://" + kiosk.picture("green.png", Qt::green), "image")
                             + xmlItem("file://" + kiosk.picture("blue.png", Qt::blue), "image");
    QVERIFY(kiosk.start(schedule(xmlLoop("id=\"0\"", items)), "fullscreen=false\n"));
    QVERIFY2(kiosk.screenShows(Qt::red), kiosk.log().right(3000));

    // Positions count the demo picture at position 1.
    kiosk.sendDatagram(R"({"action": 2, "data": {"index": 2, "loop": 0}})");
    QVERIFY2(kiosk.screenShows(Qt::green, 5000), kiosk.log().right(3000));
    // Senders end the text with a NUL and may leave bytes after it.
    kiosk.sendDatagram(QByteArray(R"({"action": "1"})") + '\0' + "junk");
    QVERIFY2(kiosk.screenShows(Qt::blue, 5000), kiosk.log().right(3000));

    // Unknown codes change nothing; a screenshot on request is a whole picture.
    const int started = kiosk.log().count("Starting");
    kiosk.sendDatagram(R"({"action": 9})");
    QFile::remove(screenshot);
    kiosk.sendDatagram(R"({"action": 3})");
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(screenshot), 5000);
    QCOMPARE(KioskProcess::screenColor(), QColor(Qt::blue));
    QCOMPARE(kiosk.log().count("Starting"), started);

    // A text over the show for a second; its end moves the show on.
    kiosk.sendDatagram(R"({"action": 5, "data": {"text": "Hello", "duration": 1}})");
    QVERIFY2(kiosk.screenShows(Qt::black, 5000, QPointF(0.02, 0.02)), kiosk.log().right(3000));
    QVERIFY(kiosk.waitForLog("For 1 seconds."));
    QVERIFY2(waitForScreen(kiosk, Qt::red, 5000), "the show after the text");

    // Removal by datagram reaches only files inside the drop folder.
    const QString dropped = kiosk.home().filePath(".vorsane-kiosk/dragndrop/dropped.png");
    const QString outside = kiosk.home().filePath(".vorsane-kiosk/keep.txt");
    QVERIFY(writeFile(dropped, "x") && writeFile(outside, "x"));
    kiosk.sendDatagram(R"({"action": 8, "data": {"path": "../keep.txt"}})");
    kiosk.sendDatagram(R"({"action": 8, "data": {"path": "dropped.png"}})");
    QTRY_VERIFY_WITH_TIMEOUT(!QFile::exists(dropped), 5000);
    QVERIFY(QFile::exists(outside));

    // Pause and resume reach the item on screen.
    kiosk.sendDatagram(R"({"action": 0})");
    QVERIFY(kiosk.waitForLog("Pause", 5000));
    kiosk.sendDatagram(R"({"action": 0})");
    QVERIFY(kiosk.waitForLog("Resume", 5000));

    QCOMPARE(kiosk.interrupt(), 2);
    QVERIFY(kiosk.log().contains("Caught signal 2"));
    // Screen power asks xset about the display beside it.
    QVERIFY(kiosk.fakes().callLines("xset").contains(QStringLiteral("dpms 0 0 0")));
}

void TestEndToEnd::longSchedulePlays()
{
    KioskProcess kiosk;
    // The first picture's address carries an escape: only the decoded path shows it.
    const QString first = kiosk.picture("first picture.png", Qt::red).replace(' ', "%20");
    // Short items: 200,000 must stay within the 16 MB a playlist may have.
    const QByteArray other
        = "<i uri='file://" + kiosk.picture("o.png", Qt::green).toUtf8() + "' type='image'/>";
    const QByteArray items = xmlItem("file://" + first, "image") + other.repeated(199999);
    QVERIFY(kiosk.start(schedule(xmlLoop("id=\"0\"", items)), "fullscreen=false\n"));
    QVERIFY2(kiosk.screenShows(Qt::red), kiosk.log().right(3000));
    QCOMPARE(kiosk.interrupt(), 2);
}

QTEST_GUILESS_MAIN(TestEndToEnd)
#include "tst_endtoend.moc"
