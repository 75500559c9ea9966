#include "commandlineparser.h"
#include "flatplaylistparser.h"
#include "httpserver.h"
#include "settings.h"
#include "testsupport.h"
#include "xmlplaylistparser.h"

#include <QApplication>
#include <QMessageBox>
#include <QPushButton>
#include <QtTest>

#include <ctime>
#include <utility>

using namespace testsupport;

Q_DECLARE_METATYPE(testsupport::HttpServer::Behaviour)

namespace {

// Schedules are checked at chosen instants of a zone with daylight-saving changes; this must
// happen before anything asks for the local time.
const bool s_parisTime = [] {
    qputenv("TZ", "Europe/Paris");
    tzset();
    return true;
}();

const char demo[] = "file://:/demo/demo.jpg|3|3|";
const char warning[] = "file://:/image/usb_auto_insert_warning.png|3|%1|";

QString loopXml(const QString &id, const QString &attributes, bool withItems = true)
{
    const QString items = withItems ? QString("<i uri='http://host/%1a' type='url'/>"
                                              "<i uri='http://host/%1b' type='url'/>")
                                          .arg(id)
                                    : QString();
    return QString("<loop id='%1' %2>%3</loop>").arg(id, attributes, items);
}

QString schedule(const QStringList &loops)
{
    return "<?xml version=\"1.0\"?>\n<schedule version='1'>\n" + loops.join('\n')
           + "\n</schedule>\n";
}

// url|type|duration|parameters of every item.
QStringList summaries(const PlaylistLoopPtr &loop)
{
    QStringList result;
    for (const PlaylistItemPtr &item : std::as_const(loop->items))
        result << QString("%1|%2|%3|%4")
                      .arg(item->url)
                      .arg(int(item->type))
                      .arg(item->duration)
                      .arg(item->parameters.join(','));
    return result;
}

QString firstUrl(PlaylistParser *parser)
{
    const QList<PlaylistLoopPtr> loops = parser->getLoops();
    if (loops.isEmpty())
        return QString("no loop");
    return loops.first()->items.isEmpty() ? QString() : loops.first()->items.first()->url;
}

QByteArray fileOrNull(const QString &path)
{
    return QFile::exists(path) ? readFile(path) : QByteArray();
}

} // namespace

// Playlist texts as the server or the operator writes them, read into loops; which loop plays
// at a given instant; fetching the playlist with its offline copies.
class TestPlaylist : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void selectLoop_data();
    void selectLoop();
    void loopItems_data();
    void loopItems();
    void getNetwork_data();
    void getNetwork();
    void settingsReloadKeepsOldInstances();
    // Last: it asks the application to quit.
    void offlineWithoutCopyQuits();

private:
    QTemporaryDir m_base;
    std::unique_ptr<CommandLineParser> m_parser;
    std::unique_ptr<TempHome> m_home;
};

void TestPlaylist::initTestCase()
{
    QVERIFY(s_parisTime);
    m_parser = makeParser(m_base.path());
    Settings::load(true, m_parser.get());
}

void TestPlaylist::init()
{
    m_home = std::make_unique<TempHome>();
    Settings::load(false, nullptr)->set("remote/enabled", false);
    Settings::load(false, nullptr)->set("slideshow/shuffle", false);
}

void TestPlaylist::cleanup()
{
    m_home.reset();
}

void TestPlaylist::selectLoop_data()
{
    QTest::addColumn<QStringList>("loops");
    QTest::addColumn<QString>("now");
    QTest::addColumn<QString>("reference");
    QTest::addColumn<QString>("expected");

    // 2024-05-15 is a Wednesday; Europe/Paris skips 02:00-03:00 on 2024-03-31 and repeats
    // 02:00-03:00 on 2024-10-27.
    const QString base = loopXml("0", "");
    auto row = [&](const char *name, const QString &attributes, const QString &now,
                   const QString &expected, const QString &reference = QString()) {
        QTest::newRow(name) << QStringList{base, loopXml("1", attributes)} << now
                            << (reference.isEmpty() ? now : reference) << expected;
    };
    auto race = [&](const char *name, const QString &first, const QString &second,
                    const QString &now, const QString &expected) {
        QTest::newRow(name) << QStringList{base, loopXml("1", first), loopXml("2", second)} << now
                            << now << expected;
    };

    row("daily period, inside", "start='08:00' end='18:00'", "2024-05-15T12:00:00", "1");
    row("daily period, at the end", "start='08:00' end='18:00'", "2024-05-15T18:00:00", "1");
    row("daily period, just after", "start='08:00' end='18:00'", "2024-05-15T18:00:00.001", "0");
    row("overnight, before midnight", "start='22:00' end='06:00'", "2024-05-15T23:00:00", "1");
    row("overnight, after midnight", "start='22:00' end='06:00'", "2024-05-15T05:00:00", "1");
    row("overnight, after its end", "start='22:00' end='06:00'", "2024-05-15T07:00:00", "0");
    row("overnight, weekday of the new day", "start='22:00' end='06:00' repeat='3'",
        "2024-05-16T05:00:00", "1");
    row("overnight, weekday of the old day", "start='22:00' end='06:00' repeat='2'",
        "2024-05-16T05:00:00", "0");
    row("weekdays, monday listed", "repeat='06'", "2024-05-13T10:00:00", "1");
    row("weekdays, wednesday not listed", "repeat='06'", "2024-05-15T10:00:00", "0");
    row("weekdays, seven is never", "repeat='7'", "2024-05-13T10:00:00", "0");
    row("date range, last minute", "from='2024/05/01' to='2024/05/31'", "2024-05-31T23:59:00", "1");
    row("date range, day after", "from='2024/05/01' to='2024/05/31'", "2024-06-01T00:00:00", "0");
    row("invalid date never applies", "from='2024/02/30'", "2024-05-15T12:00:00", "0");
    row("equal times, exactly then", "start='08:00' end='08:00'", "2024-05-15T08:00:00", "1");
    row("equal times, earlier reference", "start='08:00' end='08:00'", "2024-05-15T15:00:00", "1",
        "2024-05-15T07:00:00");
    QTest::newRow("loop without items never wins")
        << QStringList{base, loopXml("1", "", false)} << "2024-05-15T13:00:00"
        << "2024-05-15T13:00:00"
        << "0";
    row("idle loop wins its period", "idle='1' start='12:00' end='13:00'", "2024-05-15T12:30:00",
        "1");
    row("spring change, overnight", "start='22:00' end='06:00'", "2024-03-31T05:00:00", "1");
    row("spring change, start in the skipped hour", "start='02:30' end='05:00'",
        "2024-03-31T03:45:00", "1");
    row("spring change, before the moved start", "start='02:30' end='05:00'", "2024-03-31T03:15:00",
        "0");
    row("autumn change, second pass of the repeated hour", "start='01:00' end='04:00'",
        "2024-10-27T01:30:00Z", "1");
    row("autumn change, period ended", "start='00:00' end='02:30'", "2024-10-27T02:00:00Z", "0");
    race("later start wins", "start='08:00' end='18:00'", "start='12:00' end='18:00'",
         "2024-05-15T13:00:00", "2");
    race("equal starts: the earlier in the document", "start='08:00' end='18:00'",
         "start='08:00' end='20:00'", "2024-05-15T13:00:00", "1");
    race("all day beats overnight after midnight", "", "start='22:00' end='06:00'",
         "2024-05-15T01:00:00", "1");
    race("overnight beats all day in the evening", "", "start='22:00' end='06:00'",
         "2024-05-15T23:00:00", "2");
    race("campaign loses to today's period", "from='2024/05/01' to='2024/05/31'",
         "start='12:00' end='18:00'", "2024-05-15T13:00:00", "2");
    QTest::newRow("the default's own schedule is never tested")
        << QStringList{loopXml("0", "start='01:00' end='02:00' repeat='7'"),
                       loopXml("1", "start='20:00' end='21:00'")}
        << "2024-05-15T13:00:00"
        << "2024-05-15T13:00:00"
        << "0";
}

void TestPlaylist::selectLoop()
{
    QFETCH(QStringList, loops);
    QFETCH(QString, now);
    QFETCH(QString, reference);
    QFETCH(QString, expected);

    XmlPlaylistParser parser(5, schedule(loops), "http://server/playlist");
    QVERIFY(parser.valid);
    const QDateTime instant = QDateTime::fromString(now, Qt::ISODateWithMs);
    const QDateTime since = QDateTime::fromString(reference, Qt::ISODateWithMs);
    QVERIFY(instant.isValid() && since.isValid());
    const PlaylistLoopPtr selected = parser.selectLoop(since, instant);
    QVERIFY(selected);
    QCOMPARE(selected->id, expected);
    // A second look at the same instant gives the same answer: nothing drifts.
    QCOMPARE(parser.selectLoop(since, instant), selected);
}

void TestPlaylist::loopItems_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QStringList>("files");
    QTest::addColumn<QStringList>("expected");

    const QString head = "#Vorsane playlist\n";
    const QString warn = QString::fromLatin1(warning);
    QTest::newRow("web pages: the last one is marked")
        << head + "http://a/ 10\nhttp://b/ 20\nhttps://c/ 30\n"
        << QStringList()
        << QStringList{"http://a/|6|10|", demo, "http://b/|6|20|", "https://c/|6|30|all_webpages"};
    QTest::newRow("a file among them, a demo at the end")
        << head + "http://a/ 10\nhttp://b/ 20\nfile://$HOME/my p.png 5\nhttps://c/ 30\n"
        << QStringList{"my p.png"}
        << QStringList{"http://a/|6|10|",  demo, "http://b/|6|20|", "file://$HOME/my p.png|3|5|",
                       "https://c/|6|30|", demo};
    QTest::newRow("missing file skipped, no warning") << head + "file:///nowhere/a.jpg 10\n"
                                                      << QStringList() << QStringList();
    QTest::newRow("directory expanded in order")
        << head + "file://$HOME/show 8\n"
        << QStringList{"show/b.jpg", "show/A.jpg", "show/sub/c.pdf"}
        << QStringList{"file://$HOME/show/A.jpg|3|8|", demo, "file://$HOME/show/b.jpg|3|8|",
                       "file://$HOME/show/sub/c.pdf|4|8|"};
    QTest::newRow("screen off") << head + "Screen OFF From: 22:00 To: 06:00 300\nhttp://a/ 10\n"
                                << QStringList()
                                << QStringList{"Screen OFF From: 22:00 To: 06:00|9|0|", demo,
                                               "http://a/|6|10|"};
    QTest::newRow("duration not a number")
        << head + "http://a/ ten\nhttp://b/ 5\n"
        << QStringList() << QStringList{"http://a/|6|0|", demo, "http://b/|6|5|all_webpages"};
    QTest::newRow("unknown scheme brings the usb warning")
        << head + "ftp://host/a.jpg 10\n"
        << QStringList() << QStringList{warn.arg(10)};
    QTest::newRow("empty text brings the usb warning")
        << QString() << QStringList() << QStringList{warn.arg(5)};
    QTest::newRow("usb-auto with files")
        << head + "usb-auto 10\n"
        << QStringList{".vorsane-kiosk/usbauto/2.png", ".vorsane-kiosk/usbauto/1.png"}
        << QStringList{"file://$HOME/.vorsane-kiosk/usbauto/1.png|3|10|", demo,
                       "file://$HOME/.vorsane-kiosk/usbauto/2.png|3|10|"};
    QTest::newRow("usb-auto empty next to a web page")
        << head + "usb-auto 10\nhttp://a/ 7\n"
        << QStringList() << QStringList{"http://a/|6|7|"};
    // Widgets open the path after "file://" as it stands.
    QTest::newRow("escapes in a file address are decoded")
        << head + "file://$HOME/my%20p.png 5\n"
        << QStringList{"my p.png"} << QStringList{"file://$HOME/my p.png|3|5|"};

    const QString url = "<i uri='http://%1/' type='url'/>";
    QTest::newRow("schedule: escapes in a file address are decoded")
        << "<schedule><loop id='0'><i uri='file://$HOME/my%20p.png' type='image' time='5'/>"
           "</loop></schedule>"
        << QStringList{"my p.png"} << QStringList{"file://$HOME/my p.png|3|5|"};
    QTest::newRow("schedule: white space between web pages is no item, the last one is marked")
        << "<schedule><loop id='0'>\n  " + url.arg("a") + "\n  " + url.arg("b")
               + "\n</loop></schedule>"
        << QStringList() << QStringList{"http://a/|6|5|", demo, "http://b/|6|5|all_webpages"};
    QTest::newRow("schedule: a comment among web pages counts as a child, none is marked")
        << "<schedule><loop id='0'>" + url.arg("a") + "<!-- lunch -->" + url.arg("b")
               + "</loop></schedule>"
        << QStringList() << QStringList{"http://a/|6|5|", demo, "http://b/|6|5|"};
}

void TestPlaylist::loopItems()
{
    QFETCH(QString, text);
    QFETCH(QStringList, files);
    QFETCH(QStringList, expected);

    const QString home = m_home->path();
    for (const QString &file : files) {
        const QString path = home + "/" + file;
        QVERIFY(file.endsWith(".pdf") ? makePdf(path, {Qt::gray})
                                      : makeImage(path, QSize(4, 4), Qt::gray));
    }
    text.replace("$HOME", home);
    std::unique_ptr<PlaylistParser> parser;
    if (text.startsWith('<'))
        parser = std::make_unique<XmlPlaylistParser>(5, text, "http://server/playlist");
    else
        parser = std::make_unique<FlatPlaylistParser>(5, text);
    expected.replaceInStrings("$HOME", home);
    QCOMPARE(summaries(parser->getLoops().value(0)), expected);
}

void TestPlaylist::getNetwork_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<HttpServer::Behaviour>("behaviour");
    QTest::addColumn<bool>("serverUp");
    QTest::addColumn<QByteArray>("copy");
    QTest::addColumn<QByteArray>("old");
    QTest::addColumn<QString>("first");
    QTest::addColumn<QByteArray>("copyAfter");
    QTest::addColumn<QByteArray>("oldAfter");

    const QByteArray served("#Vorsane playlist\nhttp://served/ 5\n");
    const QByteArray copy("#Vorsane playlist\nhttp://copy/ 5\n");
    const QByteArray old("#Vorsane playlist\nhttp://old/ 5\n");
    const QByteArray none;
    const auto normal = HttpServer::Behaviour::Normal;

    QTest::newRow("first fetch") << 200 << served << normal << true << none << none
                                 << "http://served/" << served << none;
    QTest::newRow("second fetch backs the copy up")
        << 200 << served << normal << true << copy << none << "http://served/" << served << copy;
    QTest::newRow("backup made only once")
        << 200 << served << normal << true << copy << old << "http://served/" << served << old;
    QTest::newRow("server error plays the backup") << 500 << QByteArray("oops") << normal << true
                                                   << copy << old << "http://old/" << copy << old;
    QTest::newRow("server down plays the backup")
        << 200 << served << normal << false << copy << old << "http://old/" << copy << old;
    QTest::newRow("reply cut short plays the backup")
        << 200 << served << HttpServer::Behaviour::CutBody << true << copy << old << "http://old/"
        << copy << old;
    QTest::newRow("empty reply plays the backup")
        << 200 << QByteArray() << normal << true << copy << old << "http://old/" << copy << old;
    QTest::newRow("unavailable for public use")
        << 200 << QByteArray("Unavailable for public use") << normal << true << none << none
        << QString() << PlaylistParser::emptySchedule().toUtf8() << none;
}

void TestPlaylist::getNetwork()
{
    QFETCH(int, status);
    QFETCH(QByteArray, body);
    QFETCH(HttpServer::Behaviour, behaviour);
    QFETCH(bool, serverUp);
    QFETCH(QByteArray, copy);
    QFETCH(QByteArray, old);
    QFETCH(QString, first);
    QFETCH(QByteArray, copyAfter);
    QFETCH(QByteArray, oldAfter);

    HttpServer server;
    HttpServer::Route route{body, status};
    route.behaviour = behaviour;
    server.setRoute("/playlist", route);
    QUrl url = server.url("/playlist");
    if (!serverUp)
        url.setPort(closedPort());
    if (!copy.isNull())
        QVERIFY(writeFile(PlaylistParser::localCopyPath(), copy));
    if (!old.isNull())
        QVERIFY(writeFile(PlaylistParser::offlineCopyPath(), old));

    QWidget window;
    window.show();
    QString message;
    QTimer closer; // a message box would wait for a click forever
    connect(&closer, &QTimer::timeout, this, [&message] {
        if (auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget())) {
            message = box->text();
            box->button(QMessageBox::Ok)->click();
        }
    });
    closer.start(20);
    std::unique_ptr<PlaylistParser> parser(PlaylistParser::get(5, url, &window));
    QCOMPARE(firstUrl(parser.get()), first);
    QCOMPARE(fileOrNull(PlaylistParser::localCopyPath()), copyAfter);
    QCOMPARE(fileOrNull(PlaylistParser::offlineCopyPath()), oldAfter);
    // With something cached, going offline is silent: no message, the window stays up.
    QVERIFY2(message.isEmpty(), qPrintable(message));
    QVERIFY(window.isVisible());
}

void TestPlaylist::settingsReloadKeepsOldInstances()
{
    // Components keep the instance they were given; a reload must leave it readable.
    const QString prefs = m_base.filePath("preferences");
    QVERIFY(writeFile(prefs, "[main]\nversion=QFGLs6IVf1\nmode=display\n"));
    Settings *first = Settings::load(true, m_parser.get());
    QCOMPARE(Settings::load(true, m_parser.get()), first);
    QVERIFY(writeFile(prefs, "[main]\nversion=QFGLs6IVf1\nmode=kiosk\n"));
    Settings *second = Settings::load(true, m_parser.get());
    QVERIFY(second != first);
    QCOMPARE(second->get("main/mode").toString(), QStringLiteral("kiosk"));
    QCOMPARE(first->get("main/mode").toString(), QStringLiteral("display"));
}

void TestPlaylist::offlineWithoutCopyQuits()
{
    QWidget window;
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    QString text;
    bool windowHidden = false;
    QTimer closer;
    connect(&closer, &QTimer::timeout, this, [&] {
        if (auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget())) {
            text = box->text();
            windowHidden = !window.isVisible();
            box->button(QMessageBox::Ok)->click();
        }
    });
    closer.start(20);
    const QUrl url(QString("http://127.0.0.1:%1/playlist").arg(closedPort()));
    std::unique_ptr<PlaylistParser> parser(PlaylistParser::get(5, url, &window));
    closer.stop();

    QVERIFY(text.startsWith("Vorsane Kiosk is Offline."));
    QVERIFY(windowHidden);
    QVERIFY(!QFile::exists(PlaylistParser::localCopyPath()));
    // Nothing to play: the application is asked to end.
    QEventLoop loop;
    QTimer::singleShot(5000, &loop, [&loop] { loop.exit(42); });
    QCOMPARE(loop.exec(), 0);
}

QTEST_MAIN(TestPlaylist)
#include "tst_playlist.moc"
