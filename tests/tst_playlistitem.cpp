#include "playlistitem.h"
#include "testsupport.h"

#include <QDomDocument>
#include <QtTest>

using namespace testsupport;

Q_DECLARE_METATYPE(PlaylistItem::Type)

class TestPlaylistItem : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void typeNumbersAndNames_data();
    void typeNumbersAndNames();
    void guessType_data();
    void guessType();
    void explicitTypeIsKept();
    void desktopLink_data();
    void desktopLink();
    void fromXmlNode_data();
    void fromXmlNode();
    void fromXmlNodeWithoutNode();
    void idleItem();

private:
    QTemporaryDir m_media;
    bool m_haveVideo = false;
};

void TestPlaylistItem::initTestCase()
{
    QVERIFY(m_media.isValid());
    const QString dir = m_media.path();
    QVERIFY(makeImage(dir + "/photo.png", QSize(8, 8), Qt::red));
    QVERIFY(makeImage(dir + "/photo.jpg", QSize(8, 8), Qt::green));
    // No extension: only the content tells what it is.
    QVERIFY(makeImage(dir + "/png-without-extension", QSize(8, 8), Qt::blue, "PNG"));
    QVERIFY(makePdf(dir + "/leaflet.pdf", 2));
    QVERIFY(makePdf(dir + "/pdf-without-extension", 1));
    QVERIFY(writeFile(dir + "/notes.txt", "plain words\n"));
    QVERIFY(writeFile(dir + "/page.html", "<html><body>hello</body></html>\n"));
    QVERIFY(writeFile(dir + "/blob.bin", QByteArray("\x00\x01\x02\x03\xfe\xff", 6)));
    QVERIFY(writeFile(dir + "/app.desktop",
                      "[Desktop Entry]\nType=Application\nName=Clock\nExec=xclock\n"));
    QVERIFY(QDir().mkpath(dir + "/folder"));
    m_haveVideo = makeVideo(dir + "/clip.mp4", 1) && makeGif(dir + "/anim.gif", 3);
}

void TestPlaylistItem::typeNumbersAndNames_data()
{
    QTest::addColumn<PlaylistItem::Type>("type");
    QTest::addColumn<int>("number");
    QTest::addColumn<QString>("name");

    QTest::newRow("guess") << PlaylistItem::Guess << -1 << QString();
    QTest::newRow("remote") << PlaylistItem::Remote << 0 << "Remote";
    QTest::newRow("video") << PlaylistItem::Video << 1 << "Video";
    QTest::newRow("gif") << PlaylistItem::Gif << 2 << "Gif";
    QTest::newRow("image") << PlaylistItem::Image << 3 << "Image";
    QTest::newRow("pdf") << PlaylistItem::PDF << 4 << "PDF";
    QTest::newRow("desktop link has no name") << PlaylistItem::DesktopLink << 5 << QString();
    QTest::newRow("webpage") << PlaylistItem::Webpage << 6 << "Webpage";
    QTest::newRow("document") << PlaylistItem::Document << 7 << "Document";
    QTest::newRow("directory has no name") << PlaylistItem::Directory << 8 << QString();
    QTest::newRow("idle") << PlaylistItem::Idle << 9 << "Idle";
    QTest::newRow("maintenance has no name") << PlaylistItem::Maintenance << 10 << QString();
    QTest::newRow("not supported") << PlaylistItem::NotSupported << 11 << "Not Supported";
}

void TestPlaylistItem::typeNumbersAndNames()
{
    QFETCH(PlaylistItem::Type, type);
    QFETCH(int, number);
    QFETCH(QString, name);

    QCOMPARE(int(type), number);
    PlaylistItem::initStrings();
    PlaylistItem::initStrings(); // a second call changes nothing
    QCOMPARE(PlaylistItem::typeToStr(type), name);
}

void TestPlaylistItem::guessType_data()
{
    QTest::addColumn<QString>("url");
    QTest::addColumn<PlaylistItem::Type>("expected");
    QTest::addColumn<bool>("needsVideo");

    const QString dir = "file://" + m_media.path();
    QTest::newRow("local png") << dir + "/photo.png" << PlaylistItem::Image << false;
    QTest::newRow("local jpeg") << dir + "/photo.jpg" << PlaylistItem::Image << false;
    QTest::newRow("image recognised by content")
        << dir + "/png-without-extension" << PlaylistItem::Image << false;
    QTest::newRow("local pdf") << dir + "/leaflet.pdf" << PlaylistItem::PDF << false;
    QTest::newRow("pdf recognised by content")
        << dir + "/pdf-without-extension" << PlaylistItem::PDF << false;
    QTest::newRow("local video") << dir + "/clip.mp4" << PlaylistItem::Video << true;
    QTest::newRow("local gif") << dir + "/anim.gif" << PlaylistItem::Gif << true;
    QTest::newRow("plain text shown as a page")
        << dir + "/notes.txt" << PlaylistItem::Webpage << false;
    QTest::newRow("html file") << dir + "/page.html" << PlaylistItem::Webpage << false;
    QTest::newRow("unknown binary shown as a page")
        << dir + "/blob.bin" << PlaylistItem::Webpage << false;
    QTest::newRow("existing directory") << dir + "/folder" << PlaylistItem::Directory << false;
    QTest::newRow("desktop entry without URL")
        << dir + "/app.desktop" << PlaylistItem::DesktopLink << false;
    QTest::newRow("missing file judged by name")
        << "file:///nowhere/poster.png" << PlaylistItem::Image << false;
    QTest::newRow("missing audio file")
        << "file:///nowhere/song.mp3" << PlaylistItem::Video << false;
    QTest::newRow("office document shown as a page")
        << "file:///nowhere/sheet.ods" << PlaylistItem::Webpage << false;
    QTest::newRow("https pdf is a page")
        << "https://example.com/leaflet.pdf" << PlaylistItem::Webpage << false;
    QTest::newRow("http image is a page")
        << "http://example.com/photo.jpg" << PlaylistItem::Webpage << false;
    QTest::newRow("rtsp stream") << "rtsp://camera.lan/stream" << PlaylistItem::Video << false;
    QTest::newRow("vlc stream") << "vlc://anything" << PlaylistItem::Video << false;
    QTest::newRow("resource image") << "file://:/demo/demo.jpg" << PlaylistItem::Image << false;
    QTest::newRow("empty url") << QString() << PlaylistItem::Webpage << false;
    QTest::newRow("text that is no url") << "::: %%% :::" << PlaylistItem::Webpage << false;
}

void TestPlaylistItem::guessType()
{
    QFETCH(QString, url);
    QFETCH(PlaylistItem::Type, expected);
    QFETCH(bool, needsVideo);
    if (needsVideo && !m_haveVideo)
        QSKIP("ffmpeg could not make the media file");

    LogCapture log;
    const PlaylistItem item(url, PlaylistItem::Guess, 7, false, {"a", "b"});
    QCOMPARE(item.type, expected);
    QCOMPARE(item.url, url);
    QCOMPARE(item.duration, 7);
    QCOMPARE(item.parameters, QStringList({"a", "b"}));
    QVERIFY(log.contains("Guessing Type"));
    const bool mimeLooked = !url.startsWith("http") && !url.startsWith("rtsp")
                            && !url.startsWith("vlc") && expected != PlaylistItem::Directory;
    QCOMPARE(log.contains("mime:"), mimeLooked);
}

void TestPlaylistItem::explicitTypeIsKept()
{
    LogCapture log;
    const PlaylistItem item("file://" + m_media.path() + "/photo.png", PlaylistItem::Document, 9,
                            true, {});
    QCOMPARE(item.type, PlaylistItem::Document);
    QCOMPARE(item.href, true);
    QVERIFY(!log.contains("Guessing Type"));
}

void TestPlaylistItem::desktopLink_data()
{
    QTest::addColumn<QString>("fileName");
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<PlaylistItem::Type>("given");
    QTest::addColumn<QString>("expectedUrl");
    QTest::addColumn<PlaylistItem::Type>("expectedType");

    QTest::newRow("web link") << "site.desktop"
                              << QByteArray(
                                     "[Desktop Entry]\nType=Link\nURL=http://example.com/x\n")
                              << PlaylistItem::Guess << "http://example.com/x"
                              << PlaylistItem::Webpage;
    QTest::newRow("windows shortcut keeps its carriage return")
        << "site.url" << QByteArray("[InternetShortcut]\r\nURL=https://example.com/a\r\n")
        << PlaylistItem::Guess << "https://example.com/a\r" << PlaylistItem::Webpage;
    QTest::newRow("link to a local pdf")
        << "doc.desktop"
        << "[Desktop Entry]\nType=Link\nURL=file://" + m_media.path().toUtf8() + "/leaflet.pdf\n"
        << PlaylistItem::Guess << "file://" + m_media.path() + "/leaflet.pdf" << PlaylistItem::PDF;
    QTest::newRow("later L= cuts the address")
        << "query.desktop" << QByteArray("[Desktop Entry]\nURL=http://example.com/?SEL=1\n")
        << PlaylistItem::Guess << "http://example.com/?SE" << PlaylistItem::Webpage;
    QTest::newRow("earlier key ending in L decides")
        << "icon.desktop" << QByteArray("[Desktop Entry]\nICONURL=notes\nURL=http://example.com/\n")
        << PlaylistItem::Guess << "notesUR" << PlaylistItem::Webpage;
    QTest::newRow("explicit desktop link type")
        << "forced.txt" << QByteArray("URL=rtsp://camera.lan/live\n") << PlaylistItem::DesktopLink
        << "rtsp://camera.lan/live" << PlaylistItem::Video;
}

void TestPlaylistItem::desktopLink()
{
    QFETCH(QString, fileName);
    QFETCH(QByteArray, content);
    QFETCH(PlaylistItem::Type, given);
    QFETCH(QString, expectedUrl);
    QFETCH(PlaylistItem::Type, expectedType);

    const QString path = m_media.path() + "/links/" + fileName;
    QVERIFY(writeFile(path, content));
    LogCapture log;
    const PlaylistItem item("file://" + path, given, 5, false, {});
    QCOMPARE(item.url, expectedUrl);
    QCOMPARE(item.type, expectedType);
    QCOMPARE(log.count("Converting in Url"), 1);
}

void TestPlaylistItem::fromXmlNode_data()
{
    QTest::addColumn<QString>("xml");
    QTest::addColumn<QString>("url");
    QTest::addColumn<PlaylistItem::Type>("type");
    QTest::addColumn<int>("duration");
    QTest::addColumn<bool>("href");
    QTest::addColumn<QStringList>("parameters");

    const QString web = "http://example.com/";
    QTest::newRow("video without time plays to its end")
        << "<item uri='http://example.com/' type='video'/>" << web << PlaylistItem::Video << 0
        << false << QStringList();
    QTest::newRow("audio is a video") << "<item uri='http://example.com/' type='audio'/>" << web
                                      << PlaylistItem::Video << 0 << false << QStringList();
    QTest::newRow("image without time") << "<item uri='http://example.com/' type='image'/>" << web
                                        << PlaylistItem::Image << 5 << false << QStringList();
    QTest::newRow("guessed video keeps five seconds")
        << "<item uri='file:///nowhere/clip.mp4'/>"
        << "file:///nowhere/clip.mp4" << PlaylistItem::Video << 5 << false << QStringList();
    QTest::newRow("gif") << "<media uri='http://example.com/' type='gif' time='12'/>" << web
                         << PlaylistItem::Gif << 12 << false << QStringList();
    QTest::newRow("pdf") << "<x uri='http://example.com/' type='pdf'/>" << web << PlaylistItem::PDF
                         << 5 << false << QStringList();
    QTest::newRow("document") << "<x uri='http://example.com/' type='document'/>" << web
                              << PlaylistItem::Document << 5 << false << QStringList();
    QTest::newRow("url") << "<x uri='file:///nowhere/a.png' type='url'/>"
                         << "file:///nowhere/a.png" << PlaylistItem::Webpage << 5 << false
                         << QStringList();
    QTest::newRow("type names are case-sensitive")
        << "<x uri='file:///nowhere/a.pdf' type='Image'/>"
        << "file:///nowhere/a.pdf" << PlaylistItem::PDF << 5 << false << QStringList();
    QTest::newRow("unknown type name is guessed")
        << "<x uri='rtsp://cam/live' type='flash'/>"
        << "rtsp://cam/live" << PlaylistItem::Video << 5 << false << QStringList();
    QTest::newRow("type parameter overrides the attribute")
        << "<x uri='http://example.com/' type='image' parameters='a;;type:pdf;b'/>" << web
        << PlaylistItem::PDF << 5 << false << QStringList({"a", "", "type:pdf", "b"});
    QTest::newRow("type parameter without attribute is ignored")
        << "<x uri='http://example.com/' parameters='a;;type:pdf;b'/>" << web
        << PlaylistItem::Webpage << 5 << false << QStringList({"a", "", "type:pdf", "b"});
    QTest::newRow("later type parameter wins")
        << "<x uri='http://example.com/' type='image' parameters='type:pdf;type:gif'/>" << web
        << PlaylistItem::Gif << 5 << false << QStringList({"type:pdf", "type:gif"});
    QTest::newRow("empty type parameter leaves the attribute")
        << "<x uri='http://example.com/' type='gif' parameters='type:'/>" << web
        << PlaylistItem::Gif << 5 << false << QStringList({"type:"});
    QTest::newRow("empty parameters give one empty entry")
        << "<x uri='http://example.com/' type='url' parameters=''/>" << web << PlaylistItem::Webpage
        << 5 << false << QStringList({""});
    QTest::newRow("href one") << "<x uri='http://example.com/' type='url' href='1'/>" << web
                              << PlaylistItem::Webpage << 5 << true << QStringList();
    QTest::newRow("href true is not one")
        << "<x uri='http://example.com/' type='url' href='true'/>" << web << PlaylistItem::Webpage
        << 5 << false << QStringList();
    QTest::newRow("time not a number") << "<x uri='http://example.com/' type='image' time='ten'/>"
                                       << web << PlaylistItem::Image << 0 << false << QStringList();
    QTest::newRow("time given for a video")
        << "<x uri='http://example.com/' type='video' time='30'/>" << web << PlaylistItem::Video
        << 30 << false << QStringList();
    QTest::newRow("maintenance ignores time and href")
        << "<x uri='http://example.com/update.zip' type='maintenance' time='40' href='1' "
           "parameters='p1;p2'/>"
        << "http://example.com/update.zip" << PlaylistItem::Maintenance << 0 << false
        << QStringList({"p1", "p2"});
    QTest::newRow("maintenance through a type parameter")
        << "<x uri='http://example.com/' type='url' parameters='type:maintenance'/>" << web
        << PlaylistItem::Maintenance << 0 << false << QStringList({"type:maintenance"});
    QTest::newRow("no attributes")
        << "<item/>" << QString() << PlaylistItem::Webpage << 5 << false << QStringList();
    QTest::newRow("content and element name ignored")
        << "<anything uri='http://example.com/'>text <child uri='x'/></anything>" << web
        << PlaylistItem::Webpage << 5 << false << QStringList();
}

void TestPlaylistItem::fromXmlNode()
{
    QFETCH(QString, xml);
    QFETCH(QString, url);
    QFETCH(PlaylistItem::Type, type);
    QFETCH(int, duration);
    QFETCH(bool, href);
    QFETCH(QStringList, parameters);

    QDomDocument document;
    QVERIFY(document.setContent(xml));
    QDomNode node = document.documentElement();
    const PlaylistItemPtr item(PlaylistItem::fromXmlNode(&node));
    QCOMPARE(item->url, url);
    QCOMPARE(item->type, type);
    QCOMPARE(item->duration, duration);
    QCOMPARE(item->href, href);
    QCOMPARE(item->parameters, parameters);
}

void TestPlaylistItem::fromXmlNodeWithoutNode()
{
    QDomNode empty;
    const PlaylistItemPtr fromEmpty(PlaylistItem::fromXmlNode(&empty));
    QVERIFY(fromEmpty->url.isEmpty());
    const PlaylistItemPtr fromNull(PlaylistItem::fromXmlNode(nullptr));
    QVERIFY(fromNull->url.isEmpty());
    QCOMPARE(fromNull->duration, 5);
    QVERIFY(fromNull->type != PlaylistItem::Guess);
}

void TestPlaylistItem::idleItem()
{
    const PlaylistItemPtr item(PlaylistItem::idle());
    QVERIFY(item->url.isEmpty());
    QCOMPARE(item->type, PlaylistItem::Idle);
    QCOMPARE(item->duration, 60);
    QCOMPARE(item->href, false);
    QVERIFY(item->parameters.isEmpty());
    const PlaylistItemPtr other(PlaylistItem::idle());
    QVERIFY(other != item);
}

QTEST_MAIN(TestPlaylistItem)
#include "tst_playlistitem.moc"
