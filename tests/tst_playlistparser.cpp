#include "commandlineparser.h"
#include "flatplaylistparser.h"
#include "httpserver.h"
#include "settings.h"
#include "testsupport.h"
#include "xmlplaylistparser.h"

#include <QTcpServer>
#include <QTimer>
#include <QWidget>
#include <QtTest>

#include <ctime>
#include <memory>

using namespace testsupport;

Q_DECLARE_METATYPE(testsupport::HttpServer::Behaviour)

namespace {

const bool s_parisTime = [] {
    qputenv("TZ", "Europe/Paris");
    tzset();
    return true;
}();

const char demoUrl[] = "file://:/demo/demo.jpg";
const char warningUrl[] = "file://:/image/usb_auto_insert_warning.png";

QDateTime at(const QString &text)
{
    return QDateTime::fromString(text, Qt::ISODateWithMs);
}

// One loop element; "-" as attributes gives a loop without items.
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

QStringList urls(const PlaylistLoopPtr &loop)
{
    QStringList result;
    if (!loop)
        return result;
    for (const PlaylistItemPtr &item : qAsConst(loop->items)) {
        if (item->url != QLatin1String(demoUrl))
            result << item->url;
    }
    return result;
}

QString firstUrl(PlaylistParser *parser)
{
    const QList<PlaylistLoopPtr> loops = parser->getLoops();
    return loops.isEmpty() ? QString("no loop") : urls(loops.first()).value(0);
}

QString kind(PlaylistParser *parser)
{
    if (qobject_cast<XmlPlaylistParser *>(parser))
        return "xml";
    if (qobject_cast<FlatPlaylistParser *>(parser))
        return "flat";
    return "none";
}

bool image(const QString &path)
{
    return QDir().mkpath(QFileInfo(path).absolutePath()) && makeImage(path, QSize(4, 4), Qt::red);
}

// A local file's content, or a null array when there is no file.
QByteArray fileOrNull(const QString &path)
{
    return QFile::exists(path) ? readFile(path) : QByteArray();
}

} // namespace

class TestPlaylistParser : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void selectLoop_data();
    void selectLoop();
    void selectLoopWithTheClock();
    void scheduleAttribute_data();
    void scheduleAttribute();
    void xmlLoopsInDocumentOrder();
    void xmlWithoutLoops();
    void xmlRejectsFlatText_data();
    void xmlRejectsFlatText();
    void flatParser();
    void flatRefreshReadsTheDiskAgain();
    void refreshFreesTheOldLoop();
    void parserReplacementFreesLoops();
    void getLocalFile_data();
    void getLocalFile();
    void getNetwork_data();
    void getNetwork();
    void getWaitsInANestedEventLoop();

private:
    QTemporaryDir m_base;
    std::unique_ptr<CommandLineParser> m_parser;
    std::unique_ptr<TempHome> m_home;
};

void TestPlaylistParser::initTestCase()
{
    QVERIFY(s_parisTime);
    m_parser = makeParser(m_base.path());
    Settings::load(true, m_parser.get());
}

void TestPlaylistParser::init()
{
    m_home = std::make_unique<TempHome>();
    Settings::load(false, nullptr)->set("remote/enabled", false);
    Settings::load(false, nullptr)->set("slideshow/shuffle", false);
}

void TestPlaylistParser::cleanup()
{
    m_home.reset();
}

void TestPlaylistParser::selectLoop_data()
{
    QTest::addColumn<QStringList>("loops");
    QTest::addColumn<QDateTime>("now");
    QTest::addColumn<QDateTime>("reference");
    QTest::addColumn<QString>("expected");

    // 2024-05-15 is a Wednesday.
    const QString wednesday = "2024-05-15T";
    const QString base = loopXml("0", "");
    auto row = [&](const char *name, const QStringList &loops, const QString &now,
                   const QString &expected, const QString &reference = QString()) {
        QTest::newRow(name) << loops << at(now) << (reference.isEmpty() ? at(now) : at(reference))
                            << expected;
    };

    row("later start wins",
        {base, loopXml("1", "start='08:00' end='18:00'"),
         loopXml("2", "start='12:00' end='18:00'")},
        wednesday + "13:00:00", "2");
    row("before the later one begins",
        {base, loopXml("1", "start='08:00' end='18:00'"),
         loopXml("2", "start='12:00' end='18:00'")},
        wednesday + "10:00:00", "1");
    row("equal starts, earlier in the document",
        {base, loopXml("1", "start='08:00' end='18:00'"),
         loopXml("2", "start='08:00' end='20:00'")},
        wednesday + "13:00:00", "1");
    row("equal starts, order reversed",
        {base, loopXml("2", "start='08:00' end='20:00'"),
         loopXml("1", "start='08:00' end='18:00'")},
        wednesday + "13:00:00", "2");
    row("nothing applies, the default plays", {base, loopXml("1", "start='20:00' end='21:00'")},
        wednesday + "13:00:00", "0");
    row("the default's own schedule is never tested",
        {loopXml("0", "start='01:00' end='02:00' repeat='7'"),
         loopXml("1", "start='20:00' end='21:00'")},
        wednesday + "13:00:00", "0");
    row("only a default", {base}, wednesday + "13:00:00", "0");
    row("all day beats overnight after midnight",
        {base, loopXml("1", ""), loopXml("2", "start='22:00' end='06:00'")}, wednesday + "01:00:00",
        "1");
    row("overnight beats all day in the evening",
        {base, loopXml("1", ""), loopXml("2", "start='22:00' end='06:00'")}, wednesday + "23:00:00",
        "2");
    row("weekday loop on its day", {base, loopXml("1", "repeat='2'")}, wednesday + "13:00:00", "1");
    row("weekday loop on another day", {base, loopXml("1", "repeat='2'")}, "2024-05-16T13:00:00",
        "0");
    row("campaign loses to today's period",
        {base, loopXml("1", "from='2024/05/01' to='2024/05/31'"),
         loopXml("2", "start='12:00' end='18:00'")},
        wednesday + "13:00:00", "2");
    row("campaign outside today's period",
        {base, loopXml("1", "from='2024/05/01' to='2024/05/31'"),
         loopXml("2", "start='12:00' end='18:00'")},
        wednesday + "19:00:00", "1");
    row("campaign over", {base, loopXml("1", "from='2024/05/01' to='2024/05/31'")},
        "2024-06-01T10:00:00", "0");
    row("loop without items never wins", {base, loopXml("1", "", false)}, wednesday + "13:00:00",
        "0");
    row("idle loop wins its period", {base, loopXml("1", "idle='1' start='12:00' end='13:00'")},
        wednesday + "12:30:00", "1");
    row("invalid loop never wins", {base, loopXml("1", "from='2024/02/30'")},
        wednesday + "13:00:00", "0");
    row("equal times at that very moment", {base, loopXml("1", "start='08:00' end='08:00'")},
        wednesday + "08:00:00", "1");
    row("equal times a minute later", {base, loopXml("1", "start='08:00' end='08:00'")},
        wednesday + "08:01:00", "0");
    row("equal times with an earlier reference", {base, loopXml("1", "start='08:00' end='08:00'")},
        wednesday + "15:00:00", "1", wednesday + "07:00:00");
    row("daylight change night",
        {base, loopXml("1", ""), loopXml("2", "start='22:00' end='06:00'")}, "2024-03-31T05:00:00",
        "1");
}

void TestPlaylistParser::selectLoop()
{
    QFETCH(QStringList, loops);
    QFETCH(QDateTime, now);
    QFETCH(QDateTime, reference);
    QFETCH(QString, expected);

    XmlPlaylistParser parser(5, schedule(loops), "http://server/playlist");
    QVERIFY(parser.valid);
    const PlaylistLoopPtr selected = parser.selectLoop(reference, now);
    QVERIFY(selected);
    QCOMPARE(selected->id, expected);
    QVERIFY(parser.getLoops().contains(selected));
}

void TestPlaylistParser::selectLoopWithTheClock()
{
    if (QTime::currentTime() >= QTime(23, 58))
        QSKIP("too close to the end of the day");
    XmlPlaylistParser parser(5, schedule({loopXml("0", ""), loopXml("1", "")}), QString());
    QCOMPARE(parser.selectLoop(QDateTime::currentDateTime())->id, QString("1"));

    FlatPlaylistParser flat(5, "#Vorsane playlist\nhttp://a/ 5\n");
    QCOMPARE(flat.selectLoop(QDateTime::currentDateTime()), flat.loop);
}

void TestPlaylistParser::scheduleAttribute_data()
{
    QTest::addColumn<QString>("xml");
    QTest::addColumn<QString>("expected");

    QTest::newRow("one attribute") << "<schedule version='2'><loop/></schedule>"
                                   << "2";
    QTest::newRow("first in document order")
        << "<schedule zeta='first' alpha='second' mid='third'><loop/></schedule>"
        << "first";
    QTest::newRow("no attribute") << "<schedule><loop/></schedule>"
                                  << "";
    QTest::newRow("schedule not at the root")
        << "<root a='x'><schedule b='inner'/><schedule c='later'/><loop/></root>"
        << "inner";
    QTest::newRow("no schedule") << "<playlist v='1'><loop/></playlist>"
                                 << "";
}

void TestPlaylistParser::scheduleAttribute()
{
    QFETCH(QString, xml);
    QFETCH(QString, expected);

    XmlPlaylistParser parser(5, xml, QString());
    QVERIFY(parser.valid);
    QCOMPARE(parser.scheduleAttribute, expected);
}

void TestPlaylistParser::xmlLoopsInDocumentOrder()
{
    const QString xml = "<schedule><loop id='a'><i uri='http://x/1' time='3'/></loop>"
                        "<group><loop id='b'><i uri='http://x/2'/></loop></group>"
                        "<loop id='c'/></schedule>";
    XmlPlaylistParser parser(9, xml, "http://server/list.xml");
    QCOMPARE(parser.defaultDuration, 9);
    QCOMPARE(parser.source, QString("http://server/list.xml"));
    const QList<PlaylistLoopPtr> loops = parser.getLoops();
    QCOMPARE(loops.size(), 3);
    QStringList ids;
    for (const PlaylistLoopPtr &loop : loops) {
        ids << loop->id;
        QCOMPARE(loop->tag, QString("http://server/list.xml"));
        QCOMPARE(loop->defaultDuration, 9);
    }
    QCOMPARE(ids, QStringList({"a", "b", "c"}));
    QCOMPARE(loops.first()->items.first()->duration, 3);
    // Refreshing a schedule changes nothing.
    parser.refresh();
    QCOMPARE(parser.getLoops(), loops);
}

void TestPlaylistParser::xmlWithoutLoops()
{
    LogCapture log;
    XmlPlaylistParser parser(5, "<schedule version='1'></schedule>", "src");
    QVERIFY(parser.valid);
    QCOMPARE(parser.getLoops().size(), 1);
    const PlaylistLoopPtr selected = parser.selectLoop(at("2024-05-15T12:00:00"));
    QVERIFY(selected);
    QVERIFY(selected->items.isEmpty());
    QCOMPARE(selected->id, QString("0"));
    QVERIFY(log.contains("has no loop"));

    XmlPlaylistParser empty(5, PlaylistParser::emptySchedule(), "src");
    QVERIFY(empty.valid);
    QCOMPARE(empty.getLoops().size(), 1);
    QVERIFY(empty.selectLoop(at("2024-05-15T12:00:00"))->items.isEmpty());
    QCOMPARE(PlaylistParser::emptySchedule(), QString("<?xml version=\"1.0\"?>\n<schedule>\n"
                                                      "<loop id=\"0\" idle=\"0\">\n</loop>\n"
                                                      "</schedule>"));
}

void TestPlaylistParser::xmlRejectsFlatText_data()
{
    QTest::addColumn<QString>("text");

    QTest::newRow("flat playlist") << "#Vorsane playlist\nhttp://a/ 5\n";
    QTest::newRow("empty") << "";
    QTest::newRow("unclosed element") << "<schedule><loop id='1'>";
    QTest::newRow("two roots") << "<schedule/><schedule/>";
    QTest::newRow("html page") << "<html><body><p>Login<br></body></html>";
    QTest::newRow("binary") << QString::fromLatin1("\x01\x02\xff\xfe", 4);
}

void TestPlaylistParser::xmlRejectsFlatText()
{
    QFETCH(QString, text);
    XmlPlaylistParser parser(5, text, QString());
    QVERIFY(!parser.valid);
    QVERIFY(parser.getLoops().isEmpty());
    QVERIFY(!parser.selectLoop(at("2024-05-15T12:00:00")));
}

void TestPlaylistParser::flatParser()
{
    FlatPlaylistParser parser(8, "#Vorsane playlist\nhttp://a/ 5\nhttp://b/ 6\n");
    QCOMPARE(parser.defaultDuration, 8);
    QVERIFY(parser.loop);
    QVERIFY(parser.loop->tag.isEmpty());
    QCOMPARE(parser.loop->defaultDuration, 8);
    QCOMPARE(urls(parser.loop), QStringList({"http://a/", "http://b/"}));
    for (const char *instant : {"2024-05-15T03:00:00", "2030-01-01T23:59:59"})
        QCOMPARE(parser.selectLoop(at(instant), at(instant)), parser.loop);
    QCOMPARE(parser.getLoops(), QList<PlaylistLoopPtr>{parser.loop});
}

void TestPlaylistParser::flatRefreshReadsTheDiskAgain()
{
    const QString show = m_home->filePath("show");
    const QString state = m_home->stateDir();
    QVERIFY(image(show + "/1.png"));
    Settings::load(false, nullptr)->set("remote/enabled", true);
    FlatPlaylistParser parser(5, "#Vorsane playlist\nfile://" + show + " 5\nusb-auto 5\n");
    QCOMPARE(urls(parser.loop), QStringList({"file://" + show + "/1.png"}));

    QVERIFY(image(show + "/2.png"));
    QVERIFY(image(state + "/usbauto/u.png"));
    QVERIFY(image(state + "/dragndrop/d.png"));
    const PlaylistLoopPtr before = parser.loop;
    parser.refresh();
    QVERIFY(parser.loop != before);
    QCOMPARE(urls(parser.loop),
             QStringList({"file://" + m_home->stateDir() + "/dragndrop/d.png",
                          "file://" + show + "/1.png", "file://" + show + "/2.png",
                          "file://" + m_home->stateDir() + "/usbauto/u.png"}));
    QCOMPARE(parser.getLoops(), QList<PlaylistLoopPtr>{parser.loop});
    QCOMPARE(urls(before), QStringList({"file://" + show + "/1.png"}));
}

void TestPlaylistParser::refreshFreesTheOldLoop()
{
    FlatPlaylistParser parser(5, "#Vorsane playlist\nhttp://a/ 5\nhttp://b/ 5\nhttp://c/ 5\n");
    std::weak_ptr<PlaylistLoop> oldLoop = parser.loop;
    QList<std::weak_ptr<PlaylistItem>> oldItems;
    for (const PlaylistItemPtr &item : qAsConst(parser.loop->items))
        oldItems << item;
    QCOMPARE(oldItems.size(), 4);

    parser.refresh();
    QVERIFY(oldLoop.expired());
    for (const std::weak_ptr<PlaylistItem> &item : qAsConst(oldItems))
        QVERIFY(item.expired());

    // Whoever still shows a loop or an item keeps exactly that alive.
    PlaylistLoopPtr shown = parser.selectLoop(at("2024-05-15T12:00:00"));
    const PlaylistItemPtr current = shown->items.at(2);
    std::weak_ptr<PlaylistItem> other = shown->items.at(0);
    parser.refresh();
    QVERIFY(shown != parser.loop);
    QCOMPARE(shown->items.size(), 4);
    QCOMPARE(current->url, QString("http://b/"));
    shown.reset();
    QVERIFY(other.expired());
    QCOMPARE(current.use_count(), 1L);

    // A thousand refreshes leave one loop and its items, nothing more.
    std::weak_ptr<PlaylistLoop> first = parser.loop;
    for (int i = 0; i < 1000; ++i)
        parser.refresh();
    QVERIFY(first.expired());
    QCOMPARE(parser.loop.use_count(), 1L);
    for (const PlaylistItemPtr &item : qAsConst(parser.loop->items))
        QCOMPARE(item.use_count(), 1L);
}

void TestPlaylistParser::parserReplacementFreesLoops()
{
    const QString path = m_home->filePath("schedule.xml");
    QVERIFY(writeFile(path, schedule({loopXml("0", ""), loopXml("1", "start='08:00'")}).toUtf8()));
    QList<std::weak_ptr<PlaylistLoop>> loops;
    std::weak_ptr<PlaylistItem> item;
    {
        std::unique_ptr<PlaylistParser> parser(
            PlaylistParser::get(5, QUrl::fromLocalFile(path), nullptr));
        QCOMPARE(kind(parser.get()), QString("xml"));
        for (const PlaylistLoopPtr &loop : parser->getLoops())
            loops << loop;
        item = parser->getLoops().at(1)->items.first();
        QCOMPARE(loops.size(), 2);
    }
    for (const std::weak_ptr<PlaylistLoop> &loop : qAsConst(loops))
        QVERIFY(loop.expired());
    QVERIFY(item.expired());
}

void TestPlaylistParser::getLocalFile_data()
{
    QTest::addColumn<QString>("fileName");
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("first");

    const QByteArray xml
        = schedule({loopXml("0", ""), loopXml("1", "start='08:00' end='09:00'")}).toUtf8();
    QTest::newRow("xml schedule") << "schedule.xml" << xml << "xml"
                                  << "http://host/0a";
    QTest::newRow("flat playlist")
        << "playlist" << QByteArray("#Vorsane playlist\nhttp://a/ 7\n") << "flat"
        << "http://a/";
    QTest::newRow("name with blanks and accents") << "my plàylist.xml" << xml << "xml"
                                                  << "http://host/0a";
    QTest::newRow("empty file") << "empty" << QByteArray() << "flat" << warningUrl;
    QTest::newRow("missing file") << QString() << QByteArray() << "flat" << warningUrl;
    QTest::newRow("unavailable text in a local file is not special")
        << "odd" << QByteArray("Unavailable for public use") << "flat" << warningUrl;
}

void TestPlaylistParser::getLocalFile()
{
    QFETCH(QString, fileName);
    QFETCH(QByteArray, content);
    QFETCH(QString, kind);
    QFETCH(QString, first);

    const QString path = m_home->filePath(fileName.isEmpty() ? "missing" : fileName);
    if (!fileName.isEmpty())
        QVERIFY(writeFile(path, content));
    const QUrl url = QUrl::fromLocalFile(path);
    std::unique_ptr<PlaylistParser> parser(PlaylistParser::get(4, url, nullptr));
    QVERIFY(parser);
    QCOMPARE(::kind(parser.get()), kind);
    QCOMPARE(firstUrl(parser.get()), first);
    if (auto *xml = qobject_cast<XmlPlaylistParser *>(parser.get()))
        QCOMPARE(xml->source, url.toString());
    // Local playlists leave no copies behind.
    QVERIFY(!QFile::exists(PlaylistParser::localCopyPath()));
    QVERIFY(!QFile::exists(PlaylistParser::offlineCopyPath()));
}

void TestPlaylistParser::getNetwork_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<HttpServer::Behaviour>("behaviour");
    QTest::addColumn<bool>("serverUp");
    QTest::addColumn<QByteArray>("copy");
    QTest::addColumn<QByteArray>("old");
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("first");
    QTest::addColumn<QByteArray>("copyAfter");
    QTest::addColumn<QByteArray>("oldAfter");

    const QByteArray served("#Vorsane playlist\nhttp://served/ 5\n");
    const QByteArray servedXml
        = schedule({"<loop id='0'><i uri='http://served-xml/'/></loop>"}).toUtf8();
    const QByteArray copy("#Vorsane playlist\nhttp://copy/ 5\n");
    const QByteArray old("#Vorsane playlist\nhttp://old/ 5\n");
    const QByteArray empty = PlaylistParser::emptySchedule().toUtf8();
    const QByteArray none;
    const auto normal = HttpServer::Behaviour::Normal;

    QTest::newRow("first fetch") << 200 << served << normal << true << none << none << "flat"
                                 << "http://served/" << served << none;
    QTest::newRow("xml reply") << 200 << servedXml << normal << true << none << none << "xml"
                               << "http://served-xml/" << servedXml << none;
    QTest::newRow("second fetch backs the copy up")
        << 200 << served << normal << true << copy << none << "flat"
        << "http://served/" << served << copy;
    QTest::newRow("backup made only once")
        << 200 << served << normal << true << copy << old << "flat"
        << "http://served/" << served << old;
    QTest::newRow("server error plays the backup")
        << 500 << QByteArray("oops") << normal << true << copy << old << "flat"
        << "http://old/" << copy << old;
    QTest::newRow("server error makes the first backup")
        << 500 << QByteArray("oops") << normal << true << copy << none << "flat"
        << "http://copy/" << copy << copy;
    QTest::newRow("not found plays the backup")
        << 404 << QByteArray() << normal << true << copy << old << "flat"
        << "http://old/" << copy << old;
    QTest::newRow("server down plays the backup")
        << 200 << served << normal << false << copy << old << "flat"
        << "http://old/" << copy << old;
    QTest::newRow("reply cut short plays the backup")
        << 200 << served << HttpServer::Behaviour::CutBody << true << copy << old << "flat"
        << "http://old/" << copy << old;
    QTest::newRow("unavailable for public use")
        << 200 << QByteArray("Unavailable for public use") << normal << true << none << none
        << "xml" << QString() << empty << none;
    QTest::newRow("unavailable for public use over a copy")
        << 200 << QByteArray("Unavailable for public use") << normal << true << copy << none
        << "xml" << QString() << empty << copy;
    QTest::newRow("nearly unavailable is no playlist and not stored")
        << 200 << QByteArray("Unavailable for public use\n") << normal << true << none << none
        << "xml" << QString() << none << none;
    QTest::newRow("empty reply plays the backup")
        << 200 << QByteArray() << normal << true << copy << old << "flat"
        << "http://old/" << copy << old;
    QTest::newRow("empty reply, nothing cached") << 200 << QByteArray() << normal << true << none
                                                 << none << "flat" << warningUrl << none << none;
    QTest::newRow("utf-8 reply") << 200 << QByteArray("#Vorsane playlist\nhttp://café.example/ 5\n")
                                 << normal << true << none << none << "flat"
                                 << "http://café.example/"
                                 << QByteArray("#Vorsane playlist\nhttp://café.example/ 5\n")
                                 << none;
}

void TestPlaylistParser::getNetwork()
{
    QFETCH(int, status);
    QFETCH(QByteArray, body);
    QFETCH(HttpServer::Behaviour, behaviour);
    QFETCH(bool, serverUp);
    QFETCH(QByteArray, copy);
    QFETCH(QByteArray, old);
    QFETCH(QString, kind);
    QFETCH(QString, first);
    QFETCH(QByteArray, copyAfter);
    QFETCH(QByteArray, oldAfter);

    HttpServer server;
    HttpServer::Route route{body, status};
    route.behaviour = behaviour;
    server.setRoute("/playlist", route);
    QUrl url = server.url("/playlist");
    if (!serverUp) {
        // A port that was free a moment ago: the connection is refused.
        QTcpServer probe;
        QVERIFY(probe.listen(QHostAddress::LocalHost));
        url.setPort(probe.serverPort());
    }
    if (!copy.isNull())
        QVERIFY(writeFile(PlaylistParser::localCopyPath(), copy));
    if (!old.isNull())
        QVERIFY(writeFile(PlaylistParser::offlineCopyPath(), old));

    QWidget window;
    window.show();
    std::unique_ptr<PlaylistParser> parser(PlaylistParser::get(5, url, &window));
    QVERIFY(parser);
    QCOMPARE(::kind(parser.get()), kind);
    QCOMPARE(firstUrl(parser.get()), first);
    QCOMPARE(fileOrNull(PlaylistParser::localCopyPath()), copyAfter);
    QCOMPARE(fileOrNull(PlaylistParser::offlineCopyPath()), oldAfter);
    QCOMPARE(server.requestCount("GET", "/playlist"), serverUp ? 1 : 0);
    // With something cached, going offline is silent: the window stays up.
    QVERIFY(window.isVisible());
    if (auto *xml = qobject_cast<XmlPlaylistParser *>(parser.get()))
        QCOMPARE(xml->source, url.toString());
}

void TestPlaylistParser::getWaitsInANestedEventLoop()
{
    HttpServer server;
    server.setRoute("/playlist", "#Vorsane playlist\nhttp://a/ 5\n");
    bool timerRan = false;
    QTimer::singleShot(0, this, [&timerRan] { timerRan = true; });
    std::unique_ptr<PlaylistParser> parser(
        PlaylistParser::get(5, server.url("/playlist"), nullptr));
    QVERIFY(timerRan);

    // A local playlist is read at once, without an event loop.
    const QString path = m_home->filePath("local");
    QVERIFY(writeFile(path, "#Vorsane playlist\nhttp://b/ 5\n"));
    timerRan = false;
    QTimer::singleShot(0, this, [&timerRan] { timerRan = true; });
    parser.reset(PlaylistParser::get(5, QUrl::fromLocalFile(path), nullptr));
    QVERIFY(!timerRan);
    QTRY_VERIFY(timerRan);
}

QTEST_MAIN(TestPlaylistParser)
#include "tst_playlistparser.moc"
