#include "kioskprocess.h"
#include "testsupport.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QImage>
#include <QtTest>

#include <unistd.h>

using namespace testsupport;

namespace {
const char screenshot[] = "/tmp/screen.png";

QByteArray clock(qint64 secondsFromNow)
{
    return QDateTime::currentDateTime().addSecs(secondsFromNow).toString("hh:mm").toUtf8();
}

QByteArray item(const QString &path, int seconds, const QByteArray &type = "image")
{
    return "  <item uri=\"file://" + path.toUtf8() + "\" type=\"" + type + "\" time=\""
           + QByteArray::number(seconds) + "\"/>\n";
}

// Processor time the process has used so far, in seconds.
double cpuSeconds(qint64 pid)
{
    const QByteArray stat = readFile(QString("/proc/%1/stat").arg(pid));
    const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
    if (fields.size() < 13)
        return -1;
    // utime and stime are the 14th and 15th fields of the whole line.
    return (fields.at(11).toDouble() + fields.at(12).toDouble()) / double(sysconf(_SC_CLK_TCK));
}
} // namespace

// The real program under Xvfb, playing XML schedules and broken playlists; what it shows is
// read from the screenshot it writes after every change.
class TestSlideshowSchedule : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void scheduledLoopPlays();
    void nothingToShowDoesNotSpin_data();
    void nothingToShowDoesNotSpin();

private:
    QString picture(KioskProcess &kiosk, const QString &name, const QColor &colour);
};

QString TestSlideshowSchedule::picture(KioskProcess &kiosk, const QString &name,
                                       const QColor &colour)
{
    const QString path = kiosk.home().filePath("pics/" + name);
    makeImage(path, QSize(320, 240), colour, "PNG");
    return path;
}

void TestSlideshowSchedule::scheduledLoopPlays()
{
    KioskProcess kiosk;
    const QByteArray playlist = "<?xml version=\"1.0\"?>\n<schedule name=\"hall\">\n"
                                "<loop id=\"0\">\n"
                                + item(picture(kiosk, "blue.png", Qt::blue), 2)
                                + "</loop>\n"
                                  "<loop id=\"1\" start=\""
                                + clock(-3600) + "\" end=\"" + clock(3600) + "\">\n"
                                + item(picture(kiosk, "red.png", Qt::red), 1)
                                + item(kiosk.home().filePath("pics/missing.png"), 1)
                                + item(picture(kiosk, "green.png", Qt::green), 1)
                                + "</loop>\n"
                                  "<loop id=\"2\" repeat=\"7\">\n"
                                + item(picture(kiosk, "yellow.png", Qt::yellow), 1)
                                + "</loop>\n"
                                  "<loop id=\"3\" from=\"2000/01/01\" to=\"2000/01/02\">\n"
                                + item(picture(kiosk, "cyan.png", Qt::cyan), 1)
                                + "</loop>\n</schedule>\n";
    QVERIFY(kiosk.start(playlist, "fullscreen=false\n"));

    // Only loop 1 applies now: red, the demo picture, the missing picture passed, green, red...
    const QList<QColor> known{Qt::red, Qt::green, Qt::blue, Qt::yellow, Qt::cyan};
    QList<QColor> seen;
    QElapsedTimer watch;
    watch.start();
    while (watch.elapsed() < 25000 && seen.size() < 4) {
        const QColor colour = KioskProcess::screenColor();
        if (known.contains(colour) && (seen.isEmpty() || seen.last() != colour))
            seen << colour;
        QTest::qWait(50);
    }
    QVERIFY2(seen.size() >= 4, kiosk.log().right(3000));
    for (int i = 0; i < seen.size(); ++i) {
        const QColor expected = seen.first() == QColor(Qt::red) ? (i % 2 ? Qt::green : Qt::red)
                                                                : (i % 2 ? Qt::red : Qt::green);
        QCOMPARE(seen.at(i), expected);
    }
    QVERIFY(kiosk.log().contains("Item could not start; moving on."));
    QCOMPARE(kiosk.process().state(), QProcess::Running);
    QCOMPARE(kiosk.interrupt(), 2);
}

void TestSlideshowSchedule::nothingToShowDoesNotSpin_data()
{
    QTest::addColumn<QByteArray>("playlist");
    QTest::addColumn<QByteArray>("logLine");

    const QByteArray xml = "<?xml version=\"1.0\"?>\n<schedule>\n";
    QTest::newRow("only unsupported types")
        << xml
               + "<loop id=\"0\">\n<item uri=\"file:///srv/report.docx\" time=\"5\"/>\n"
                 "</loop>\n</schedule>\n"
        << QByteArray("Nothing to display.");
    QTest::newRow("only missing files")
        << QByteArray("#Vorsane playlist\nfile:///srv/gone.png 5\nfile:///srv/lost.jpg 5\n")
        << QByteArray("Nothing to display.");
    QTest::newRow("missing picture")
        << xml
               + "<loop id=\"0\">\n<item uri=\"file:///srv/gone.png\" type=\"image\"/>\n"
                 "</loop>\n</schedule>\n"
        << QByteArray("Nothing to display.");
    QTest::newRow("empty schedule") << xml + "<loop id=\"0\" idle=\"0\">\n</loop>\n</schedule>\n"
                                    << QByteArray("Nothing to display.");
    QTest::newRow("no loop with items applies")
        << xml
               + "<loop id=\"0\"/>\n<loop id=\"5\" repeat=\"7\">\n"
                 "<item uri=\"file:///srv/never.png\" type=\"image\"/>\n"
                 "</loop>\n</schedule>\n"
        << QByteArray("Nothing to display.");
    QTest::newRow("video whose player ends at once")
        << xml
               + "<loop id=\"0\">\n<item uri=\"file:///srv/clip.mp4\" type=\"video\"/>\n"
                 "</loop>\n</schedule>\n"
        << QByteArray("Nothing to display.");
    QTest::newRow("empty playlist file")
        << QByteArray() << QByteArray("Dispay warning for usb-auto.");
}

void TestSlideshowSchedule::nothingToShowDoesNotSpin()
{
    QFETCH(QByteArray, playlist);
    QFETCH(QByteArray, logLine);

    KioskProcess kiosk;
    QVERIFY(kiosk.start(playlist, "fullscreen=false\n"));
    QVERIFY2(kiosk.waitForLog(logLine), kiosk.log().right(3000));
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(screenshot), 5000);

    // Resting, not spinning: the program uses a small part of one processor.
    const qint64 pid = kiosk.process().processId();
    const double before = cpuSeconds(pid);
    QVERIFY(before >= 0);
    QTest::qWait(3000);
    const double used = cpuSeconds(pid) - before;
    QVERIFY2(used < 0.75, qPrintable(QString("%1 s of processor time in 3 s").arg(used)));

    // And it still answers: a screenshot on request.
    QFile::remove(screenshot);
    KioskProcess::sendDatagram(R"({"action": 3})");
    QTRY_VERIFY_WITH_TIMEOUT(!QImage(screenshot).isNull(), 5000);
    QCOMPARE(kiosk.process().state(), QProcess::Running);
    QCOMPARE(kiosk.interrupt(), 2);
}

QTEST_GUILESS_MAIN(TestSlideshowSchedule)
#include "tst_slideshowschedule.moc"
