#include "dispatcher.h"
#include "httpserver.h"
#include "idle.h"
#include "image.h"
#include "looppositions.h"
#include "playlistitem.h"
#include "playlistparser.h"
#include "remote.h"
#include "runnable.h"
#include "show.h"
#include "viewer.h"
#include "xmlplaylistparser.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QPointer>
#include <QStandardPaths>
#include <QtTest>

using namespace testsupport;

namespace {
const char playlistPath[] = "/p/hall-1/playlist.xml";
} // namespace

// The controller with its real parts: playlists in a temporary HOME, the real viewer on the
// offscreen platform, the real downloader against a local HTTP server and recording stand-ins
// for every desktop command. The show is advanced by calling the dispatcher's slots, the way the
// viewer, the remote and the timers call them.
class TestDispatcher : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void oneDownloadPerActiveLoop();
    void loopKeys_data();
    void loopKeys();
    void screenOff_data();
    void screenOff();
    void screenOffItemsAreNotFetched();
    void goToItem_data();
    void goToItem();
    void goToFile_data();
    void goToFile();
    void positionWalk_data();
    void positionWalk();
    void clickOnContent_data();
    void clickOnContent();
    void brokenContentNeverStalls_data();
    void brokenContentNeverStalls();
    void contentEndingAtOnceRests_data();
    void contentEndingAtOnceRests();
    void contentEnds_data();
    void contentEnds();
    void pollingIntervalHasAFloor();

private:
    void launch(const QByteArray &playlist, const QStringList &prefs = QStringList());
    QString picture(const QString &name, const QColor &colour);
    QString pictureUrl(const QString &name);
    QImage reference(const QString &url);
    // What the dispatcher shows: a colour name, "demo", "nothing", "broken", or a class name.
    QString shown() const;
    QStringList advance(int times);
    // The schedule served by a content server, in that update mode.
    void launchServed(const QByteArray &xml, const QString &mode = "serverVorsaneTV");

    std::unique_ptr<Show> m_show;
    HttpServer m_server;
    QImage m_demo;
    QImage m_nothing;
    QImage m_usbWarning;
};

void TestDispatcher::initTestCase()
{
    QCoreApplication::setOrganizationName(QStringLiteral("VorsaneTest"));
    QCoreApplication::setApplicationName(QStringLiteral("dispatcher"));
}

void TestDispatcher::init()
{
    m_show = std::make_unique<Show>();
    m_show->fakes.add(QStringLiteral("sh"));
    // Players and browsers run until they are stopped.
    m_show->fakes.addHanging(QStringLiteral("omxplayer"));
    m_show->fakes.addHanging(QStringLiteral("webbrowser"));
}

void TestDispatcher::cleanup()
{
    m_show.reset();
}

void TestDispatcher::launch(const QByteArray &playlist, const QStringList &prefs)
{
    QVERIFY(m_show->launch(playlist, prefs));
    m_demo = reference(QStringLiteral("file://:/demo/demo.jpg"));
    m_nothing = reference(QStringLiteral("file://:/image/nothing_to_display.png"));
    m_usbWarning = reference(QStringLiteral("file://:/image/usb_auto_insert_warning.png"));
}

void TestDispatcher::launchServed(const QByteArray &xml, const QString &mode)
{
    m_server.setRoute(QString::fromLatin1(playlistPath), xml);
    launch(xml, {"slideshow/playlist_update_mode=" + mode,
                 "slideshow/pages=" + m_server.url(playlistPath).toString()});
}

QString TestDispatcher::picture(const QString &name, const QColor &colour)
{
    const QString path = m_show->home.filePath(QStringLiteral("pics/") + name);
    makeImage(path, QSize(64, 48), colour, "PNG");
    return path;
}

QString TestDispatcher::pictureUrl(const QString &name)
{
    return QStringLiteral("file://") + picture(name + QStringLiteral(".png"), QColor(name));
}

QImage TestDispatcher::reference(const QString &url)
{
    PlaylistItem item(url, PlaylistItem::Image, 1, false, QStringList());
    Image image(&item, m_show->viewer.get());
    return image.pixmap(Qt::ReturnByValue).toImage();
}

QString TestDispatcher::shown() const
{
    QWidget *widget = m_show->dispatcher->shownWidget();
    if (!widget)
        return QStringLiteral("none");
    auto *image = qobject_cast<Image *>(widget);
    if (!image)
        return QString::fromLatin1(widget->metaObject()->className());
    const QImage shownPicture = image->pixmap(Qt::ReturnByValue).toImage();
    if (shownPicture.isNull())
        return QStringLiteral("broken");
    if (shownPicture == m_demo)
        return QStringLiteral("demo");
    if (shownPicture == m_nothing)
        return QStringLiteral("nothing");
    if (shownPicture == m_usbWarning)
        return QStringLiteral("usb-warning");
    const QColor centre
        = shownPicture.pixelColor(shownPicture.width() / 2, shownPicture.height() / 2);
    for (const char *name : {"red", "green", "blue", "yellow", "cyan", "magenta"}) {
        if (QColor(name) == centre)
            return name;
    }
    return QStringLiteral("picture");
}

QStringList TestDispatcher::advance(int times)
{
    QStringList seen;
    for (int i = 0; i < times; ++i) {
        m_show->dispatcher->next();
        seen << shown();
    }
    return seen;
}

void TestDispatcher::oneDownloadPerActiveLoop()
{
    HttpServer server;
    server.setRoute("/media/red.png", readFile(picture("red.png", Qt::red)), 200,
                    {{"Last-Modified", "Mon, 06 May 2024 07:08:09 GMT"}});
    const QString remote = server.url("/media/red.png").toString();
    const QString now = clockIn(-3600);
    const QString later = clockIn(3600);
    launch(schedule(
        xmlLoop("id=\"0\"", xmlItem(remote, "image"))
        + xmlLoop("id=\"1\" start=\"" + now + "\" end=\"" + later + "\"", xmlItem(remote, "image"))
        + xmlLoop("id=\"2\" idle=\"1\" repeat=\"7\"", xmlItem(remote, "image"))));
    QCOMPARE(m_show->log.count("Loop downloaded"), 2);
    QVERIFY(m_show->log.contains("NB LOOPS :  3"));
    // Two loops list the same address: one cache file, fetched for the first, trusted after.
    QCOMPARE(server.requestCount("GET", "/media/red.png"), 2); // size check, then the body
    QCOMPARE(server.requestCount("HEAD", "/media/red.png"), 1);
    QCOMPARE(shown(), QStringLiteral("red"));
    QCOMPARE(m_show->viewer->currentContent(), m_show->dispatcher->shownWidget());
    const QList<PlaylistLoopPtr> loops = m_show->dispatcher->playlistParser()->getLoops();
    QVERIFY(loops.at(1)->items.first()->url.startsWith("file://" + m_show->home.path()));
    QCOMPARE(loops.at(2)->items.last()->url, remote); // idle loops are not cached
}

void TestDispatcher::loopKeys_data()
{
    QTest::addColumn<QString>("mode");
    QTest::addColumn<QString>("id");
    QTest::addColumn<QString>("whileOpen");
    QTest::addColumn<QString>("afterwards");

    // The loop opens while the default loop has shown two items, and closes again after one.
    QTest::newRow("local playlist: one position for every loop") << "localPlaylist"
                                                                 << "4"
                                                                 << "green"
                                                                 << "magenta";
    QTest::newRow("content server: a position per loop id") << "serverVorsaneTV"
                                                            << "4"
                                                            << "red"
                                                            << "cyan";
    QTest::newRow("content server: negative loop id") << "serverVorsaneTV"
                                                      << "-3"
                                                      << "red"
                                                      << "cyan";
    QTest::newRow("content server: very large loop id") << "serverVorsaneTV"
                                                        << "2000000000"
                                                        << "red"
                                                        << "cyan";
}

void TestDispatcher::loopKeys()
{
    QFETCH(QString, mode);
    QFETCH(QString, id);
    QFETCH(QString, whileOpen);
    QFETCH(QString, afterwards);

    const QByteArray xml = schedule(
        xmlLoop("id=\"0\"", xmlItem(pictureUrl("blue"), "image")
                                + xmlItem(pictureUrl("cyan"), "image")
                                + xmlItem(pictureUrl("magenta"), "image"))
        + xmlLoop("id=\"" + id + "\" repeat=\"7\"",
                  xmlItem(pictureUrl("red"), "image") + xmlItem(pictureUrl("green"), "image")));
    launchServed(xml, mode);
    QCOMPARE(shown(), QStringLiteral("blue"));
    QCOMPARE(advance(1), QStringList{"demo"});

    // The schedule opens the loop (every weekday, two hours around now), then closes it again.
    const PlaylistLoopPtr scheduled = m_show->dispatcher->playlistParser()->getLoops().at(1);
    scheduled->repeat = QStringLiteral("0123456");
    scheduled->startTime = clockIn(-3600);
    scheduled->endTime = clockIn(3600);
    QCOMPARE(advance(1), QStringList{whileOpen});
    scheduled->fromDate = scheduled->toDate = QStringLiteral("2000/01/01");
    QCOMPARE(advance(1), QStringList{afterwards});
}

void TestDispatcher::screenOff_data()
{
    QTest::addColumn<int>("fromMinutes");
    QTest::addColumn<int>("toMinutes");
    QTest::addColumn<bool>("now");

    // Minutes from now; the span's real end is "to" minutes away (a day later when "to" < "from").
    QTest::newRow("span of today, now inside") << -60 << 60 << true;
    QTest::newRow("overnight span, now before midnight") << -60 << -90 << true;
    QTest::newRow("overnight span that began yesterday") << 60 - 24 * 60 << 30 << true;
    QTest::newRow("span still to come") << 60 << 120 << false;
    QTest::newRow("span already over") << -120 << -60 << false;
}

void TestDispatcher::screenOff()
{
    QFETCH(int, fromMinutes);
    QFETCH(int, toMinutes);
    QFETCH(bool, now);

    const QDateTime start = QDateTime::currentDateTime();
    const QDateTime from = start.addSecs(fromMinutes * 60);
    QDateTime to = start.addSecs(toMinutes * 60);
    if (toMinutes < fromMinutes)
        to = to.addDays(1);
    to.setTime(QTime(to.time().hour(), to.time().minute()));

    launch("#Vorsane playlist\n" + pictureUrl("green").toUtf8() + " 60\nScreen OFF From: "
           + from.toString("hh:mm").toUtf8() + " To: " + to.toString("hh:mm").toUtf8() + " 0\n");
    // Play from a loop rebuilt at the end of a pass (the first pass: screenOffItemsAreNotFetched).
    Q_EMIT m_show->dispatcher->remote()->goTo(99, 0);
    QCOMPARE(shown(), QStringLiteral("green"));
    QCOMPARE(advance(1), QStringList{"demo"});
    m_show->log.clear();
    m_show->dispatcher->next();
    if (!now) {
        // Outside its span the screen stays on and the show goes on.
        QCOMPARE(shown(), QStringLiteral("green"));
        QCOMPARE(m_show->log.count("Starting idle"), 0);
        QCOMPARE(m_show->log.count("Wake up"), 0);
        return;
    }
    QCOMPARE(shown(), QStringLiteral("Idle"));
    QVERIFY(m_show->log.contains("Starting idle"));
    const bool tomorrow = to.date() > start.date();
    QCOMPARE(m_show->log.count(tomorrow ? "Wake up : tomorrow" : "Wake up : today"), 1);
    QCOMPARE(m_show->log.count("Wake up"), 1);
    // Dark until the end of the span, then the show goes on.
    const int timeout = Runnable::of(m_show->dispatcher->shownWidget())->timeout();
    QVERIFY2(qAbs(timeout - start.secsTo(to)) <= 61,
             qPrintable(QString("%1 s, expected %2 s").arg(timeout).arg(start.secsTo(to))));
}

void TestDispatcher::screenOffItemsAreNotFetched()
{
    launch("#Vorsane playlist\nScreen OFF From: " + clockIn(-3600).toUtf8()
           + " To: " + clockIn(3600).toUtf8() + " 0\n" + pictureUrl("green").toUtf8() + " 60\n");
    const PlaylistItemPtr idleItem
        = m_show->dispatcher->playlistParser()->getLoops().first()->items.first();
    QCOMPARE(idleItem->type, PlaylistItem::Idle);
    // Without its text the item has no span: an endless dark screen instead of a timed one.
    QVERIFY2(idleItem->url.startsWith("Screen OFF"), qPrintable(idleItem->url));
    QCOMPARE(shown(), QStringLiteral("Idle"));
    QVERIFY(m_show->log.contains("Wake up : "));
    QVERIFY(Runnable::of(m_show->dispatcher->shownWidget())->timeout() > 0);
}

void TestDispatcher::goToItem_data()
{
    QTest::addColumn<int>("item");
    QTest::addColumn<int>("loop");
    QTest::addColumn<QStringList>("expected");

    // Loop 0: red, demo, green, blue; loop 1 (never scheduled): cyan, demo, magenta. The show
    // stands at the demo of loop 0 when the command arrives.
    QTest::newRow("item of the scheduled loop") << 2 << 0 << QStringList{"green", "blue", "red"};
    QTest::newRow("another loop plays to its end, then the schedule resumes")
        << 2 << 1 << QStringList{"magenta", "green", "blue"};
    QTest::newRow("item past the end of the loop") << 9 << 1 << QStringList{"green", "blue", "red"};
    QTest::newRow("negative item") << -4 << 1 << QStringList{"cyan", "demo", "magenta"};
    QTest::newRow("no such loop") << 1 << 7 << QStringList{"demo", "green", "blue"};
}

void TestDispatcher::goToItem()
{
    QFETCH(int, item);
    QFETCH(int, loop);
    QFETCH(QStringList, expected);

    launchServed(schedule(
        xmlLoop("id=\"0\"", xmlItem(pictureUrl("red"), "image")
                                + xmlItem(pictureUrl("green"), "image")
                                + xmlItem(pictureUrl("blue"), "image"))
        + xmlLoop("id=\"1\" repeat=\"7\"",
                  xmlItem(pictureUrl("cyan"), "image") + xmlItem(pictureUrl("magenta"), "image"))));
    QCOMPARE(shown(), QStringLiteral("red"));
    QCOMPARE(advance(1), QStringList{"demo"});

    // The remote command goes straight to the item; the show then goes on from there.
    Q_EMIT m_show->dispatcher->remote()->goTo(item, loop);
    QCOMPARE(m_show->log.contains("Go to: no loop"), loop < 0 || loop > 1);
    QStringList seen{shown()};
    seen << advance(expected.size() - 1);
    QCOMPARE(seen, expected);
}

void TestDispatcher::goToFile_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QStringList>("expected");

    QTest::newRow("absolute path") << "ABS" << QStringList{"blue", "green", "red"};
    QTest::newRow("path without its leading slash") << "REL" << QStringList{"blue", "green", "red"};
    QTest::newRow("missing file: the show goes on")
        << "/nowhere/missing.png" << QStringList{"green", "red", "demo"};
}

void TestDispatcher::goToFile()
{
    QFETCH(QString, path);
    QFETCH(QStringList, expected);

    const QString blue = picture("elsewhere/blue.png", Qt::blue);
    if (path == "ABS")
        path = blue;
    else if (path == "REL")
        path = blue.mid(1);
    launch(schedule(xmlLoop("id=\"0\"", xmlItem(pictureUrl("red"), "image")
                                            + xmlItem(pictureUrl("green"), "image"))));
    QCOMPARE(advance(1), QStringList{"demo"});
    Q_EMIT m_show->dispatcher->remote()->goTo(path);
    QStringList seen{shown()};
    seen << advance(2);
    QCOMPARE(seen, expected);
    if (expected.first() == "blue") { // the file is shown for one second, then the show resumes
        Q_EMIT m_show->dispatcher->remote()->goTo(path);
        QCOMPARE(Runnable::of(m_show->dispatcher->shownWidget())->timeout(), 1);
        QSignalSpy ends(m_show->viewer.get(), &Viewer::end);
        QVERIFY(ends.wait(3000));
        QTRY_COMPARE(shown(), QStringLiteral("demo"));
    }
}

void TestDispatcher::positionWalk_data()
{
    QTest::addColumn<int>("itemsA");
    QTest::addColumn<bool>("localPlaylist");
    QTest::addColumn<QStringList>("script");
    QTest::addColumn<QStringList>("expected");

    // Loop 0 (scheduled): a0, demo, a1, a2; loop 1 (never scheduled): b0, demo, b1, b2. "|"
    // marks a loop that started over; "go I L" is a remote go-to item I of loop L; "restart" a
    // new set-up. The go-to cases of the remote are played through the whole show in goToItem.
    QTest::newRow("a loop at its end starts over, and says so")
        << 3 << false << QStringList{"next", "next", "next", "next", "next"}
        << QStringList{"a0", "demo", "a1", "a2", "|a0"};
    QTest::newRow("local playlist: a go-to moves the position all loops share")
        << 3 << true << QStringList{"next", "go 2 1", "next", "next"}
        << QStringList{"a0", "b1", "b2", "|a0"};
    QTest::newRow("a set-up drops the loop gone to")
        << 3 << false << QStringList{"next", "go 2 1", "restart", "next"}
        << QStringList{"a0", "b1", "demo"};
    QTest::newRow("empty schedule: nothing to show")
        << 0 << false << QStringList{"next", "next"} << QStringList{"nothing", "nothing"};
}

void TestDispatcher::positionWalk()
{
    QFETCH(int, itemsA);
    QFETCH(bool, localPlaylist);
    QFETCH(QStringList, script);
    QFETCH(QStringList, expected);

    QByteArray itemsOfA;
    for (int i = 0; i < itemsA; ++i)
        itemsOfA += xmlItem(pictureUrl(QString("a%1").arg(i)), "image");
    QByteArray itemsOfB;
    for (int i = 0; i < 3; ++i)
        itemsOfB += xmlItem(pictureUrl(QString("b%1").arg(i)), "image");
    XmlPlaylistParser parser(
        5, schedule(xmlLoop("id=\"0\"", itemsOfA) + xmlLoop("id=\"1\" repeat=\"7\"", itemsOfB)),
        QString());
    LoopPositions positions;
    positions.setSingleKey(localPlaylist);

    // Steps the way the dispatcher does: a forced loop that has ended hands over at once.
    const auto step = [&] {
        LoopPositions::Step result;
        do
            result = positions.step(parser);
        while (result == LoopPositions::ForcedLoopOver);
        if (result == LoopPositions::NothingToShow)
            return QString("nothing");
        const QString name = positions.item()->url.section('/', -1).section('.', 0, 0);
        return result == LoopPositions::LoopStartedOver ? "|" + name : name;
    };
    QStringList seen;
    for (const QString &action : script) {
        if (action == "next") {
            seen << step();
        } else if (action.startsWith("go ")) {
            const int loop = action.section(' ', 2).toInt();
            positions.forceLoop(parser.getLoops().at(loop), action.section(' ', 1, 1).toInt());
            seen << step();
        } else if (action == "restart") {
            positions.restartSchedule();
            positions.dropForcedLoop();
        }
    }
    QCOMPARE(seen, expected);
}

void TestDispatcher::clickOnContent_data()
{
    QTest::addColumn<bool>("afterTheLock");
    QTest::addColumn<QString>("expected");

    QTest::newRow("within a second of the change: swallowed") << false << "red";
    QTest::newRow("after that second: the viewer's click shows the next item") << true << "demo";
}

void TestDispatcher::clickOnContent()
{
    QFETCH(bool, afterTheLock);
    QFETCH(QString, expected);

    launch(schedule(xmlLoop("id=\"0\"", xmlItem(pictureUrl("red"), "image")
                                            + xmlItem(pictureUrl("green"), "image"))),
           {"main/mode=display", "slideshow/stop_on_event=true"});
    QCOMPARE(shown(), QStringLiteral("red"));
    if (afterTheLock)
        QTRY_VERIFY(!m_show->viewer->playlistFilterLocked());
    else if (!m_show->viewer->playlistFilterLocked())
        QSKIP("the show took over a second to get here");
    // A click on the content goes through its filter to the viewer.
    QTest::mouseClick(m_show->dispatcher->shownWidget(), Qt::LeftButton);
    QCOMPARE(shown(), expected);
}

void TestDispatcher::brokenContentNeverStalls_data()
{
    QTest::addColumn<QStringList>("pictures");
    QTest::addColumn<QString>("rest");

    // Pictures in HOME/pics, none for an empty file; "rest" is what the show settles on, if
    // anything.
    QTest::newRow("missing picture") << QStringList{"missing.png"} << "nothing";
    QTest::newRow("missing and unreadable beside a good one")
        << QStringList{"missing.png", "garbage.png", "green.png"} << QString();
    QTest::newRow("empty file") << QStringList() << "usb-warning";
}

void TestDispatcher::brokenContentNeverStalls()
{
    QFETCH(QStringList, pictures);
    QFETCH(QString, rest);

    pictureUrl("green");
    QVERIFY(writeFile(m_show->home.filePath("pics/garbage.png"), "not a picture at all"));
    QByteArray items;
    for (const QString &name : pictures)
        items += xmlItem("file://" + m_show->home.filePath("pics/" + name), "image", 1);
    launch(pictures.isEmpty() ? QByteArray() : schedule(xmlLoop("id=\"0\"", items)));

    if (rest.isEmpty()) {
        // Broken items are passed over to the good one.
        QTRY_COMPARE_WITH_TIMEOUT(shown(), QStringLiteral("green"), 8000);
    } else {
        QTRY_COMPARE_WITH_TIMEOUT(shown(), rest, 5000);
        // A rest, not a spin: the picture stays for its time.
        QPointer<QWidget> resting = m_show->dispatcher->shownWidget();
        QVERIFY(!QSignalSpy(m_show->viewer.get(), &Viewer::end).wait(1200));
        QVERIFY(resting);
        QCOMPARE(m_show->dispatcher->shownWidget(), resting.data());
        QCOMPARE(m_show->viewer->currentContent(), resting.data());
    }
    QCOMPARE(m_show->dispatcher->state(), 3);
}

void TestDispatcher::contentEndingAtOnceRests_data()
{
    QTest::addColumn<QString>("program");
    QTest::addColumn<QByteArray>("item");
    QTest::addColumn<QStringList>("prefs");
    QTest::addColumn<bool>("installed");

    const QByteArray video = xmlItem("file:///srv/clip.mp4", "video", -1);
    QTest::newRow("video player that exits at once")
        << "omxplayer" << video << QStringList() << true;
    QTest::newRow("video player that is missing") << "omxplayer" << video << QStringList() << false;
    QTest::newRow("external browser that exits at once")
        << "webbrowser" << xmlItem("http://127.0.0.1:9/", "url", -1)
        << QStringList{"slideshow/external_browser=true", "main/external_browser_cmd=webbrowser %u"}
        << true;
}

void TestDispatcher::contentEndingAtOnceRests()
{
    QFETCH(QString, program);
    QFETCH(QByteArray, item);
    QFETCH(QStringList, prefs);
    QFETCH(bool, installed);

    if (installed) {
        m_show->fakes.add(program);
    } else {
        QFile::remove(m_show->fakes.dir() + "/" + program);
        if (!QStandardPaths::findExecutable(program).isEmpty())
            QSKIP("the program is installed on this machine");
    }
    launch(schedule(xmlLoop("id=\"0\"", item)), prefs);
    // Tried once more, then the placeholder for its ten seconds instead of a restart per end.
    QTRY_COMPARE_WITH_TIMEOUT(shown(), QStringLiteral("nothing"), 5000);
    const int runs = m_show->fakes.callLines(program).size();
    QVERIFY2(runs <= 2, qPrintable(QString::number(runs)));
}
void TestDispatcher::contentEnds_data()
{
    QTest::addColumn<QString>("type");
    QTest::addColumn<QString>("widget");
    QTest::addColumn<int>("minimumMs");
    QTest::addColumn<bool>("external");

    // One second per item (a PDF page is an item's time); the external player runs until killed.
    QTest::newRow("PDF after its last page") << "pdf"
                                             << "PDF" << 1900 << true;
    QTest::newRow("video in an external player") << "video"
                                                 << "Video" << 900 << true;
    QTest::newRow("video in the built-in player") << "video"
                                                  << "Video" << 900 << false;
}

void TestDispatcher::contentEnds()
{
    QFETCH(QString, type);
    QFETCH(QString, widget);
    QFETCH(int, minimumMs);
    QFETCH(bool, external);

    const QString path = m_show->home.filePath("item." + type);
    if (type == "pdf")
        QVERIFY(makePdf(path, {Qt::red, Qt::green}));
    else
        QVERIFY(makeImage(path, QSize(64, 48), Qt::yellow, "PNG"));
    QElapsedTimer clock;
    clock.start();
    launch(schedule(xmlLoop("id=\"0\"", xmlItem("file://" + path, type, 1)
                                            + xmlItem(pictureUrl("green"), "image"))),
           {QString("slideshow/external_player=") + (external ? "true" : "false")});
    QSignalSpy shots(m_show->viewer.get(), &Viewer::readyToShoot);
    QCOMPARE(shown(), widget);
    if (type == "pdf") {
        // A page turned in place is new content on screen as well.
        QTRY_VERIFY_WITH_TIMEOUT(shots.size() >= 2 || shown() != widget, 3000);
        QCOMPARE(shown(), widget);
    }
    QTRY_COMPARE_WITH_TIMEOUT(shown(), QStringLiteral("demo"), 5000);
    QVERIFY2(clock.elapsed() >= minimumMs, qPrintable(QString::number(clock.elapsed())));
    if (type == "video") {
        QCOMPARE(m_show->fakes.callLines("omxplayer").isEmpty(), !external);
        QCOMPARE(m_show->fakes.callLines("pkill").contains("-9 omxplayer"), external);
    }
}

void TestDispatcher::pollingIntervalHasAFloor()
{
    // A zero interval once asked the content server as fast as it answered.
    const QByteArray xml = schedule(xmlLoop("id=\"0\"", xmlItem(pictureUrl("red"), "image")));
    m_server.setRoute(QString::fromLatin1(playlistPath), xml);
    m_server.setRoute("/webapp/db/getEdit/hall-1/playlist/", "2024;05;06;07;08;09;");
    launch(xml, {"slideshow/playlist_update_mode=serverVorsaneTV",
                 "slideshow/pages=" + m_server.url(playlistPath).toString(),
                 "slideshow/refresh_after_minutes=0"});
    QCOMPARE(shown(), QStringLiteral("red"));
    QSignalSpy requests(&m_server, &HttpServer::requestReceived);
    QVERIFY(!requests.wait(500));
}

QTEST_MAIN(TestDispatcher)
#include "tst_dispatcher.moc"
