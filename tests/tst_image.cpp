#include "image.h"
#include "playlistitem.h"
#include "resources.h"
#include "settings.h"
#include "testsupport.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QGuiApplication>
#include <QMouseEvent>
#include <QPainter>
#include <QScreen>
#include <QScrollArea>
#include <QScrollBar>
#include <QSignalSpy>
#include <QtTest>

using namespace testsupport;

namespace {
// Every column (or row) of the picture carries its own index in red and green, so a grab tells
// which part of the picture is on screen.
QString makeRuler(const QString &path, const QSize &size, Qt::Orientation orientation)
{
    QImage image(size, QImage::Format_RGB32);
    for (int y = 0; y < size.height(); ++y) {
        for (int x = 0; x < size.width(); ++x) {
            const int index = orientation == Qt::Horizontal ? x : y;
            image.setPixel(x, y, qRgb(index % 256, index / 256, 255));
        }
    }
    image.save(path, "PNG");
    return QStringLiteral("file://") + path;
}

int rulerIndex(const QImage &grab, const QPoint &at)
{
    const QRgb pixel = grab.pixel(at);
    return qRed(pixel) + 256 * qGreen(pixel);
}

void setOptions(bool resize, bool stretch, bool autoScroll)
{
    Settings *settings = Settings::load(false, nullptr);
    settings->set(QStringLiteral("slideshow/resize"), resize);
    settings->set(QStringLiteral("slideshow/stretch"), stretch);
    settings->set(QStringLiteral("slideshow/auto_scroll"), autoScroll);
}

QList<int> values(const QSignalSpy &spy)
{
    QList<int> result;
    for (const QList<QVariant> &arguments : spy)
        result << arguments.first().toInt();
    return result;
}
} // namespace

class TestImage : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void fitting_data();
    void fitting();
    void pictureIsCentredOnBlack();
    void builtInPictures_data();
    void builtInPictures();
    void unusablePictureEndsAtStart_data();
    void unusablePictureEndsAtStart();
    void scrollsBackAndForth_data();
    void scrollsBackAndForth();
    void scrolledPictureSlidesOnScreen();
    void pauseLeavesScrollingOn();
    void displayTimeEndsScrolling();
    void stopBeforeScrollStartKeepsPictureStill();
    void mousePresses();

private:
    std::unique_ptr<TempHome> m_home;
    QSize m_screen;
};

void TestImage::initTestCase()
{
    m_home = std::make_unique<TempHome>();
    initResources();
    m_screen = QGuiApplication::primaryScreen()->geometry().size();
    QVERIFY(m_screen.width() > 100 && m_screen.height() > 100);
}

void TestImage::init()
{
    setOptions(true, false, false);
}

void TestImage::fitting_data()
{
    QTest::addColumn<bool>("resize");
    QTest::addColumn<bool>("stretch");
    QTest::addColumn<bool>("autoScroll");
    QTest::addColumn<QSize>("picture");
    QTest::addColumn<QSize>("shown");

    // The area is 800x600 throughout.
    QTest::newRow("exact area size, all options off")
        << false << false << false << QSize(800, 600) << QSize(800, 600);
    QTest::newRow("small picture shown at its own size")
        << false << false << false << QSize(400, 200) << QSize(400, 200);
    QTest::newRow("large picture only shrunk, ratio kept")
        << false << false << false << QSize(1600, 600) << QSize(800, 300);
    QTest::newRow("tall picture only shrunk, ratio kept")
        << false << false << false << QSize(300, 1200) << QSize(150, 600);
    QTest::newRow("resize enlarges a small picture, ratio kept")
        << true << false << false << QSize(400, 200) << QSize(800, 400);
    QTest::newRow("resize shrinks a large picture, ratio kept")
        << true << false << false << QSize(1000, 1500) << QSize(400, 600);
    QTest::newRow("stretch fills the area, ratio ignored")
        << false << true << false << QSize(400, 200) << QSize(800, 600);
    QTest::newRow("resize wins over stretch")
        << true << true << false << QSize(400, 200) << QSize(800, 400);
    QTest::newRow("auto scroll, fitting picture unscaled despite resize")
        << true << false << true << QSize(400, 200) << QSize(400, 200);
    QTest::newRow("auto scroll, exact area size")
        << false << true << true << QSize(800, 600) << QSize(800, 600);
}

void TestImage::fitting()
{
    QFETCH(bool, resize);
    QFETCH(bool, stretch);
    QFETCH(bool, autoScroll);
    QFETCH(QSize, picture);
    QFETCH(QSize, shown);

    const QString path = m_home->filePath(QStringLiteral("picture.png"));
    QVERIFY(makeImage(path, picture, Qt::red));
    setOptions(resize, stretch, autoScroll);
    QWidget area;
    area.resize(800, 600);
    PlaylistItem item(QStringLiteral("file://") + path, PlaylistItem::Image, 5, false, {});
    Image image(&item, &area);

    QCOMPARE(image.pixmap(Qt::ReturnByValue).size(), shown);
    QVERIFY(!image.findChild<QScrollArea *>()->horizontalScrollBar()->maximum());
    QVERIFY(!image.findChild<QScrollArea *>()->verticalScrollBar()->maximum());
    QVERIFY(image.start());
    image.stop();
}

void TestImage::pictureIsCentredOnBlack()
{
    const QString path = m_home->filePath(QStringLiteral("small.png"));
    QVERIFY(makeImage(path, QSize(200, 100), Qt::red));
    setOptions(false, false, false);
    QWidget area;
    area.resize(800, 600);
    PlaylistItem item(QStringLiteral("file://") + path, PlaylistItem::Image, 5, false, {});
    Image image(&item, &area);
    image.resize(area.size());

    const QImage grab = image.grab().toImage();
    QCOMPARE(grab.pixelColor(400, 300), QColor(Qt::red));
    QCOMPARE(grab.pixelColor(301, 251), QColor(Qt::red));
    QCOMPARE(grab.pixelColor(299, 249), QColor(Qt::black));
    QCOMPARE(grab.pixelColor(5, 5), QColor(Qt::black));
    QCOMPARE(grab.pixelColor(795, 595), QColor(Qt::black));
}

void TestImage::builtInPictures_data()
{
    QTest::addColumn<QString>("location");
    QTest::newRow("demo") << "file://:/demo/demo.jpg";
    QTest::newRow("nothing to display") << "file://:/image/nothing_to_display.png";
    QTest::newRow("usb warning") << "file://:/image/usb_auto_insert_warning.png";
}

void TestImage::builtInPictures()
{
    QFETCH(QString, location);

    QCOMPARE(QPixmap(location.mid(7)).size(), QSize(1280, 720));
    QWidget area;
    area.resize(800, 600);
    PlaylistItem item(location, PlaylistItem::Image, 3, false, {});
    Image image(&item, &area);
    QCOMPARE(image.pixmap(Qt::ReturnByValue).size(), QSize(800, 450));
    QVERIFY(image.start());
    image.stop();
}

void TestImage::unusablePictureEndsAtStart_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<bool>("autoScroll");
    QTest::newRow("missing file") << QByteArray() << false;
    QTest::newRow("not a picture") << QByteArray("GIF89a, but not really") << false;
    QTest::newRow("not a picture, auto scroll") << QByteArray("\x89PNG broken") << true;
}

void TestImage::unusablePictureEndsAtStart()
{
    QFETCH(QByteArray, content);
    QFETCH(bool, autoScroll);

    const QString path = m_home->filePath(QStringLiteral("unusable.png"));
    QFile::remove(path);
    if (!content.isEmpty())
        QVERIFY(writeFile(path, content));
    setOptions(true, false, autoScroll);
    QWidget area;
    area.resize(800, 600);
    PlaylistItem item(QStringLiteral("file://") + path, PlaylistItem::Image, 1, false, {});
    Image image(&item, &area);
    QSignalSpy ended(&image, &Image::end);

    QVERIFY(!image.start());
    QCOMPARE(ended.count(), 1);
    // With a display time, not active means no display timer was armed.
    QVERIFY(!image.isActive());
}

void TestImage::scrollsBackAndForth_data()
{
    QTest::addColumn<Qt::Orientation>("orientation");
    QTest::addColumn<int>("overflow");
    QTest::newRow("wide picture scrolls right") << Qt::Horizontal << 12;
    QTest::newRow("tall picture scrolls down") << Qt::Vertical << 8;
}

void TestImage::scrollsBackAndForth()
{
    QFETCH(Qt::Orientation, orientation);
    QFETCH(int, overflow);

    const QSize picture = orientation == Qt::Horizontal
                              ? QSize(m_screen.width() + overflow, m_screen.height())
                              : QSize(m_screen.width(), m_screen.height() + overflow);
    const QString path = m_home->filePath(QStringLiteral("ruler.png"));
    const QString location = makeRuler(path, picture, orientation);
    setOptions(true, false, true);
    QWidget area;
    area.resize(m_screen);
    PlaylistItem item(location, PlaylistItem::Image, 30, false, {});
    QElapsedTimer clock;
    clock.start();
    Image image(&item, &area);
    auto *scrollArea = image.findChild<QScrollArea *>();
    QVERIFY(scrollArea);
    QVERIFY(scrollArea->isHidden());
    QScrollBar *bar = orientation == Qt::Horizontal ? scrollArea->horizontalScrollBar()
                                                    : scrollArea->verticalScrollBar();
    QScrollBar *other = orientation == Qt::Horizontal ? scrollArea->verticalScrollBar()
                                                      : scrollArea->horizontalScrollBar();
    QSignalSpy moves(bar, &QScrollBar::valueChanged);
    QSignalSpy otherMoves(other, &QScrollBar::valueChanged);
    QVERIFY(image.start());

    QVERIFY(moves.wait(2000));
    // Half a second of stillness first.
    QVERIFY(clock.elapsed() >= 450);
    // To the far end, back to the start, and off again: one pixel per step.
    QList<int> expected;
    for (int p = 1; p <= overflow; ++p)
        expected << p;
    for (int p = overflow - 1; p >= 0; --p)
        expected << p;
    expected << 1 << 2;
    QTRY_VERIFY_WITH_TIMEOUT(moves.count() >= expected.size(), 10000);
    const qint64 elapsed = clock.elapsed();
    QCOMPARE(values(moves).mid(0, expected.size()), expected);
    // About 50 ms a step.
    QVERIFY2(elapsed >= 500 + 45 * (expected.size() - 1), qPrintable(QString::number(elapsed)));
    QCOMPARE(otherMoves.count(), 0);
    image.stop();
}

void TestImage::scrolledPictureSlidesOnScreen()
{
    const int overflow = 10;
    const QString path = m_home->filePath(QStringLiteral("wide.png"));
    // Twice the screen height: scaled down to the area's height, each shown pixel is two of the
    // picture's.
    const QString location = makeRuler(
        path, QSize(2 * (m_screen.width() + overflow), 2 * m_screen.height()), Qt::Horizontal);
    setOptions(false, false, true);
    QWidget area;
    area.resize(m_screen);
    PlaylistItem item(location, PlaylistItem::Image, 30, false, {});
    Image image(&item, &area);
    image.resize(area.size());
    // The whole picture never sits on the label: the window would grow with it.
    QVERIFY(image.pixmap(Qt::ReturnByValue).isNull());
    QVERIFY(image.minimumSizeHint().width() <= m_screen.width());
    QScrollBar *bar = image.findChild<QScrollArea *>()->horizontalScrollBar();
    const int middle = m_screen.height() / 2;
    const int right = m_screen.width() - 1;

    QVERIFY(rulerIndex(image.grab().toImage(), QPoint(0, middle)) <= 2);
    QVERIFY(image.start());
    QTRY_COMPARE(bar->value(), overflow);
    // The right end of the picture has reached the screen's right edge.
    const QImage atEnd = image.grab().toImage();
    QVERIFY(qAbs(rulerIndex(atEnd, QPoint(0, middle)) - 2 * overflow) <= 2);
    QVERIFY(qAbs(rulerIndex(atEnd, QPoint(right, middle)) - 2 * (right + overflow)) <= 2);
    QTRY_COMPARE(bar->value(), 0);
    QVERIFY(rulerIndex(image.grab().toImage(), QPoint(0, middle)) <= 2);
    image.stop();
}

void TestImage::pauseLeavesScrollingOn()
{
    const QString location
        = makeRuler(m_home->filePath(QStringLiteral("pause.png")),
                    QSize(m_screen.width() + 40, m_screen.height()), Qt::Horizontal);
    setOptions(true, false, true);
    QWidget area;
    area.resize(m_screen);
    PlaylistItem item(location, PlaylistItem::Image, 1, false, {});
    Image image(&item, &area);
    QSignalSpy ended(&image, &Image::end);
    QScrollBar *bar = image.findChild<QScrollArea *>()->horizontalScrollBar();
    QVERIFY(image.start());

    // Paused at once: only the display time stands still.
    QVERIFY(image.pause());
    QTRY_VERIFY(bar->value() >= 5);
    QVERIFY(!ended.wait(1300));
    QVERIFY(bar->value() >= 20);
    QVERIFY(!image.pause());
    QVERIFY(ended.wait(2000));
}

void TestImage::displayTimeEndsScrolling()
{
    const QString location
        = makeRuler(m_home->filePath(QStringLiteral("timeout.png")),
                    QSize(m_screen.width(), m_screen.height() + 200), Qt::Vertical);
    setOptions(false, false, true);
    QWidget area;
    area.resize(m_screen);
    PlaylistItem item(location, PlaylistItem::Image, 1, false, {});
    Image image(&item, &area);
    QSignalSpy ended(&image, &Image::end);
    QScrollBar *bar = image.findChild<QScrollArea *>()->verticalScrollBar();
    LogCapture log;
    QVERIFY(image.start());

    QVERIFY(ended.wait(3000));
    QCOMPARE(ended.count(), 1);
    QVERIFY(log.contains(QStringLiteral("onTimeoutImpl")));
    QVERIFY(log.contains(QStringLiteral("Stopping")));
    const int endedAt = bar->value();
    QVERIFY(endedAt > 0);
    QTest::qWait(300);
    QCOMPARE(bar->value(), endedAt);
    QCOMPARE(ended.count(), 1);
}

void TestImage::stopBeforeScrollStartKeepsPictureStill()
{
    const QString location
        = makeRuler(m_home->filePath(QStringLiteral("early.png")),
                    QSize(m_screen.width() + 50, m_screen.height()), Qt::Horizontal);
    setOptions(false, false, true);
    QWidget area;
    area.resize(m_screen);
    PlaylistItem item(location, PlaylistItem::Image, 10, false, {});
    Image image(&item, &area);
    QScrollBar *bar = image.findChild<QScrollArea *>()->horizontalScrollBar();
    QSignalSpy moves(bar, &QScrollBar::valueChanged);
    QVERIFY(image.start());
    image.stop();
    QVERIFY(!moves.wait(800));

    // Started again, it moves again after its half-second wait.
    QVERIFY(image.start());
    QVERIFY(moves.wait(1500));
    image.stop();
}

void TestImage::mousePresses()
{
    const QString path = m_home->filePath(QStringLiteral("click.png"));
    QVERIFY(makeImage(path, QSize(100, 100), Qt::green));
    QWidget area;
    area.resize(800, 600);
    PlaylistItem item(QStringLiteral("file://") + path, PlaylistItem::Image, 5, false, {});
    auto *image = new Image(&item, &area);
    image->resize(area.size());
    QSignalSpy right(image, &Image::rightclick);

    for (Qt::MouseButton button : {Qt::LeftButton, Qt::MiddleButton, Qt::RightButton}) {
        QMouseEvent press(QEvent::MouseButtonPress, QPointF(10, 10), button, button,
                          Qt::NoModifier);
        QApplication::sendEvent(image, &press);
        // Taken by the picture: nothing travels on to the window behind it.
        QVERIFY(press.isAccepted());
    }
    QCOMPARE(right.count(), 1);
}

QTEST_MAIN(TestImage)
#include "tst_image.moc"
