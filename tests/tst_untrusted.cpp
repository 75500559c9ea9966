// Untrusted documents and content files: whatever their size, nesting or bytes, the player
// neither crashes nor stalls; what cannot be used is refused with a log line.
#include "commandlineparser.h"
#include "flatplaylistparser.h"
#include "gif.h"
#include "image.h"
#include "pdf.h"
#include "playlistitem.h"
#include "playlistparser.h"
#include "remote.h"
#include "settings.h"
#include "testsupport.h"
#include "xmlplaylistparser.h"

#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace testsupport;

class TestUntrusted : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void documentLimits_data();
    void documentLimits();
    void contentFiles_data();
    void contentFiles();
    void hiddenFilesAndOddNames();

private:
    std::unique_ptr<TempHome> m_home;
    std::unique_ptr<CommandLineParser> m_parser;
};

void TestUntrusted::init()
{
    m_home = std::make_unique<TempHome>();
    m_parser = makeParser(m_home->filePath(QStringLiteral("conf")));
    Settings::load(true, m_parser.get());
}

void TestUntrusted::cleanup()
{
    m_home.reset();
}

void TestUntrusted::documentLimits_data()
{
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<int>("items");
    QTest::addColumn<QString>("logged");
    // slideshow/playlist_max_mb; 0 leaves the default.
    QTest::addColumn<int>("maxMb");
    const QByteArray loop = "<loop id='0'><i uri='http://x/' type='url'/></loop>";
    QTest::newRow("schedule nested 50,000 deep")
        << "<schedule>" + QByteArray("<a>").repeated(50000) + loop << 0 << "nested deeper" << 0;
    QTest::newRow("schedule nested 64 deep is read")
        << "<schedule>" + QByteArray("<a>").repeated(61) + loop + QByteArray("</a>").repeated(61)
               + "</schedule>"
        << 1 << QString() << 0;
    QTest::newRow("schedule nested 65 deep")
        << "<schedule>" + QByteArray("<a>").repeated(62) + loop + QByteArray("</a>").repeated(62)
               + "</schedule>"
        << 0 << "nested deeper than 64 levels" << 0;
    QTest::newRow("playlist larger than 16 MB")
        << "#Vorsane playlist\n#" + QByteArray(17 * 1024 * 1024, 'x') + "\nhttp://x/ 5\n"
        << 0 << "larger than 16 MB" << 0;
    QTest::newRow("playlist larger than a limit of 1 MB")
        << "#Vorsane playlist\n#" + QByteArray(2 * 1024 * 1024, 'x') + "\nhttp://x/ 5\n"
        << 0 << "larger than 1 MB" << 1;
    QTest::newRow("playlist of 17 MB under a limit of 32 MB")
        << "#Vorsane playlist\n#" + QByteArray(17 * 1024 * 1024, 'x') + "\nhttp://x/ 5\n"
        << 1 << QString() << 32;
    // Half a schedule is no XML: read as a flat list, it has nothing but the USB notice.
    QTest::newRow("half a schedule") << "<schedule>" + loop.left(30) << 1 << QString() << 0;
    QTest::newRow("entities expanding to half a million characters")
        << QByteArray("<!DOCTYPE s [<!ENTITY a 'aaaaaaaaaa'><!ENTITY b '&a;&a;&a;&a;&a;&a;&a;&a;"
                      "&a;&a;'><!ENTITY c '&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;'><!ENTITY d '&c;&c;&c;"
                      "&c;&c;&c;&c;&c;&c;&c;'><!ENTITY e '&d;&d;&d;&d;&d;&d;&d;&d;&d;&d;'>]>"
                      "<schedule><loop id='&e;&e;&e;&e;&e;'/></schedule>")
        << 0 << "rejected: it declares a document type" << 0;
    QTest::newRow("entity naming a local file")
        << QByteArray("<?xml version='1.0'?><!DOCTYPE schedule [<!ENTITY f SYSTEM "
                      "'file:///etc/passwd'>]><schedule><loop id='0'><i uri='http://x/&f;' "
                      "type='url'/></loop></schedule>")
        << 0 << "rejected: it declares a document type" << 0;
    // The line names something that cannot be found under that name; the others play.
    QTest::newRow("flat line that is not UTF-8")
        << QByteArray("#Vorsane playlist\nhttp://x/caf\xe9 5\nhttp://y/ 5\n") << 1
        << "Playlist line 2 skipped: not valid UTF-8" << 0;
}

void TestUntrusted::documentLimits()
{
    QFETCH(QByteArray, document);
    QFETCH(int, items);
    QFETCH(QString, logged);
    QFETCH(int, maxMb);
    if (maxMb > 0)
        Settings::load(false, nullptr)->set(Prefs::PlaylistMaxMb, maxMb);
    const QString path = m_home->filePath("playlist");
    QVERIFY(writeFile(path, document));

    LogCapture log;
    std::unique_ptr<PlaylistParser> parser(
        PlaylistParser::get(5, QUrl::fromLocalFile(path), nullptr));
    QVERIFY(parser);
    QVERIFY(parser->selectLoop(QDateTime::currentDateTime()));
    QCOMPARE(parser->getLoops().value(0)->items.size(), items);
    if (!logged.isEmpty())
        QCOMPARE(log.count(logged), 1);
}

void TestUntrusted::contentFiles_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QString>("kind");
    // Pictures and PDFs that cannot be shown end at once; an animation keeps the screen black
    // for its time.
    QTest::addColumn<bool>("endsAtOnce");
    const struct
    {
        int type;
        const char *name;
    } types[] = {{PlaylistItem::Image, "picture"},
                 {PlaylistItem::Gif, "animation"},
                 {PlaylistItem::PDF, "pdf"}};
    for (const auto &type : types) {
        for (const char *kind : {"valid", "zero-byte", "corrupt", "truncated", "fifo", "folder"})
            QTest::addRow("%s %s", kind, type.name)
                << type.type << QString(kind)
                << (QByteArray(kind) != "valid" && type.type != PlaylistItem::Gif);
    }
    QTest::newRow("8000x8000 picture") << int(PlaylistItem::Image) << "huge" << false;
}

void TestUntrusted::contentFiles()
{
    QFETCH(int, type);
    QFETCH(QString, kind);
    QFETCH(bool, endsAtOnce);
    const QString path = m_home->filePath("content");
    const QString made = m_home->filePath(type == PlaylistItem::Image ? "made.png"
                                          : type == PlaylistItem::Gif ? "made.gif"
                                                                      : "made.pdf");
    if (type == PlaylistItem::Image)
        QVERIFY(makeImage(made, QSize(64, 48), Qt::red, "PNG"));
    else if (type == PlaylistItem::Gif)
        QVERIFY(makeGif(made, 3));
    else
        QVERIFY(makePdf(made, {Qt::red, Qt::green}));
    const QByteArray good = readFile(made);
    if (kind == "valid")
        QVERIFY(writeFile(path, good));
    else if (kind == "zero-byte")
        QVERIFY(writeFile(path, QByteArray()));
    else if (kind == "corrupt")
        QVERIFY(writeFile(path, good.left(16) + QByteArray(4000, '\xa5')));
    else if (kind == "truncated")
        QVERIFY(writeFile(path, good.left(good.size() / 3)));
    else if (kind == "fifo")
        QCOMPARE(mkfifo(QFile::encodeName(path).constData(), 0600), 0);
    else if (kind == "folder")
        QVERIFY(QDir().mkpath(path));
    else
        QVERIFY(QImage(8000, 8000, QImage::Format_Mono).save(path, "PNG"));

    QWidget screen;
    screen.resize(640, 480);
    PlaylistItem item("file://" + path, PlaylistItem::Type(type), 5, false, QStringList());
    LogCapture log;
    std::unique_ptr<QWidget> widget;
    if (type == PlaylistItem::Image)
        widget = std::make_unique<Image>(&item, &screen);
    else if (type == PlaylistItem::Gif)
        widget = std::make_unique<Gif>(&item, &screen);
    else
        widget = std::make_unique<PDF>(&item, &screen);
    Runnable *content = Runnable::of(widget.get());
    QSignalSpy ended(content->notifier(), &RunnableNotifier::end);
    const bool started = content->start();
    QTest::qWait(200);
    QCOMPARE(!started || !ended.isEmpty(), endsAtOnce);
    if (kind != "valid" && kind != "huge")
        QTRY_VERIFY2(!log.lines().filter(path).isEmpty(), "no log line names the file");
    if (kind == "huge")
        QVERIFY(static_cast<Image *>(widget.get())->pixmap(Qt::ReturnByValue).width() <= 640);
}

void TestUntrusted::hiddenFilesAndOddNames()
{
    const QString dir = m_home->filePath("usb");
    for (const char *name : {"photo.png", "._photo.png", ".Trashes/t.png", "sub/b.png"})
        QVERIFY(makeImage(dir + "/" + name, QSize(8, 8), Qt::blue, "PNG"));
    const QByteArray odd = QFile::encodeName(dir) + "/caf\xe9.png";
    const int fd = ::open(odd.constData(), O_CREAT | O_WRONLY, 0644);
    QVERIFY(fd >= 0);
    const QByteArray png = readFile(dir + "/photo.png");
    QCOMPARE(::write(fd, png.constData(), png.size()), ssize_t(png.size()));
    ::close(fd);
    // A link left from a file that is gone since.
    const QString stale = m_home->filePath(".vorsane-kiosk/aliases/stale.png");
    QVERIFY(QDir().mkpath(QFileInfo(stale).path()));
    QVERIFY(QFile::link(dir + "/gone.png", stale));

    LogCapture log;
    const QString text
        = "#Vorsane playlist\nfile://" + dir + " 5\nfile://" + dir + "/caf%E9.png 5\n";
    FlatPlaylistParser parser(5, text);
    QStringList urls;
    for (const PlaylistItemPtr &item : parser.loop->items)
        urls << item->url;
    // A schedule naming it the same way plays it the same way.
    XmlPlaylistParser schedule(5,
                               "<schedule><loop id='0'><i uri='file://" + dir
                                   + "/caf%E9.png' type='image'/></loop></schedule>",
                               QStringLiteral("schedule"));
    const QString scheduled = schedule.getLoops().value(0)->items.value(0)->url;
    ::unlink(odd.constData());
    // The name that is not valid UTF-8 is played through a link to it, found in the folder and
    // named on its own line.
    QCOMPARE(urls.size(), 6);
    QVERIFY(log.contains("not valid UTF-8"));
    const QStringList aliases = urls.filter("/.vorsane-kiosk/aliases/");
    QCOMPARE(aliases.size(), 2);
    QVERIFY(aliases.first().endsWith(".png"));
    QVERIFY(!QFileInfo(stale).isSymLink());
    QVERIFY2(aliases.contains(scheduled), qPrintable(scheduled));
    urls = urls.filter(QRegularExpression("/(photo|b)\\.png$"));
    QCOMPARE(urls, QStringList({"file://" + dir + "/photo.png", "file://" + dir + "/sub/b.png"}));
}

QTEST_MAIN(TestUntrusted)
#include "tst_untrusted.moc"
