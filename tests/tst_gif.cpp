#include "gif.h"
#include "playlistitem.h"
#include "settings.h"
#include "testsupport.h"

#include <QApplication>
#include <QMouseEvent>
#include <QMovie>
#include <QPointer>
#include <QSignalSpy>
#include <QtTest>

using namespace testsupport;

class TestGif : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void movieWaitsForStart();
    void stretch_data();
    void stretch();
    void pauseKeepsAnimating();
    void displayTimeStopsThenReleasesMovie();
    void undecodableFileStillRunsItsTime();
    void restartAfterStopPlaysAgain();
    void destroyedWithoutStopFreesMovie();
    void mousePresses();

private:
    std::unique_ptr<TempHome> m_home;
    QString m_gif;
};

void TestGif::initTestCase()
{
    m_home = std::make_unique<TempHome>();
    m_gif = m_home->filePath(QStringLiteral("animation.gif"));
    QVERIFY2(makeGif(m_gif, 10, QSize(40, 30)), "ffmpeg could not make a GIF");
}

void TestGif::init()
{
    Settings::load(false, nullptr)->set(QStringLiteral("slideshow/stretch"), false);
}

void TestGif::movieWaitsForStart()
{
    QWidget area;
    PlaylistItem item(QStringLiteral("file://") + m_gif, PlaylistItem::Gif, 5, false, {});
    Gif gif(&item, &area);

    QMovie *movie = gif.movie();
    QVERIFY(movie);
    QCOMPARE(movie->fileName(), m_gif);
    QVERIFY(!movie->parent());
    QCOMPARE(movie->state(), QMovie::NotRunning);
    QCOMPARE(gif.alignment(), Qt::AlignCenter);
    QVERIFY(gif.autoFillBackground());
    for (QPalette::ColorGroup group : {QPalette::Active, QPalette::Inactive, QPalette::Disabled})
        QCOMPARE(gif.palette().color(group, QPalette::Window), QColor(Qt::black));

    QVERIFY(gif.start());
    QCOMPARE(movie->state(), QMovie::Running);
    gif.stop();
}

void TestGif::stretch_data()
{
    QTest::addColumn<bool>("stretch");
    QTest::newRow("stretch on scales to the label") << true;
    QTest::newRow("stretch off keeps the frame size") << false;
}

void TestGif::stretch()
{
    QFETCH(bool, stretch);

    Settings::load(false, nullptr)->set(QStringLiteral("slideshow/stretch"), stretch);
    QWidget area;
    PlaylistItem item(QStringLiteral("file://") + m_gif, PlaylistItem::Gif, 5, false, {});
    Gif gif(&item, &area);
    gif.resize(400, 300);
    QCOMPARE(gif.hasScaledContents(), stretch);
    QVERIFY(gif.start());
    QSignalSpy frames(gif.movie(), &QMovie::frameChanged);
    QVERIFY(frames.wait(2000));

    // The 40x30 frames cover the whole label only when stretched; else they sit in a black field.
    const QImage grab = gif.grab().toImage();
    int coloured = 0;
    for (int y = 0; y < grab.height(); ++y) {
        for (int x = 0; x < grab.width(); ++x)
            coloured += grab.pixelColor(x, y) != QColor(Qt::black) ? 1 : 0;
    }
    const double share = double(coloured) / (grab.width() * grab.height());
    QVERIFY(grab.pixelColor(200, 150) != QColor(Qt::black));
    QVERIFY2(stretch ? share > 0.3 : share <= 0.011, qPrintable(QString::number(share)));
    gif.stop();
}

void TestGif::pauseKeepsAnimating()
{
    QWidget area;
    PlaylistItem item(QStringLiteral("file://") + m_gif, PlaylistItem::Gif, 5, false, {});
    Gif gif(&item, &area);
    QVERIFY(gif.start());

    QVERIFY(gif.pause());
    QSignalSpy frames(gif.movie(), &QMovie::frameChanged);
    QTRY_VERIFY(frames.count() >= 3);
    QCOMPARE(gif.movie()->state(), QMovie::Running);
    QVERIFY(!gif.pause());
    gif.stop();
}

void TestGif::displayTimeStopsThenReleasesMovie()
{
    QWidget area;
    PlaylistItem item(QStringLiteral("file://") + m_gif, PlaylistItem::Gif, 1, false, {});
    Gif gif(&item, &area);
    QPointer<QMovie> movie = gif.movie();
    QVERIFY(gif.start());

    bool stoppedButKept = false;
    connect(&gif, &Gif::end, this,
            [&] { stoppedButKept = movie && movie->state() == QMovie::NotRunning; });
    QSignalSpy ended(&gif, &Gif::end);
    QVERIFY(ended.wait(3000));
    QVERIFY(stoppedButKept);
    // The display time's stop released it; it goes with the next turn of the event loop.
    QTRY_VERIFY(movie.isNull());
    QVERIFY(!gif.movie());
    QCOMPARE(ended.count(), 1);
    gif.stop();
}

void TestGif::undecodableFileStillRunsItsTime()
{
    const QString path = m_home->filePath(QStringLiteral("broken.gif"));
    QVERIFY(writeFile(path, "GIF89a and nothing useful"));
    QWidget area;
    PlaylistItem item(QStringLiteral("file://") + path, PlaylistItem::Gif, 1, false, {});
    Gif gif(&item, &area);
    QSignalSpy ended(&gif, &Gif::end);

    QVERIFY(gif.start());
    QVERIFY(gif.movie());
    QVERIFY(ended.wait(3000));
    QCOMPARE(ended.count(), 1);
}

void TestGif::restartAfterStopPlaysAgain()
{
    QWidget area;
    PlaylistItem item(QStringLiteral("file://") + m_gif, PlaylistItem::Gif, 5, false, {});
    Gif gif(&item, &area);
    QVERIFY(gif.start());
    QPointer<QMovie> first = gif.movie();
    gif.stop();
    QCOMPARE(first->state(), QMovie::NotRunning);

    // Started again before the released movie is gone: a fresh one plays.
    QVERIFY(gif.restart(false));
    QPointer<QMovie> second = gif.movie();
    QVERIFY(second && second != first);
    QTRY_VERIFY(first.isNull());
    QCOMPARE(second->state(), QMovie::Running);
    gif.stop();
}

void TestGif::destroyedWithoutStopFreesMovie()
{
    QPointer<QMovie> movie;
    {
        QWidget area;
        PlaylistItem item(QStringLiteral("file://") + m_gif, PlaylistItem::Gif, 5, false, {});
        Gif gif(&item, &area);
        QVERIFY(gif.start());
        movie = gif.movie();
    }
    QVERIFY(movie.isNull());
}

void TestGif::mousePresses()
{
    QWidget area;
    PlaylistItem item(QStringLiteral("file://") + m_gif, PlaylistItem::Gif, 5, false, {});
    auto *gif = new Gif(&item, &area);
    QSignalSpy right(gif, &Gif::rightclick);

    for (Qt::MouseButton button : {Qt::LeftButton, Qt::MiddleButton, Qt::RightButton}) {
        QMouseEvent press(QEvent::MouseButtonPress, QPointF(5, 5), button, button, Qt::NoModifier);
        QApplication::sendEvent(gif, &press);
        QVERIFY(press.isAccepted());
    }
    QCOMPARE(right.count(), 1);
}

QTEST_MAIN(TestGif)
#include "tst_gif.moc"
