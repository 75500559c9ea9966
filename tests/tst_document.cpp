#include "document.h"
#include "playlistitem.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QWebFrame>
#include <QtTest>

using namespace testsupport;

class TestDocument : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void parseTemplate_data();
    void parseTemplate();
    void cachedImagesAreShown();
    void missingFileEndsAtStart();
    void durationEndsTheDocument();
    void untimedDocumentStays();
    void noContextMenuAndRightClick();
};

void TestDocument::parseTemplate_data()
{
    QTest::addColumn<QString>("html");
    QTest::addColumn<QString>("expected");

    const QString base = "file:///home/pi/.vorsane-kiosk/data/";
    // "logo.png" and "ab?" in the cache's naming: Base64, "/" turned into "-".
    const QString logo = base + "bG9nby5wbmc=";
    const QString question = base + "YWI-";

    QTest::newRow("no tag") << "<p>plain</p>"
                            << "<p>plain</p>";
    QTest::newRow("tag without attributes") << "<p><limage>logo.png</limage></p>"
                                            << "<p><img src=\"" + logo + "\" \"\"/></p>";
    QTest::newRow("attributes in extra quotes") << "<limage width=\"10\">logo.png</limage>"
                                                << "<img src=\"" + logo + "\" \" width=\"10\"\"/>";
    QTest::newRow("two tags, in order")
        << "<limage a>logo.png</limage> and <limage b>ab?</limage>"
        << "<img src=\"" + logo + "\" \" a\"/> and <img src=\"" + question + "\" \" b\"/>";
    QTest::newRow("slash in the cache name") << "<limage>ab?</limage>"
                                             << "<img src=\"" + question + "\" \"\"/>";
    QTest::newRow("name in UTF-8")
        << QString::fromUtf8("<limage>é</limage>") << "<img src=\"" + base + "w6k=\" \"\"/>";
    QTest::newRow("empty name is left alone") << "<limage></limage>"
                                              << "<limage></limage>";
    QTest::newRow("unclosed tag is left alone") << "<limage>logo.png"
                                                << "<limage>logo.png";
    QTest::newRow("upper-case tag is left alone") << "<LIMAGE>logo.png</LIMAGE>"
                                                  << "<LIMAGE>logo.png</LIMAGE>";
    QTest::newRow("percent signs in attributes")
        << "<limage alt=\"%1 %2\">logo.png</limage>"
        << "<img src=\"" + logo + "\" \" alt=\"%1 %2\"\"/>";
}

void TestDocument::parseTemplate()
{
    QFETCH(QString, html);
    QFETCH(QString, expected);
    QString base = "file:///home/pi/.vorsane-kiosk/data/";
    Document::parseTemplate(html, base);
    QCOMPARE(html, expected);
}

void TestDocument::cachedImagesAreShown()
{
    TempHome home;
    const QString data = home.stateDir() + "/data/";
    QVERIFY(QDir().mkpath(data));
    QVERIFY(makeImage(data + QString::fromLatin1(QByteArray("logo.png").toBase64()), QSize(7, 5),
                      Qt::red, "PNG"));
    QVERIFY(makeImage(data + "YWI-", QSize(3, 2), Qt::blue, "PNG"));
    const QString path = home.filePath("page.html");
    QVERIFY(writeFile(path, "<html><body><p id=\"t\">Caf\xc3\xa9</p>"
                            "<limage id=\"a\">logo.png</limage><limage>ab?</limage>"
                            "</body></html>"));

    PlaylistItem item("file://" + path, PlaylistItem::Document, 10, false, {});
    Document document(&item, nullptr);
    QSignalSpy loaded(&document, &QWebView::loadFinished);
    QVERIFY(document.start());
    QVERIFY(loaded.wait(10000));
    QCOMPARE(loaded.first().first().toBool(), true);

    QWebFrame *frame = document.page()->mainFrame();
    QCOMPARE(frame->baseUrl(), QUrl("file://" + home.path() + "/.vorsane-kiosk/data/"));
    QCOMPARE(frame->evaluateJavaScript("document.images.length").toInt(), 2);
    QCOMPARE(frame->evaluateJavaScript("document.images[0].naturalWidth").toInt(), 7);
    QCOMPARE(frame->evaluateJavaScript("document.images[1].naturalWidth").toInt(), 3);
    QCOMPARE(frame->evaluateJavaScript("document.getElementById('t').textContent").toString(),
             QString::fromUtf8("Café"));
    document.Runnable::stop();
}

void TestDocument::missingFileEndsAtStart()
{
    TempHome home;
    PlaylistItem item("file://" + home.filePath("gone.html"), PlaylistItem::Document, 10, false,
                      {});
    Document document(&item, nullptr);
    QSignalSpy end(&document, &Document::end);
    QVERIFY(!document.start());
    QCOMPARE(end.count(), 1);
    QVERIFY(!document.isActive());
}

void TestDocument::durationEndsTheDocument()
{
    TempHome home;
    const QString path = home.filePath("short.html");
    QVERIFY(writeFile(path, "<p>short</p>"));
    PlaylistItem item("file://" + path, PlaylistItem::Document, 1, false, {});
    Document document(&item, nullptr);
    QSignalSpy end(&document, &Document::end);

    QElapsedTimer clock;
    clock.start();
    QVERIFY(document.start());
    QVERIFY(document.isActive());
    QVERIFY(end.wait(5000));
    QVERIFY(clock.elapsed() >= 900);
    QCOMPARE(end.count(), 1);
    // The display time is over: the base stopped it, no second end follows.
    QVERIFY(!document.isActive());
    QVERIFY(!end.wait(1500));
}

void TestDocument::untimedDocumentStays()
{
    TempHome home;
    const QString path = home.filePath("still.html");
    QVERIFY(writeFile(path, "<p>still</p>"));
    PlaylistItem item("file://" + path, PlaylistItem::Document, 0, false, {});
    Document document(&item, nullptr);
    QSignalSpy end(&document, &Document::end);
    QVERIFY(document.start());
    QVERIFY(!end.wait(1500));
    document.Runnable::stop();
    QCOMPARE(end.count(), 0);
}

void TestDocument::noContextMenuAndRightClick()
{
    PlaylistItem item("file:///nowhere.html", PlaylistItem::Document, 10, false, {});
    Document document(&item, nullptr);
    QCOMPARE(document.contextMenuPolicy(), Qt::PreventContextMenu);

    QSignalSpy rightclick(&document, &Document::rightclick);
    QTest::mouseClick(&document, Qt::LeftButton);
    QTest::mouseClick(&document, Qt::MiddleButton);
    QCOMPARE(rightclick.count(), 0);
    QTest::mouseClick(&document, Qt::RightButton);
    QCOMPARE(rightclick.count(), 1);
}

QTEST_MAIN(TestDocument)
#include "tst_document.moc"
