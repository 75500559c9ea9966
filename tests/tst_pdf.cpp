#include "commandlineparser.h"
#include "pdf.h"
#include "playlistitem.h"
#include "settings.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QPageSize>
#include <QPainter>
#include <QPdfWriter>
#include <QSignalSpy>
#include <QtTest>

#include <memory>

using namespace testsupport;

namespace {
const QList<QColor> pageColours{Qt::red, Qt::green, Qt::blue};

// A PDF whose pages have the given size and are filled with red, green, blue, red, ...
bool makeColouredPdf(const QString &path, const QSizeF &inches, int pages)
{
    QPdfWriter writer(path);
    writer.setResolution(72);
    writer.setPageSize(QPageSize(inches, QPageSize::Inch));
    writer.setPageMargins(QMarginsF(0, 0, 0, 0));
    QPainter painter(&writer);
    if (!painter.isActive())
        return false;
    for (int page = 0; page < pages; ++page) {
        if (page > 0)
            writer.newPage();
        painter.fillRect(QRectF(QPointF(0, 0), inches * 72), pageColours.at(page % 3));
    }
    return painter.end();
}

QColor centreColour(const PDF &pdf)
{
    const QImage image = pdf.pixmap(Qt::ReturnByValue).toImage();
    if (image.isNull())
        return QColor();
    return image.pixelColor(image.width() / 2, image.height() / 2);
}

bool similar(const QColor &a, const QColor &b)
{
    return qAbs(a.red() - b.red()) < 16 && qAbs(a.green() - b.green()) < 16
           && qAbs(a.blue() - b.blue()) < 16;
}
} // namespace

class TestPdf : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void pagesFollowInOrder();
    void everyPageLastsTheDuration_data();
    void everyPageLastsTheDuration();
    void unreadableFileEndsAtStart_data();
    void unreadableFileEndsAtStart();
    void pageFitting_data();
    void pageFitting();
    void rightClick();

private:
    QString pdfPath(const QString &name) const { return m_home.filePath(name); }

    TempHome m_home;
    FakePrograms m_fakes;
    std::unique_ptr<CommandLineParser> m_parser;
    Settings *m_settings = nullptr;
};

void TestPdf::initTestCase()
{
    m_fakes.add("launchdock");
    m_parser = makeParser(m_home.path());
    m_settings = Settings::load(true, m_parser.get());
}

void TestPdf::init()
{
    m_settings->set("slideshow/stretch", false);
    m_settings->set("slideshow/resize", true);
}

void TestPdf::pagesFollowInOrder()
{
    const QString path = pdfPath("three.pdf");
    QVERIFY(makeColouredPdf(path, QSizeF(2, 1), 3));
    QWidget area;
    area.resize(400, 300);
    PlaylistItem item("file://" + path, PlaylistItem::PDF, 10, false, {});
    PDF pdf(&item, &area);
    QSignalSpy end(&pdf, &PDF::end);

    for (const QColor &colour : pageColours) {
        QVERIFY(pdf.nextPage());
        QVERIFY2(similar(centreColour(pdf), colour), qPrintable(centreColour(pdf).name()));
        QCOMPARE(end.count(), 0);
    }
    QVERIFY(!pdf.nextPage());
    QCOMPARE(end.count(), 1);
}

void TestPdf::everyPageLastsTheDuration_data()
{
    QTest::addColumn<int>("pages");
    QTest::addColumn<bool>("resize");

    QTest::newRow("one page") << 1 << true;
    QTest::newRow("two pages") << 2 << true;
    // A4 at 100 dpi is larger than the area: a black page, shown for its time all the same.
    QTest::newRow("black page") << 1 << false;
}

void TestPdf::everyPageLastsTheDuration()
{
    QFETCH(int, pages);
    QFETCH(bool, resize);
    m_settings->set("slideshow/resize", resize);

    const QString path = pdfPath("timed.pdf");
    QVERIFY(makeColouredPdf(path, QSizeF(8.27, 11.69), pages));
    QWidget area;
    area.resize(320, 240);
    PlaylistItem item("file://" + path, PlaylistItem::PDF, 1, false, {});
    PDF pdf(&item, &area);
    QSignalSpy end(&pdf, &PDF::end);

    QElapsedTimer clock;
    clock.start();
    QVERIFY(pdf.start());
    QCOMPARE(pdf.pixmap(Qt::ReturnByValue).isNull(), !resize);
    if (pages > 1)
        QTRY_VERIFY_WITH_TIMEOUT(similar(centreColour(pdf), Qt::green), 3000);

    QVERIFY(end.wait(pages * 1000 + 3000));
    QVERIFY2(clock.elapsed() >= pages * 1000 - 100, qPrintable(QString::number(clock.elapsed())));
    QCOMPARE(end.count(), 1);
    pdf.stop();
}

void TestPdf::unreadableFileEndsAtStart_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("content");

    QTest::newRow("missing file") << "missing.pdf" << QByteArray();
    QTest::newRow("empty file") << "empty.pdf" << QByteArray("");
    QTest::newRow("corrupt file") << "corrupt.pdf"
                                  << QByteArray("%PDF-1.4\n1 0 obj << /Type /Catalog >>\n%%EOF\n");
    QTest::newRow("not a pdf") << "image.pdf" << QByteArray("\x89PNG\r\n\x1a\n0000");
}

void TestPdf::unreadableFileEndsAtStart()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, content);
    const QString path = pdfPath(name);
    QFile::remove(path);
    if (!content.isNull())
        QVERIFY(writeFile(path, content));

    QWidget area;
    area.resize(320, 240);
    PlaylistItem item("file://" + path, PlaylistItem::PDF, 1, false, {});
    PDF pdf(&item, &area);
    QSignalSpy end(&pdf, &PDF::end);

    QVERIFY(!pdf.start());
    QCOMPARE(end.count(), 1);
    QVERIFY(!pdf.isActive());
}

void TestPdf::pageFitting_data()
{
    QTest::addColumn<QSize>("area");
    QTest::addColumn<QSizeF>("inches");
    QTest::addColumn<bool>("stretch");
    QTest::addColumn<bool>("resize");
    QTest::addColumn<QSize>("shown"); // empty: nothing but the black background

    QTest::newRow("stretch, small page")
        << QSize(400, 300) << QSizeF(2, 1) << true << true << QSize(400, 300);
    QTest::newRow("stretch, large page")
        << QSize(400, 300) << QSizeF(5, 5) << true << false << QSize(400, 300);
    QTest::newRow("resize, wide page")
        << QSize(400, 400) << QSizeF(2, 1) << false << true << QSize(400, 200);
    QTest::newRow("resize, tall page")
        << QSize(400, 300) << QSizeF(2, 4) << false << true << QSize(150, 300);
    QTest::newRow("resize, same proportions")
        << QSize(400, 200) << QSizeF(2, 1) << false << true << QSize(400, 200);
    QTest::newRow("resize, large page")
        << QSize(300, 300) << QSizeF(6, 3) << false << true << QSize(300, 150);
    QTest::newRow("unscaled, page fits")
        << QSize(400, 300) << QSizeF(2, 1) << false << false << QSize(200, 100);
    QTest::newRow("unscaled, page fills the area")
        << QSize(200, 100) << QSizeF(2, 1) << false << false << QSize(200, 100);
    QTest::newRow("unscaled, page too wide")
        << QSize(150, 300) << QSizeF(2, 1) << false << false << QSize();
    QTest::newRow("unscaled, page too tall")
        << QSize(400, 99) << QSizeF(2, 1) << false << false << QSize();
}

void TestPdf::pageFitting()
{
    QFETCH(QSize, area);
    QFETCH(QSizeF, inches);
    QFETCH(bool, stretch);
    QFETCH(bool, resize);
    QFETCH(QSize, shown);
    m_settings->set("slideshow/stretch", stretch);
    m_settings->set("slideshow/resize", resize);

    const QString path = pdfPath("sized.pdf");
    QVERIFY(makeColouredPdf(path, inches, 1));
    QWidget parent;
    parent.resize(area);
    PlaylistItem item("file://" + path, PlaylistItem::PDF, 10, false, {});
    PDF pdf(&item, &parent);

    QVERIFY(pdf.start());
    const QPixmap pixmap = pdf.pixmap(Qt::ReturnByValue);
    if (shown.isEmpty()) {
        QVERIFY(pixmap.isNull());
    } else {
        QCOMPARE(pixmap.size(), shown);
        QVERIFY(similar(centreColour(pdf), Qt::red));
    }
    QCOMPARE(pdf.alignment(), Qt::AlignCenter);
    QVERIFY(pdf.autoFillBackground());
    QCOMPARE(pdf.palette().color(QPalette::Active, QPalette::Window), QColor(Qt::black));
    QCOMPARE(pdf.palette().color(QPalette::Inactive, QPalette::Window), QColor(Qt::black));
    pdf.stop();
}

void TestPdf::rightClick()
{
    const QString path = pdfPath("click.pdf");
    QVERIFY(makePdf(path, 1));
    QWidget area;
    area.resize(320, 240);
    PlaylistItem item("file://" + path, PlaylistItem::PDF, 10, false, {});
    PDF pdf(&item, &area);
    QSignalSpy rightclick(&pdf, &PDF::rightclick);
    QSignalSpy end(&pdf, &PDF::end);

    QTest::mouseClick(&pdf, Qt::LeftButton);
    QCOMPARE(rightclick.count(), 0);
    QTest::mouseClick(&pdf, Qt::RightButton);
    QCOMPARE(rightclick.count(), 1);
    QCOMPARE(end.count(), 0);
}

QTEST_MAIN(TestPdf)
#include "tst_pdf.moc"
