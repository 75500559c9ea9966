#include "commandlineparser.h"
#include "dispatcher.h"
#include "httpserver.h"
#include "idle.h"
#include "image.h"
#include "playlistitem.h"
#include "playlistparser.h"
#include "remote.h"
#include "runnable.h"
#include "settings.h"
#include "testsupport.h"
#include "viewer.h"

#include <QBuffer>
#include <QDateTime>
#include <QDir>
#include <QEventLoop>
#include <QLabel>
#include <QPointer>
#include <QStandardPaths>
#include <QtTest>

using namespace testsupport;

namespace {
const char tvservice[] = "/opt/vc/bin/tvservice";
const char lastEditPath[] = "/webapp/db/getEdit/hall-1/playlist/";
const char privateLastEditPath[] = "/webapp/db/lastEdit/hall-1/playlist/";
const char playlistPath[] = "/p/hall-1/playlist.xml";

const QList<QPair<QString, QColor>> &namedColours()
{
    static const QList<QPair<QString, QColor>> colours{
        {"red", Qt::red},   {"green", Qt::green},     {"blue", Qt::blue},   {"yellow", Qt::yellow},
        {"cyan", Qt::cyan}, {"magenta", Qt::magenta}, {"white", Qt::white}, {"gray", Qt::gray},
    };
    return colours;
}

QColor colourNamed(const QString &name)
{
    for (const auto &entry : namedColours()) {
        if (entry.first == name)
            return entry.second;
    }
    return QColor();
}

QByteArray xmlItem(const QString &uri, const QString &type, int seconds = 60,
                   const QString &extra = QString())
{
    return QStringLiteral("  <item uri=\"%1\" type=\"%2\" time=\"%3\" %4/>\n")
        .arg(uri.toHtmlEscaped(), type)
        .arg(seconds)
        .arg(extra)
        .toUtf8();
}

QByteArray xmlLoop(const QString &attributes, const QByteArray &items)
{
    return "<loop " + attributes.toUtf8() + ">\n" + items + "</loop>\n";
}

QByteArray schedule(const QByteArray &loops)
{
    return "<?xml version=\"1.0\"?>\n<schedule name=\"test\">\n" + loops + "</schedule>\n";
}

QString clock(const QDateTime &when)
{
    return when.toString(QStringLiteral("hh:mm"));
}

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

    void firstNextStartsTheShow();
    void kioskModeStartsWithSession();
    void touchOpensSessionOnlyInKioskMode_data();
    void touchOpensSessionOnlyInKioskMode();
    void playlistSourceByUpdateMode_data();
    void playlistSourceByUpdateMode();
    void defaultDuration_data();
    void defaultDuration();
    void oneDownloadPerActiveLoop();
    void refreshAtLoopEnd();
    void loopKeys_data();
    void loopKeys();
    void unusualLoopIds_data();
    void unusualLoopIds();
    void widgetByType_data();
    void widgetByType();
    void passedOver_data();
    void passedOver();
    void maintenanceItem_data();
    void maintenanceItem();
    void screenOff_data();
    void screenOff();
    void screenOffItemsAreNotFetched();
    void stoppingIdleWakesTheDisplay();
    void replacedWidgetsAreDeleted();
    void goToItem_data();
    void goToItem();
    void goToFile_data();
    void goToFile();
    void clicksAndViewerSignals();
    void remoteSignals();
    void brokenContentNeverStalls_data();
    void brokenContentNeverStalls();
    void contentEndingAtOnceRests_data();
    void contentEndingAtOnceRests();
    void screensaverSuppression_data();
    void screensaverSuppression();

    void lastEditQuestion_data();
    void lastEditQuestion();
    void unchangedEditTrustsTheCache();
    void playlistPollRestartsOnChange();
    void pollingIntervalHasAFloor();
    void failedSetUpsBackOff();
    void terminateFinalizes();

private:
    QByteArray preferences(const QStringList &entries) const;
    // Writes playlist and preferences, builds viewer and dispatcher; begin: call next() once.
    void launch(const QByteArray &playlist, const QStringList &prefs = QStringList(),
                bool begin = true);
    QString picture(const QString &name, const QColor &colour);
    QString pictureUrl(const QString &name);
    QImage reference(const QString &url);
    // What the dispatcher shows: a colour name, "demo", "nothing", "broken", or a class name.
    QString shown() const;
    QStringList advance(int times);
    QByteArray serverPlaylist(HttpServer &server, const QByteArray &items);

    std::unique_ptr<TempHome> m_home;
    std::unique_ptr<FakePrograms> m_fakes;
    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<CommandLineParser> m_parser;
    std::unique_ptr<Viewer> m_viewer;
    std::unique_ptr<Dispatcher> m_dispatcher;
    QImage m_demo;
    QImage m_nothing;
    QImage m_usbWarning;
};

void TestDispatcher::initTestCase()
{
    qputenv("XDG_CURRENT_DESKTOP", "none");
    QCoreApplication::setOrganizationName(QStringLiteral("VorsaneTest"));
    QCoreApplication::setApplicationName(QStringLiteral("dispatcher"));
}

void TestDispatcher::init()
{
    m_home = std::make_unique<TempHome>();
    m_fakes = std::make_unique<FakePrograms>();
    for (const char *name :
         {"launchdock", "amixer", "unclutter", "pkill", "xmodmap", "xset", "xscreensaver-command",
          "sudo", "chvt", "unzip", "sh", "gksu", "pgrep", "vorsane-remote"})
        m_fakes->add(QString::fromLatin1(name));
    // Players and browsers run until they are stopped.
    m_fakes->addHanging(QStringLiteral("omxplayer"));
    m_fakes->addHanging(QStringLiteral("webbrowser"));
    m_log = std::make_unique<LogCapture>();
    m_parser = makeParser(m_home->filePath(QStringLiteral("conf")));
}

void TestDispatcher::cleanup()
{
    m_dispatcher.reset();
    m_viewer.reset();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    m_log.reset();
    m_fakes.reset();
    m_home.reset();
    m_demo = QImage();
    m_nothing = QImage();
    m_usbWarning = QImage();
}

QByteArray TestDispatcher::preferences(const QStringList &entries) const
{
    QMap<QString, QMap<QString, QString>> sections;
    sections["main"]["version"] = QStringLiteral("QFGLs6IVf1");
    sections["main"]["fullscreen"] = QStringLiteral("false");
    sections["slideshow"]["hide_pointer"] = QStringLiteral("false");
    for (const QString &entry : entries) {
        const int slash = entry.indexOf('/');
        const int equals = entry.indexOf('=');
        sections[entry.left(slash)][entry.mid(slash + 1, equals - slash - 1)]
            = entry.mid(equals + 1);
    }
    QByteArray text;
    for (auto section = sections.cbegin(); section != sections.cend(); ++section) {
        text += "[" + section.key().toUtf8() + "]\n";
        for (auto key = section->cbegin(); key != section->cend(); ++key)
            text += key.key().toUtf8() + "=" + key.value().toUtf8() + "\n";
    }
    return text;
}

void TestDispatcher::launch(const QByteArray &playlist, const QStringList &prefs, bool begin)
{
    QVERIFY(writeFile(m_home->filePath("conf/playlist"), playlist));
    QVERIFY(writeFile(m_home->filePath("conf/preferences"), preferences(prefs)));
    Settings::load(true, m_parser.get());
    m_viewer = std::make_unique<Viewer>();
    m_dispatcher = std::make_unique<Dispatcher>(m_viewer.get(), m_parser.get());
    // The screenshot file is shared by the whole machine; it is checked end to end.
    QVERIFY(QObject::disconnect(m_viewer.get(), &Viewer::readyToShoot, m_dispatcher.get(),
                                &Dispatcher::shootScreen));
    QVERIFY(m_dispatcher->isReady());
    m_demo = reference(QStringLiteral("file://:/demo/demo.jpg"));
    m_nothing = reference(QStringLiteral("file://:/image/nothing_to_display.png"));
    m_usbWarning = reference(QStringLiteral("file://:/image/usb_auto_insert_warning.png"));
    if (begin)
        QVERIFY(m_dispatcher->next());
}

QString TestDispatcher::picture(const QString &name, const QColor &colour)
{
    const QString path = m_home->filePath(QStringLiteral("pics/") + name);
    makeImage(path, QSize(64, 48), colour, "PNG");
    return path;
}

QString TestDispatcher::pictureUrl(const QString &name)
{
    return QStringLiteral("file://") + picture(name + QStringLiteral(".png"), colourNamed(name));
}

QImage TestDispatcher::reference(const QString &url)
{
    PlaylistItem item(url, PlaylistItem::Image, 1, false, QStringList());
    Image image(&item, m_viewer.get());
    return image.pixmap(Qt::ReturnByValue).toImage();
}

QString TestDispatcher::shown() const
{
    QWidget *widget = m_dispatcher->shownWidget();
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
    for (const auto &entry : namedColours()) {
        if (entry.second == centre)
            return entry.first;
    }
    return QStringLiteral("picture");
}

QStringList TestDispatcher::advance(int times)
{
    QStringList seen;
    for (int i = 0; i < times; ++i) {
        m_dispatcher->next();
        seen << shown();
    }
    return seen;
}

QByteArray TestDispatcher::serverPlaylist(HttpServer &server, const QByteArray &items)
{
    const QByteArray xml = schedule(xmlLoop(QStringLiteral("id=\"0\""), items));
    server.setRoute(QString::fromLatin1(playlistPath), xml, 200,
                    {{"Content-Type", "application/xml"}});
    return server.url(QString::fromLatin1(playlistPath)).toString().toUtf8();
}

void TestDispatcher::firstNextStartsTheShow()
{
    launch(schedule(xmlLoop("id=\"0\"", xmlItem(pictureUrl("red"), "image")
                                            + xmlItem(pictureUrl("green"), "image"))),
           QStringList(), false);
    QCOMPARE(m_dispatcher->state(), 0);
    QVERIFY(!m_dispatcher->shownWidget());

    QVERIFY(m_dispatcher->next());
    QCOMPARE(m_dispatcher->state(), 3);
    QVERIFY(m_log->contains("NB LOOPS :  1"));
    QVERIFY(m_log->contains("Loop downloaded"));
    QCOMPARE(shown(), QStringLiteral("red"));
    QCOMPARE(m_viewer->currentContent(), m_dispatcher->shownWidget());
    // The loop carries a demo picture at position 1; after the last item it starts over.
    QCOMPARE(advance(4), QStringList({"demo", "green", "red", "demo"}));
    QCOMPARE(m_dispatcher->state(), 3);
}

void TestDispatcher::kioskModeStartsWithSession()
{
    launch(schedule(xmlLoop("id=\"0\"", xmlItem(pictureUrl("red"), "image"))),
           {"main/mode=kiosk", "main/start_with_session=true"});
    QCOMPARE(m_dispatcher->state(), 1);
    QCOMPARE(shown(), QStringLiteral("Browser"));
}

void TestDispatcher::touchOpensSessionOnlyInKioskMode_data()
{
    QTest::addColumn<QString>("mode");
    QTest::addColumn<bool>("opensSession");

    QTest::newRow("display mode ignores touches") << "display" << false;
    QTest::newRow("kiosk mode opens a session") << "kiosk" << true;
}

void TestDispatcher::touchOpensSessionOnlyInKioskMode()
{
    QFETCH(QString, mode);
    QFETCH(bool, opensSession);

    launch(schedule(xmlLoop("id=\"0\"", xmlItem(pictureUrl("red"), "image")
                                            + xmlItem(pictureUrl("green"), "image"))),
           {"main/mode=" + mode, "main/start_with_session=false"});
    QCOMPARE(advance(2), QStringList({"demo", "green"}));
    QPointer<QWidget> touched = m_dispatcher->shownWidget();
    m_log->clear();

    m_viewer->emitMouseEvent();
    QCOMPARE(m_log->count("NB LOOPS"), 0);
    QCOMPARE(shown(), opensSession ? QStringLiteral("Browser") : QStringLiteral("green"));
    QCOMPARE(touched && m_dispatcher->shownWidget() == touched, !opensSession);
}

void TestDispatcher::playlistSourceByUpdateMode_data()
{
    QTest::addColumn<QString>("mode");
    QTest::addColumn<QString>("expected");

    QTest::newRow("local playlist file") << "localPlaylist"
                                         << "red";
    QTest::newRow("content server") << "serverVorsaneTV"
                                    << "green";
    QTest::newRow("private content server") << "serverVorsaneTVPrivate"
                                            << "green";
    QTest::newRow("any other mode reads the pages address") << "remote"
                                                            << "green";
}

void TestDispatcher::playlistSourceByUpdateMode()
{
    QFETCH(QString, mode);
    QFETCH(QString, expected);

    HttpServer server;
    QVERIFY(server.isListening());
    const QByteArray pages = serverPlaylist(server, xmlItem(pictureUrl("green"), "image"));
    launch(schedule(xmlLoop("id=\"0\"", xmlItem(pictureUrl("red"), "image"))),
           {"slideshow/playlist_update_mode=" + mode, "slideshow/pages=" + pages});
    QCOMPARE(shown(), expected);
    QCOMPARE(server.requestCount("GET", playlistPath), expected == "green" ? 1 : 0);
    if (expected == "green") // the server's copy is kept for offline use
        QVERIFY(readFile(PlaylistParser::localCopyPath()).contains("green.png"));
}

void TestDispatcher::defaultDuration_data()
{
    QTest::addColumn<QString>("value");
    QTest::addColumn<int>("seconds");

    QTest::newRow("a number") << "12" << 12;
    QTest::newRow("not a number") << "soon" << 5;
    QTest::newRow("empty") << "" << 5;
    QTest::newRow("a fraction") << "2.5" << 5;
}

void TestDispatcher::defaultDuration()
{
    QFETCH(QString, value);
    QFETCH(int, seconds);

    // The default duration is what the files dropped on the remote page get.
    QVERIFY(makeImage(m_home->filePath(".vorsane-kiosk/dragndrop/dropped.png"), QSize(64, 48),
                      Qt::cyan, "PNG"));
    const QByteArray playlist = "#Vorsane playlist\n" + pictureUrl("red").toUtf8() + " 60\n";
    launch(playlist, {"remote/enabled=true", "slideshow/default_time=" + value});
    QCOMPARE(shown(), QStringLiteral("cyan"));
    QCOMPARE(dynamic_cast<Runnable *>(m_dispatcher->shownWidget())->timeout(), seconds);
    // The companion server is started with the set-up.
    QCOMPARE(m_fakes->callLines("vorsane-remote"), QStringList{"--port 7575"});

    // Every restart reads the preferences again; the loop goes on from where it stood.
    QVERIFY(writeFile(m_home->filePath("conf/preferences"),
                      preferences({"remote/enabled=true", "slideshow/default_time=9"})));
    m_fakes->add(QStringLiteral("pgrep"), "4242\n"); // the server runs now: not started again
    m_dispatcher->startSlideshow();
    QCOMPARE(shown(), QStringLiteral("demo"));
    QCOMPARE(advance(2), QStringList({"red", "cyan"}));
    QCOMPARE(dynamic_cast<Runnable *>(m_dispatcher->shownWidget())->timeout(), 9);
    QCOMPARE(m_fakes->callLines("vorsane-remote").size(), 1);
}

void TestDispatcher::oneDownloadPerActiveLoop()
{
    HttpServer server;
    QVERIFY(server.isListening());
    QImage red(64, 48, QImage::Format_RGB32);
    red.fill(Qt::red);
    QByteArray png;
    QBuffer buffer(&png);
    red.save(&buffer, "PNG");
    server.setRoute("/media/red.png", png, 200,
                    {{"Last-Modified", "Mon, 06 May 2024 07:08:09 GMT"}});

    const QString remote = server.url("/media/red.png").toString();
    const QString now = clock(QDateTime::currentDateTime().addSecs(-3600));
    const QString later = clock(QDateTime::currentDateTime().addSecs(3600));
    launch(schedule(
        xmlLoop("id=\"0\"", xmlItem(remote, "image"))
        + xmlLoop("id=\"1\" start=\"" + now + "\" end=\"" + later + "\"", xmlItem(remote, "image"))
        + xmlLoop("id=\"2\" idle=\"1\" repeat=\"7\"", xmlItem(remote, "image"))));
    QCOMPARE(m_log->count("Loop downloaded"), 2);
    QVERIFY(m_log->contains("NB LOOPS :  3"));
    // Two loops list the same address: one cache file, fetched for the first, trusted after.
    QCOMPARE(server.requestCount("GET", "/media/red.png"), 2); // size check, then the body
    QCOMPARE(server.requestCount("HEAD", "/media/red.png"), 1);
    QCOMPARE(shown(), QStringLiteral("red"));
    QCOMPARE(m_viewer->currentContent(), m_dispatcher->shownWidget());
    const QList<PlaylistLoopPtr> loops = m_dispatcher->playlistParser()->getLoops();
    QVERIFY(loops.at(1)->items.first()->url.startsWith("file://" + m_home->path()));
    QCOMPARE(loops.at(2)->items.last()->url, remote); // idle loops are not cached
}

void TestDispatcher::refreshAtLoopEnd()
{
    picture("show/b-green.png", Qt::green);
    picture("show/c-red.png", Qt::red);
    launch("#Vorsane playlist\nfile://" + m_home->filePath("pics/show").toUtf8() + " 60\n");
    QCOMPARE(shown(), QStringLiteral("green"));
    QCOMPARE(advance(2), QStringList({"demo", "red"}));

    // A file added to the listed directory is part of the next pass.
    picture("show/a-blue.png", Qt::blue);
    QCOMPARE(advance(4), QStringList({"blue", "demo", "green", "red"}));
    QFile::remove(m_home->filePath("pics/show/b-green.png"));
    QCOMPARE(advance(3), QStringList({"blue", "demo", "red"}));
}

void TestDispatcher::loopKeys_data()
{
    QTest::addColumn<QString>("mode");
    QTest::addColumn<QStringList>("whileOpen");
    QTest::addColumn<QStringList>("afterwards");

    // Loop 4 opens while the default loop has shown two items, and closes again after one.
    QTest::newRow("local playlist: one position for every loop")
        << "localPlaylist" << QStringList{"green"} << QStringList{"magenta"};
    QTest::newRow("content server: a position per loop id")
        << "serverVorsaneTV" << QStringList{"red"} << QStringList{"cyan"};
}

void TestDispatcher::loopKeys()
{
    QFETCH(QString, mode);
    QFETCH(QStringList, whileOpen);
    QFETCH(QStringList, afterwards);

    const QByteArray xml
        = schedule(xmlLoop("id=\"0\"", xmlItem(pictureUrl("blue"), "image")
                                           + xmlItem(pictureUrl("cyan"), "image")
                                           + xmlItem(pictureUrl("magenta"), "image"))
                   + xmlLoop("id=\"4\" repeat=\"7\"", xmlItem(pictureUrl("red"), "image")
                                                          + xmlItem(pictureUrl("green"), "image")));
    HttpServer server;
    QVERIFY(server.isListening());
    server.setRoute(QString::fromLatin1(playlistPath), xml);
    launch(xml, {"slideshow/playlist_update_mode=" + mode,
                 "slideshow/pages=" + server.url(playlistPath).toString()});
    QCOMPARE(shown(), QStringLiteral("blue"));
    QCOMPARE(advance(1), QStringList{"demo"});

    // The schedule opens loop 4 (every weekday, two hours around now), then closes it again.
    const PlaylistLoopPtr scheduled = m_dispatcher->playlistParser()->getLoops().at(1);
    const QDateTime now = QDateTime::currentDateTime();
    scheduled->repeat = QStringLiteral("0123456");
    scheduled->startTime = clock(now.addSecs(-3600));
    scheduled->endTime = clock(now.addSecs(3600));
    QCOMPARE(advance(1), whileOpen);
    scheduled->fromDate = scheduled->toDate = QStringLiteral("2000/01/01");
    QCOMPARE(advance(1), afterwards);
}

void TestDispatcher::unusualLoopIds_data()
{
    QTest::addColumn<QString>("id");

    QTest::newRow("negative") << "-3";
    QTest::newRow("very large") << "2000000000";
    QTest::newRow("leading zeros") << "007";
}

void TestDispatcher::unusualLoopIds()
{
    QFETCH(QString, id);

    const QDateTime now = QDateTime::currentDateTime();
    const QByteArray xml = schedule(
        xmlLoop("id=\"0\"", xmlItem(pictureUrl("blue"), "image"))
        + xmlLoop(QString("id=\"%1\" start=\"%2\" end=\"%3\"")
                      .arg(id, clock(now.addSecs(-3600)), clock(now.addSecs(3600))),
                  xmlItem(pictureUrl("red"), "image") + xmlItem(pictureUrl("green"), "image")));
    HttpServer server;
    QVERIFY(server.isListening());
    server.setRoute(QString::fromLatin1(playlistPath), xml);
    launch(xml, {"slideshow/playlist_update_mode=serverVorsaneTV",
                 "slideshow/pages=" + server.url(playlistPath).toString()});
    QCOMPARE(shown(), QStringLiteral("red"));
    QCOMPARE(advance(4), QStringList({"demo", "green", "red", "demo"}));
}

void TestDispatcher::widgetByType_data()
{
    QTest::addColumn<QString>("type");
    QTest::addColumn<QString>("file");
    QTest::addColumn<QStringList>("prefs");
    QTest::addColumn<QString>("expected");

    QTest::newRow("image") << "image"
                           << "p.png" << QStringList() << "yellow";
    QTest::newRow("gif") << "gif"
                         << "p.gif" << QStringList() << "Gif";
    QTest::newRow("pdf") << "pdf"
                         << "p.pdf" << QStringList() << "PDF";
    QTest::newRow("video") << "video"
                           << "p.mp4" << QStringList() << "Video";
    QTest::newRow("document") << "document"
                              << "p.html" << QStringList() << "Document";
    QTest::newRow("web page") << "url"
                              << "http" << QStringList() << "Webpage";
    QTest::newRow("web page in the external browser")
        << "url"
        << "http"
        << QStringList{"slideshow/external_browser=true", "main/external_browser_cmd=webbrowser %u"}
        << "ExternalBrowser";
    QTest::newRow("directory is passed over") << ""
                                              << "dir" << QStringList() << "nothing";
    QTest::newRow("desktop link is passed over") << ""
                                                 << "p.desktop" << QStringList() << "nothing";
}

void TestDispatcher::widgetByType()
{
    QFETCH(QString, type);
    QFETCH(QString, file);
    QFETCH(QStringList, prefs);
    QFETCH(QString, expected);

    HttpServer server;
    QVERIFY(server.isListening());
    server.setRoute("/page.html", "<html><body>page</body></html>", 200,
                    {{"Content-Type", "text/html"}});
    const QString path = m_home->filePath("media/" + file);
    QString uri = "file://" + path;
    if (file == "http") {
        uri = server.url("/page.html").toString();
    } else if (file == "p.pdf") {
        QVERIFY(QDir().mkpath(QFileInfo(path).absolutePath()));
        QVERIFY(makePdf(path, 1));
    } else if (file == "dir") {
        QVERIFY(QDir().mkpath(path));
    } else if (file == "p.desktop") {
        QVERIFY(writeFile(path, "[Desktop Entry]\nType=Application\nExec=true\n"));
    } else if (file == "p.html") {
        QVERIFY(writeFile(path, "<html><body>text</body></html>"));
    } else {
        QVERIFY(makeImage(path, QSize(64, 48), Qt::yellow, "PNG"));
    }
    // Without a type attribute the type is guessed from the file.
    const QByteArray item = type.isEmpty() ? "  <item uri=\"" + uri.toUtf8() + "\" time=\"60\"/>\n"
                                           : xmlItem(uri, type);
    launch(schedule(xmlLoop("id=\"0\"", item)), prefs);
    QCOMPARE(shown(), expected);
    if (expected == "ExternalBrowser")
        QTRY_COMPARE(m_fakes->callLines("webbrowser"), QStringList{uri});
    if (expected == "Video")
        QTRY_COMPARE(m_fakes->calls("omxplayer").size(), 1);
    if (expected == "nothing")
        QVERIFY(m_log->contains("Nothing to display."));
}

void TestDispatcher::passedOver_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<bool>("href");
    QTest::addColumn<bool>("skipped");

    QTest::newRow("plain picture") << "photo.png" << false << false;
    QTest::newRow(".docx") << "report.docx" << false << true;
    QTest::newRow(".doc in a directory name") << "my.documents/photo.png" << false << true;
    QTest::newRow(".doc inside a name") << "a.docket.png" << false << true;
    QTest::newRow(".ppt") << "slides.ppt" << false << true;
    QTest::newRow(".pptx") << "slides.pptx" << false << true;
    QTest::newRow(".psd") << "layers.psd" << false << true;
    QTest::newRow(".db") << "Thumbs.db" << false << true;
    QTest::newRow(".ods") << "sheet.ods" << false << true;
    QTest::newRow(".tmp") << "upload.tmp" << false << true;
    QTest::newRow(".swf") << "banner.swf" << false << true;
    QTest::newRow(".cfg") << "player.cfg" << false << true;
    QTest::newRow(".sh") << "install.sh" << false << true;
    QTest::newRow(".sh inside .shtml") << "page.shtml" << false << true;
    QTest::newRow("upper case .DOC is not matched") << "SCAN.DOC" << false << false;
    QTest::newRow("pass-over flag") << "photo.png" << true << true;
}

void TestDispatcher::passedOver()
{
    QFETCH(QString, file);
    QFETCH(bool, href);
    QFETCH(bool, skipped);

    // Every file is a real picture, so only the rule decides.
    const QString path = picture(file, Qt::yellow);
    launch(schedule(
        xmlLoop("id=\"0\"", xmlItem("file://" + path, "image", 60, href ? "href=\"1\"" : "")
                                + xmlItem(pictureUrl("green"), "image"))));
    QCOMPARE(shown(), skipped ? QStringLiteral("demo") : QStringLiteral("yellow"));
    QCOMPARE(advance(3), skipped ? QStringList({"green", "demo", "green"})
                                 : QStringList({"demo", "green", "yellow"}));
}

void TestDispatcher::maintenanceItem_data()
{
    QTest::addColumn<int>("scriptExit");

    QTest::newRow("script succeeds: reboot") << 0;
    QTest::newRow("script fails: no reboot") << 3;
}

void TestDispatcher::maintenanceItem()
{
    QFETCH(int, scriptExit);

    // Rebooting must only ever reach the stand-in.
    QCOMPARE(QStandardPaths::findExecutable("sudo"), m_fakes->dir() + "/sudo");
    m_fakes->add(QStringLiteral("sh"), QByteArray(), scriptExit);
    const QString package = m_home->filePath("update.zip");
    QVERIFY(writeFile(package, "PK"));
    launch(schedule(xmlLoop("id=\"0\"", "  <item uri=\"file://" + package.toUtf8()
                                            + "\" type=\"maintenance\"/>\n")));
    QVERIFY(m_log->contains("Replace maintenance file"));
    QVERIFY(m_log->contains("Start maintenance."));
    QCOMPARE(shown(), QStringLiteral("nothing"));
    QCOMPARE(m_fakes->callLines("unzip"), QStringList{"-o " + package + " -d /home/pi/Desktop/"});
    QTRY_COMPARE(m_fakes->callLines("sh"),
                 QStringList{"/home/pi/Desktop/maintenance_vorsane-kiosk.sh"});
    if (scriptExit == 0) {
        QTRY_VERIFY(m_fakes->callLines("sudo").contains("reboot now"));
    } else {
        QTRY_VERIFY(m_log->contains("Maintenance script failed with code 3"));
        QVERIFY(!m_fakes->callLines("sudo").contains("reboot now"));
    }
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
           + clock(from).toUtf8() + " To: " + clock(to).toUtf8() + " 0\n");
    // Play from a loop rebuilt at the end of a pass (the first pass: screenOffItemsAreNotFetched).
    Q_EMIT m_dispatcher->remote()->goTo(99, 0);
    QCOMPARE(shown(), QStringLiteral("green"));
    QCOMPARE(advance(1), QStringList{"demo"});
    m_log->clear();
    m_dispatcher->next();
    if (!now) {
        // Outside its span the screen stays on and the show goes on.
        QCOMPARE(shown(), QStringLiteral("green"));
        QCOMPARE(m_log->count("Starting idle"), 0);
        QCOMPARE(m_log->count("Wake up"), 0);
        return;
    }
    QCOMPARE(shown(), QStringLiteral("Idle"));
    QVERIFY(m_log->contains("Starting idle"));
    const bool tomorrow = to.date() > start.date();
    QCOMPARE(m_log->count(tomorrow ? "Wake up : tomorrow" : "Wake up : today"), 1);
    QCOMPARE(m_log->count("Wake up"), 1);
    // Dark until the end of the span, then the show goes on.
    const int timeout = dynamic_cast<Runnable *>(m_dispatcher->shownWidget())->timeout();
    QVERIFY2(qAbs(timeout - start.secsTo(to)) <= 61,
             qPrintable(QString("%1 s, expected %2 s").arg(timeout).arg(start.secsTo(to))));
}

void TestDispatcher::screenOffItemsAreNotFetched()
{
    const QDateTime now = QDateTime::currentDateTime();
    launch("#Vorsane playlist\nScreen OFF From: " + clock(now.addSecs(-3600)).toUtf8() + " To: "
           + clock(now.addSecs(3600)).toUtf8() + " 0\n" + pictureUrl("green").toUtf8() + " 60\n");
    const PlaylistItemPtr idleItem
        = m_dispatcher->playlistParser()->getLoops().first()->items.first();
    QCOMPARE(idleItem->type, PlaylistItem::Idle);
    // Without its text the item has no span: an endless dark screen instead of a timed one.
    QVERIFY2(idleItem->url.startsWith("Screen OFF"), qPrintable(idleItem->url));
    QCOMPARE(shown(), QStringLiteral("Idle"));
    QVERIFY(m_log->contains("Wake up : "));
    QVERIFY(dynamic_cast<Runnable *>(m_dispatcher->shownWidget())->timeout() > 0);
}

void TestDispatcher::stoppingIdleWakesTheDisplay()
{
    m_fakes->addScript("tvservice", "[ \"$1\" = --status ] && echo 'state 0x120002 [TV is off]'\n"
                                    "exit 0");
    TvserviceStandIn standIn(m_fakes->dir() + "/tvservice");
    const QDateTime now = QDateTime::currentDateTime();
    launch("#Vorsane playlist\nScreen OFF From: " + clock(now.addSecs(-3600)).toUtf8() + " To: "
           + clock(now.addSecs(3600)).toUtf8() + " 0\n" + pictureUrl("green").toUtf8() + " 60\n");
    QCOMPARE(shown(), QStringLiteral("Idle"));
    QCOMPARE(m_log->count("Stopping idle"), 0);
    m_fakes->add("sudo"); // forget the calls so far
    QFile::remove(m_fakes->dir() + "/sudo.log");

    QCOMPARE(advance(1), QStringList{"demo"});
    QCOMPARE(m_log->count("Stopping idle"), 1);
    if (!standIn.ready())
        QSKIP("the display tool's fixed path is taken or cannot be created here");
    QVERIFY(m_fakes->callLines("tvservice").contains("--status"));
    QCOMPARE(m_fakes->callLines("sudo"),
             QStringList({QString(tvservice) + " -p", "chvt 6", "chvt 7"}));
    QCOMPARE(advance(1), QStringList{"green"});
    QCOMPARE(m_log->count("Stopping idle"), 1);
}

void TestDispatcher::replacedWidgetsAreDeleted()
{
    launch(schedule(xmlLoop("id=\"0\"", xmlItem(pictureUrl("red"), "image")
                                            + xmlItem(pictureUrl("green"), "image"))));
    QPointer<QWidget> first = m_dispatcher->shownWidget();
    QVERIFY(first);
    m_log->clear();
    m_dispatcher->next();
    QCOMPARE(m_log->count("DELETE CALLED"), 1);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QVERIFY(!first);

    // A long run keeps one widget on the stack, however many were shown.
    for (int i = 0; i < 200; ++i)
        m_dispatcher->next();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QCOMPARE(m_viewer->count(), 1);
    QCOMPARE(m_viewer->findChildren<Image *>().size(), 1);
    QCOMPARE(m_log->count("DELETE CALLED"), 201);
}

void TestDispatcher::goToItem_data()
{
    QTest::addColumn<int>("item");
    QTest::addColumn<int>("loop");
    QTest::addColumn<QStringList>("expected");

    // Loop 0: red, demo, green, blue; loop 1 (never scheduled): cyan, demo, magenta. The show
    // stands at the demo of loop 0 when the command arrives.
    QTest::newRow("item of the scheduled loop") << 2 << 0 << QStringList{"green", "blue", "red"};
    QTest::newRow("first item") << 0 << 0 << QStringList{"red", "demo", "green"};
    QTest::newRow("another loop plays to its end, then the schedule resumes")
        << 2 << 1 << QStringList{"magenta", "green", "blue"};
    QTest::newRow("item past the end of the loop") << 9 << 1 << QStringList{"green", "blue", "red"};
    QTest::newRow("negative item") << -4 << 1 << QStringList{"cyan", "demo", "magenta"};
    QTest::newRow("no such loop") << 1 << 7 << QStringList{"demo", "green", "blue"};
    QTest::newRow("negative loop") << 1 << -1 << QStringList{"demo", "green", "blue"};
}

void TestDispatcher::goToItem()
{
    QFETCH(int, item);
    QFETCH(int, loop);
    QFETCH(QStringList, expected);

    HttpServer server;
    QVERIFY(server.isListening());
    const QByteArray xml = schedule(
        xmlLoop("id=\"0\"", xmlItem(pictureUrl("red"), "image")
                                + xmlItem(pictureUrl("green"), "image")
                                + xmlItem(pictureUrl("blue"), "image"))
        + xmlLoop("id=\"1\" repeat=\"7\"",
                  xmlItem(pictureUrl("cyan"), "image") + xmlItem(pictureUrl("magenta"), "image")));
    server.setRoute(QString::fromLatin1(playlistPath), xml);
    launch(xml, {"slideshow/playlist_update_mode=serverVorsaneTV",
                 "slideshow/pages=" + server.url(playlistPath).toString()});
    QCOMPARE(shown(), QStringLiteral("red"));
    QCOMPARE(advance(1), QStringList{"demo"});

    // The remote command goes straight to the item; the show then goes on from there.
    Q_EMIT m_dispatcher->remote()->goTo(item, loop);
    QCOMPARE(m_log->contains("Go to: no loop"), loop < 0 || loop > 1);
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
    Q_EMIT m_dispatcher->remote()->goTo(path);
    QStringList seen{shown()};
    seen << advance(2);
    QCOMPARE(seen, expected);
    if (expected.first() == "blue") { // the file is shown for one second, then the show resumes
        Q_EMIT m_dispatcher->remote()->goTo(path);
        QCOMPARE(dynamic_cast<Runnable *>(m_dispatcher->shownWidget())->timeout(), 1);
        QSignalSpy ends(m_viewer.get(), &Viewer::end);
        QVERIFY(ends.wait(3000));
        QTRY_COMPARE(shown(), QStringLiteral("demo"));
    }
}

void TestDispatcher::clicksAndViewerSignals()
{
    HttpServer server;
    QVERIFY(server.isListening());
    server.setRoute("/remote", "<html><body>remote</body></html>", 200,
                    {{"Content-Type", "text/html"}});
    launch(schedule(xmlLoop("id=\"0\"", xmlItem(pictureUrl("red"), "image")
                                            + xmlItem(pictureUrl("green"), "image"))),
           {"remote/enabled=true", "remote/local_url=" + server.url("/remote").toString(),
            "remote/key=abc", "main/stop_session_after_seconds=7"},
           false);

    // A click before anything runs starts the show; each later one moves it on.
    QTest::mouseClick(m_viewer.get(), Qt::LeftButton);
    QCOMPARE(m_dispatcher->state(), 3);
    QCOMPARE(shown(), QStringLiteral("red"));
    QTest::mouseClick(m_viewer.get(), Qt::LeftButton);
    QCOMPARE(shown(), QStringLiteral("demo"));

    // A widget's end reaches the dispatcher after the signal has returned.
    Q_EMIT m_viewer->end();
    QCOMPARE(shown(), QStringLiteral("demo"));
    QTRY_COMPARE(shown(), QStringLiteral("green"));

    // A restart asked for by the viewer (USB update) sets the show up again; it goes on after
    // the item shown, the loop's last.
    m_viewer->requestRestart();
    QCOMPARE(shown(), QStringLiteral("red"));
    QCOMPARE(m_log->count("NB LOOPS"), 2);

    // A right click opens the remote page in place of the show, after killing an external
    // player; the page has no session limit.
    QTest::mouseClick(m_viewer.get(), Qt::RightButton);
    QVERIFY(m_fakes->callLines("pkill").contains("-9 omxplayer"));
    QCOMPARE(shown(), QStringLiteral("Browser"));
    QTRY_COMPARE(server.requestCount("GET", "/remote"), 1);
    QVERIFY(!m_viewer->sessionTimerActive());
}

void TestDispatcher::remoteSignals()
{
    HttpServer server;
    QVERIFY(server.isListening());
    server.setRoute("/news", "<html><body>news</body></html>", 200,
                    {{"Content-Type", "text/html"}});
    launch(schedule(xmlLoop("id=\"0\"", xmlItem(pictureUrl("red"), "image")
                                            + xmlItem(pictureUrl("green"), "image"))));
    Remote *remote = m_dispatcher->remote();
    Q_EMIT remote->next();
    QCOMPARE(shown(), QStringLiteral("demo"));

    auto *current = dynamic_cast<Runnable *>(m_dispatcher->shownWidget());
    Q_EMIT remote->pause();
    QVERIFY(!current->isActive());
    Q_EMIT remote->pause();
    QVERIFY(current->isActive());

    Q_EMIT remote->readUrl(server.url("/news").toString(), 4);
    QVERIFY(m_log->contains("For 4 seconds."));
    QTRY_COMPARE(server.requestCount("GET", "/news"), 1);

    // A restart reads the playlist again and goes on from where the loop stood.
    QVERIFY(writeFile(m_home->filePath("conf/playlist"),
                      schedule(xmlLoop("id=\"0\"", xmlItem(pictureUrl("blue"), "image")
                                                       + xmlItem(pictureUrl("yellow"), "image")))));
    Q_EMIT remote->restart();
    QCOMPARE(shown(), QStringLiteral("yellow"));
    QCOMPARE(m_log->count("NB LOOPS"), 2);
    QCOMPARE(advance(1), QStringList{"blue"});
}

void TestDispatcher::brokenContentNeverStalls_data()
{
    QTest::addColumn<QByteArray>("playlist");
    QTest::addColumn<QString>("rest");

    // Pictures named here live in HOME/pics; "rest" is what the show settles on, if anything.
    QTest::newRow("missing picture") << QByteArray("xml:missing.png") << "nothing";
    QTest::newRow("unreadable picture") << QByteArray("xml:garbage.png") << "nothing";
    QTest::newRow("only unsupported types") << QByteArray("xml:report.docx") << "nothing";
    QTest::newRow("missing and unreadable beside a good one")
        << QByteArray("xml:missing.png,garbage.png,green.png") << QString();
    QTest::newRow("empty schedule") << QByteArray("empty-schedule") << "nothing";
    QTest::newRow("flat list of missing files")
        << QByteArray("flat:missing.png,gone.jpg") << "nothing";
    QTest::newRow("empty file") << QByteArray("raw:") << "usb-warning";
    QTest::newRow("text that is no playlist") << QByteArray("raw:<<< nonsense") << "usb-warning";
}

void TestDispatcher::brokenContentNeverStalls()
{
    QFETCH(QByteArray, playlist);
    QFETCH(QString, rest);

    picture("green.png", Qt::green);
    QVERIFY(writeFile(m_home->filePath("pics/garbage.png"), "not a picture at all"));
    const QByteArray dir = m_home->filePath("pics/").toUtf8();
    QByteArray text;
    if (playlist.startsWith("xml:")) {
        QByteArray items;
        for (const QByteArray &name : playlist.mid(4).split(','))
            items += xmlItem(QString::fromUtf8("file://" + dir + name), "image", 1);
        text = schedule(xmlLoop("id=\"0\"", items));
    } else if (playlist.startsWith("flat:")) {
        text = "#Vorsane playlist\n";
        for (const QByteArray &name : playlist.mid(5).split(','))
            text += "file://" + dir + name + " 1\n";
    } else if (playlist == "empty-schedule") {
        text = PlaylistParser::emptySchedule().toUtf8();
    } else {
        text = playlist.mid(4);
    }
    launch(text);

    if (rest.isEmpty()) {
        // Broken items are passed and the good ones keep the show changing.
        for (int change = 0; change < 4; ++change) {
            QPointer<QWidget> before = m_dispatcher->shownWidget();
            QTRY_VERIFY_WITH_TIMEOUT(!before || m_dispatcher->shownWidget() != before, 5000);
        }
        QTRY_COMPARE_WITH_TIMEOUT(shown(), QStringLiteral("green"), 8000);
    } else {
        QTRY_COMPARE_WITH_TIMEOUT(shown(), rest, 5000);
        // A rest, not a spin: the picture stays for its time.
        QPointer<QWidget> resting = m_dispatcher->shownWidget();
        QTest::qWait(1500);
        QVERIFY(resting);
        QCOMPARE(m_dispatcher->shownWidget(), resting.data());
        QCOMPARE(m_viewer->currentContent(), resting.data());
    }
    QCOMPARE(m_dispatcher->state(), 3);
}

void TestDispatcher::contentEndingAtOnceRests_data()
{
    QTest::addColumn<QString>("program");
    QTest::addColumn<QByteArray>("item");
    QTest::addColumn<QStringList>("prefs");
    QTest::addColumn<bool>("installed");

    const QByteArray video = "  <item uri=\"file:///srv/clip.mp4\" type=\"video\"/>\n";
    QTest::newRow("video player that exits at once")
        << "omxplayer" << video << QStringList() << true;
    QTest::newRow("video player that is missing") << "omxplayer" << video << QStringList() << false;
    QTest::newRow("external browser that exits at once")
        << "webbrowser" << QByteArray("  <item uri=\"http://127.0.0.1:9/\" type=\"url\"/>\n")
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
        m_fakes->add(program);
    } else {
        QFile::remove(m_fakes->dir() + "/" + program);
        if (!QStandardPaths::findExecutable(program).isEmpty())
            QSKIP("the program is installed on this machine");
    }
    launch(schedule(xmlLoop("id=\"0\"", item)), prefs);
    // Tried once more, then the placeholder for its ten seconds instead of a restart per end.
    QTRY_COMPARE_WITH_TIMEOUT(shown(), QStringLiteral("nothing"), 5000);
    const int runs = m_fakes->calls(program).size();
    QVERIFY2(runs <= 2, qPrintable(QString::number(runs)));
    QTest::qWait(1500);
    QCOMPARE(shown(), QStringLiteral("nothing"));
    QCOMPARE(m_fakes->calls(program).size(), runs);
}

void TestDispatcher::screensaverSuppression_data()
{
    QTest::addColumn<bool>("noScreensaver");

    QTest::newRow("suppressed") << true;
    QTest::newRow("left alone") << false;
}

void TestDispatcher::screensaverSuppression()
{
    QFETCH(bool, noScreensaver);

    launch(schedule(xmlLoop("id=\"0\"", xmlItem(pictureUrl("red"), "image"))),
           {QString("main/no_screensaver=%1").arg(noScreensaver ? "true" : "false")}, false);
    QCOMPARE(m_fakes->callLines("pkill").contains("-9 xscreensaver"), noScreensaver);
    QVERIFY(m_fakes->calls("xscreensaver-command").isEmpty());

    // What the 30-second timer runs each time.
    m_dispatcher->onScreensaverTimeout();
    QCOMPARE(m_fakes->callLines("xscreensaver-command"), QStringList{"-deactivate"});
    m_dispatcher->startNoScreensaver(1, QProcess::NormalExit);
    m_dispatcher->startNoScreensaver(0, QProcess::NormalExit);
    m_dispatcher->disableScreensaver();
    QCOMPARE(m_fakes->calls("xscreensaver-command").size(), 1);
}

void TestDispatcher::lastEditQuestion_data()
{
    QTest::addColumn<QString>("mode");
    QTest::addColumn<QString>("path");

    QTest::newRow("public server") << "serverVorsaneTV" << lastEditPath;
    QTest::newRow("private server") << "serverVorsaneTVPrivate" << privateLastEditPath;
}

void TestDispatcher::lastEditQuestion()
{
    QFETCH(QString, mode);
    QFETCH(QString, path);

    HttpServer server;
    QVERIFY(server.isListening());
    server.setRoute(path, "2024;05;06;07;08;09;\n");
    const QByteArray pages = serverPlaylist(server, xmlItem(pictureUrl("green"), "image"));
    launch(QByteArray(), {"slideshow/playlist_update_mode=" + mode, "slideshow/pages=" + pages});
    QCOMPARE(server.requestCount("GET", path), 1);
    QCOMPARE(shown(), QStringLiteral("green"));
    const QString stampFile = m_home->filePath(".vorsane-kiosk/playlist_last_timestamp.txt");
    QCOMPARE(QString::fromUtf8(readFile(stampFile)),
             QDateTime(QDate(2024, 5, 6), QTime(7, 8, 9)).toString());
}

void TestDispatcher::unchangedEditTrustsTheCache()
{
    HttpServer server;
    QVERIFY(server.isListening());
    server.setRoute(lastEditPath, "2024;05;06;07;08;09;");
    QImage red(64, 48, QImage::Format_RGB32);
    red.fill(Qt::red);
    QByteArray png;
    QBuffer buffer(&png);
    red.save(&buffer, "PNG");
    server.setRoute("/r/media/red.png", png, 200,
                    {{"Last-Modified", "Mon, 06 May 2024 07:08:09 GMT"}});
    const QByteArray pages = serverPlaylist(server, xmlItem("/media/red.png", "image"));
    launch(QByteArray(),
           {"slideshow/playlist_update_mode=serverVorsaneTV", "slideshow/pages=" + pages});
    QCOMPARE(shown(), QStringLiteral("red"));
    QCOMPARE(server.requestCount("GET", "/r/media/red.png"), 2);
    QCOMPARE(server.requestCount("HEAD", "/r/media/red.png"), 0); // nothing cached yet

    // Same edit time as stored: the cache is trusted without asking the server.
    m_dispatcher->startSlideshow();
    QCOMPARE(shown(), QStringLiteral("red"));
    QCOMPARE(server.requestCount("GET", "/r/media/red.png"), 2);
    QCOMPARE(server.requestCount("HEAD", "/r/media/red.png"), 0);

    // The server was edited: every cached item is checked again.
    server.setBody(lastEditPath, "2024;05;07;10;00;00;");
    m_dispatcher->startSlideshow();
    QCOMPARE(server.requestCount("HEAD", "/r/media/red.png"), 1);
    QCOMPARE(server.requestCount("GET", "/r/media/red.png"), 2);
    QCOMPARE(
        QString::fromUtf8(readFile(m_home->filePath(".vorsane-kiosk/playlist_last_timestamp.txt"))),
        QDateTime(QDate(2024, 5, 7), QTime(10, 0)).toString());
}

void TestDispatcher::playlistPollRestartsOnChange()
{
    HttpServer server;
    QVERIFY(server.isListening());
    server.setRoute(lastEditPath, "2024;05;06;07;08;09;");
    const QByteArray pages = serverPlaylist(server, xmlItem(pictureUrl("red"), "image"));
    launch(QByteArray(),
           {"slideshow/playlist_update_mode=serverVorsaneTV", "slideshow/pages=" + pages});
    QCOMPARE(shown(), QStringLiteral("red"));
    QCOMPARE(server.requestCount("GET", playlistPath), 1);

    // Nothing edited: the show goes on undisturbed.
    m_dispatcher->onPlTimeout();
    QCOMPARE(server.requestCount("GET", lastEditPath), 2);
    QCOMPARE(server.requestCount("GET", playlistPath), 1);

    // The server cannot say: no restart either.
    server.setStatus(lastEditPath, 500);
    m_dispatcher->onPlTimeout();
    QCOMPARE(server.requestCount("GET", playlistPath), 1);

    // Edited: the new playlist is fetched and played.
    server.setStatus(lastEditPath, 200);
    server.setBody(lastEditPath, "2024;05;06;08;00;00;");
    serverPlaylist(server, xmlItem(pictureUrl("blue"), "image"));
    m_dispatcher->onPlTimeout();
    QVERIFY(m_log->contains("Content server changed; restarting the show."));
    QCOMPARE(server.requestCount("GET", playlistPath), 2);
    QCOMPARE(shown(), QStringLiteral("blue"));
}

void TestDispatcher::pollingIntervalHasAFloor()
{
    HttpServer server;
    QVERIFY(server.isListening());
    server.setRoute(lastEditPath, "2024;05;06;07;08;09;");
    const QByteArray pages = serverPlaylist(server, xmlItem(pictureUrl("red"), "image"));
    launch(QByteArray(), {"slideshow/playlist_update_mode=serverVorsaneTV",
                          "slideshow/pages=" + pages, "slideshow/refresh_after_minutes=0"});
    QCOMPARE(shown(), QStringLiteral("red"));
    // A zero interval must not turn into asking the server as fast as it answers.
    QTest::qWait(1000);
    QCOMPARE(server.requestCount("GET", lastEditPath), 1);
}

void TestDispatcher::failedSetUpsBackOff()
{
    HttpServer server;
    QVERIFY(server.isListening());
    server.setRoute("/media/red.png", "gone", 404);
    // Something is in the cache already, so a failed download counts as an error.
    QVERIFY(writeFile(m_home->filePath(".vorsane-kiosk/data/old"), "x"));
    QVERIFY(writeFile(m_home->filePath(".vorsane-kiosk/etag/old"), "x:1"));
    launch(schedule(xmlLoop("id=\"0\"", xmlItem(server.url("/media/red.png").toString(), "image", 1)
                                            + xmlItem(pictureUrl("green"), "image", 1))));
    QVERIFY(m_log->contains("Loop not downloaded"));
    // The first failure is retried at once, later ones after a growing pause.
    QTRY_VERIFY(m_log->contains("Download failed again; next attempt in 15 s."));
    QCOMPARE(m_log->count("NB LOOPS"), 2);
    const int fetched = server.requestCount("GET", "/media/red.png");
    QTest::qWait(1500);
    QCOMPARE(server.requestCount("GET", "/media/red.png"), fetched);
    QCOMPARE(m_log->count("NB LOOPS"), 2);
    // Meanwhile the show goes on with what it has.
    QTRY_COMPARE_WITH_TIMEOUT(shown(), QStringLiteral("green"), 5000);
}

void TestDispatcher::terminateFinalizes()
{
    m_fakes->add("tvservice",
                 "state 0x12000a [HDMI CEA (16) RGB full 16:9], 1920x1080 @ 60.00Hz\n");
    TvserviceStandIn standIn(m_fakes->dir() + "/tvservice");
    launch(schedule(xmlLoop("id=\"0\"", xmlItem(pictureUrl("red"), "image"))));
    QPointer<QWidget> shownWidget = m_dispatcher->shownWidget();
    QVERIFY(shownWidget->isVisible());
    const int statusQuestions = m_fakes->calls("tvservice").size();

    // Leaving ends the program's event loop. Last in this program: a quit also ends every
    // nested event loop until the application's own loop runs again.
    QTimer::singleShot(0, m_viewer.get(), &Viewer::bye);
    QTimer::singleShot(10000, qApp, [] { QCoreApplication::exit(1); });
    QCOMPARE(QCoreApplication::exec(), 0);
    QVERIFY(shownWidget);
    QVERIFY(!shownWidget->isVisible());
    if (!standIn.ready())
        QSKIP("the display tool's fixed path is taken or cannot be created here");
    // The display is asked whether it is off, so that the program never leaves it dark.
    QCOMPARE(m_fakes->calls("tvservice").size(), statusQuestions + 1);
    QCOMPARE(m_fakes->callLines("tvservice").last(), QStringLiteral("--status"));
    QVERIFY(!m_log->contains("Display was off"));
}

QTEST_MAIN(TestDispatcher)
#include "tst_dispatcher.moc"
