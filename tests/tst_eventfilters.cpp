#include "browsereventfilter.h"
#include "idle.h"
#include "playlisteventfilter.h"
#include "playlistitem.h"
#include "settings.h"
#include "testsupport.h"

#include <QApplication>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QSignalSpy>
#include <QTimer>
#include <QWheelEvent>
#include <QtTest>

using namespace testsupport;

namespace {
// Stands in for the viewer, which stacks the content and so is its parent: the filters reach it
// through its mouseEvent() signal, its resetTimer() slot and its own press handling.
class ViewerStandIn : public QWidget
{
    Q_OBJECT

public:
    QTimer sessionTimer;
    QList<Qt::MouseButton> presses;
    QList<QPoint> pressPositions;

Q_SIGNALS:
    void mouseEvent();

public Q_SLOTS:
    void resetTimer()
    {
        if (sessionTimer.isActive())
            sessionTimer.start();
    }

protected:
    void mousePressEvent(QMouseEvent *event) override
    {
        presses << event->button();
        pressPositions << event->pos();
    }
};

// Installed before the filter under test, it sees what that filter lets through.
class Recorder : public QObject
{
public:
    QList<QEvent::Type> seen;

protected:
    bool eventFilter(QObject *, QEvent *event) override
    {
        seen << event->type();
        return false;
    }
};

std::unique_ptr<QEvent> makeEvent(const QString &kind, Qt::MouseButton button = Qt::NoButton)
{
    const QPointF at(5, 6);
    if (kind == QLatin1String("press"))
        return std::make_unique<QMouseEvent>(QEvent::MouseButtonPress, at, button, button,
                                             Qt::NoModifier);
    if (kind == QLatin1String("release"))
        return std::make_unique<QMouseEvent>(QEvent::MouseButtonRelease, at, button, Qt::NoButton,
                                             Qt::NoModifier);
    if (kind == QLatin1String("move"))
        return std::make_unique<QMouseEvent>(QEvent::MouseMove, at, Qt::NoButton, Qt::NoButton,
                                             Qt::NoModifier);
    if (kind == QLatin1String("key"))
        return std::make_unique<QKeyEvent>(QEvent::KeyPress, Qt::Key_Space, Qt::NoModifier, " ");
    if (kind == QLatin1String("wheel"))
        return std::make_unique<QWheelEvent>(at, at, QPoint(), QPoint(0, 120), Qt::NoButton,
                                             Qt::NoModifier, Qt::NoScrollPhase, false);
    return std::make_unique<QEvent>(QEvent::WindowTitleChange);
}
} // namespace

class TestEventFilters : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void playlistFilterStartsLocked();
    void playlistFilter_data();
    void playlistFilter();
    void playlistFilterUnlockLetsTheSameClickThrough();
    void browserFilter_data();
    void browserFilter();

private:
    std::unique_ptr<TempHome> m_home;
};

void TestEventFilters::initTestCase()
{
    m_home = std::make_unique<TempHome>();
}

void TestEventFilters::playlistFilterStartsLocked()
{
    PlaylistEventFilter filter(Settings::load(false, nullptr));
    QVERIFY(filter.locked());
}

void TestEventFilters::playlistFilter_data()
{
    QTest::addColumn<bool>("locked");
    QTest::addColumn<QString>("mode");
    QTest::addColumn<QString>("kind");
    QTest::addColumn<int>("button");
    QTest::addColumn<bool>("consumed");
    QTest::addColumn<int>("viewerPresses");
    QTest::addColumn<int>("mouseEvents");
    QTest::addColumn<bool>("pointerHidden");

    QTest::newRow("locked, press swallowed")
        << true << "display"
        << "press" << int(Qt::LeftButton) << true << 0 << 0 << false;
    QTest::newRow("locked, kiosk move reaches the content")
        << true << "kiosk"
        << "move" << 0 << false << 0 << 0 << false;
    QTest::newRow("locked, key reaches the content") << true << "display"
                                                     << "key" << 0 << false << 0 << 0 << false;
    QTest::newRow("unlocked, left press goes to the viewer")
        << false << "display"
        << "press" << int(Qt::LeftButton) << true << 1 << 0 << false;
    QTest::newRow("unlocked, right press goes to the viewer")
        << false << "display"
        << "press" << int(Qt::RightButton) << true << 1 << 0 << false;
    QTest::newRow("unlocked, middle press in kiosk mode goes to the viewer")
        << false << "kiosk"
        << "press" << int(Qt::MiddleButton) << true << 1 << 0 << false;
    QTest::newRow("unlocked, kiosk move signals the viewer")
        << false << "kiosk"
        << "move" << 0 << true << 0 << 1 << false;
    QTest::newRow("unlocked, display move taken quietly") << false << "display"
                                                          << "move" << 0 << true << 0 << 0 << false;
    QTest::newRow("unlocked, key only hides the pointer") << false << "display"
                                                          << "key" << 0 << true << 0 << 0 << true;
    QTest::newRow("unlocked, release reaches the content")
        << false << "display"
        << "release" << int(Qt::LeftButton) << false << 0 << 0 << false;
    QTest::newRow("unlocked, wheel reaches the content")
        << false << "kiosk"
        << "wheel" << 0 << false << 0 << 0 << false;
    QTest::newRow("unlocked, other events reach the content")
        << false << "kiosk"
        << "other" << 0 << false << 0 << 0 << false;
}

void TestEventFilters::playlistFilter()
{
    QFETCH(bool, locked);
    QFETCH(QString, mode);
    QFETCH(QString, kind);
    QFETCH(int, button);
    QFETCH(bool, consumed);
    QFETCH(int, viewerPresses);
    QFETCH(int, mouseEvents);
    QFETCH(bool, pointerHidden);

    Settings *settings = Settings::load(false, nullptr);
    settings->set(QStringLiteral("main/mode"), mode);
    ViewerStandIn viewer;
    PlaylistItem item(QString(), PlaylistItem::Idle, 60, false, {});
    auto *content = new Idle(&item, &viewer);
    // As the viewer does with everything it shows.
    content->setMouseTracking(true);
    content->move(30, 40);
    Recorder recorder;
    content->installEventFilter(&recorder);
    PlaylistEventFilter filter(settings);
    filter.setLocked(locked);
    content->installEventFilter(&filter);
    QSignalSpy moved(&viewer, &ViewerStandIn::mouseEvent);
    QSignalSpy rightclicks(content, &Idle::rightclick);

    std::unique_ptr<QEvent> event = makeEvent(kind, Qt::MouseButton(button));
    QApplication::sendEvent(content, event.get());

    QCOMPARE(recorder.seen.contains(event->type()), !consumed);
    QCOMPARE(viewer.presses.size(), viewerPresses);
    if (viewerPresses) {
        QCOMPARE(viewer.presses.first(), Qt::MouseButton(button));
        // In the viewer's own coordinates.
        QCOMPARE(viewer.pressPositions.first(), QPoint(35, 46));
        // The content's own handling is bypassed.
        QCOMPARE(rightclicks.count(), 0);
    }
    QCOMPARE(moved.count(), mouseEvents);
    QCOMPARE(content->cursor().shape() == Qt::BlankCursor, pointerHidden);
}

void TestEventFilters::playlistFilterUnlockLetsTheSameClickThrough()
{
    Settings *settings = Settings::load(false, nullptr);
    settings->set(QStringLiteral("main/mode"), QStringLiteral("display"));
    ViewerStandIn viewer;
    PlaylistItem item(QString(), PlaylistItem::Idle, 60, false, {});
    auto *content = new Idle(&item, &viewer);
    PlaylistEventFilter filter(settings);
    content->installEventFilter(&filter);

    QTest::mouseClick(content, Qt::LeftButton);
    QVERIFY(viewer.presses.isEmpty());
    filter.setLocked(false);
    QTest::mouseClick(content, Qt::LeftButton);
    QCOMPARE(viewer.presses, QList<Qt::MouseButton>{Qt::LeftButton});
    filter.setLocked(true);
    QTest::mouseClick(content, Qt::RightButton);
    QCOMPARE(viewer.presses.size(), 1);
}

void TestEventFilters::browserFilter_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<bool>("timerRunning");
    QTest::addColumn<bool>("restarted");

    QTest::newRow("mouse move keeps the session alive") << "move" << true << true;
    QTest::newRow("click keeps the session alive") << "press" << true << true;
    QTest::newRow("typing keeps the session alive") << "key" << true << true;
    QTest::newRow("wheel keeps the session alive") << "wheel" << true << true;
    QTest::newRow("other events do not") << "other" << true << false;
    QTest::newRow("stopped session timer stays stopped") << "move" << false << false;
}

void TestEventFilters::browserFilter()
{
    QFETCH(QString, kind);
    QFETCH(bool, timerRunning);
    QFETCH(bool, restarted);

    ViewerStandIn viewer;
    // Precise, so that a restart shows in the remaining time without a coarse timer's slack.
    viewer.sessionTimer.setTimerType(Qt::PreciseTimer);
    viewer.sessionTimer.setInterval(5000);
    if (timerRunning)
        viewer.sessionTimer.start();
    auto *browser = new QWidget(&viewer);
    browser->setMouseTracking(true);
    Recorder recorder;
    browser->installEventFilter(&recorder);
    BrowserEventFilter filter;
    browser->installEventFilter(&filter);

    int before = -1;
    if (timerRunning) {
        QTRY_VERIFY(viewer.sessionTimer.remainingTime() < 4500);
        before = viewer.sessionTimer.remainingTime();
    }
    std::unique_ptr<QEvent> event = makeEvent(kind, Qt::LeftButton);
    QApplication::sendEvent(browser, event.get());

    // Never consumed: the browser works on as usual.
    QVERIFY(recorder.seen.contains(event->type()));
    QCOMPARE(viewer.sessionTimer.isActive(), timerRunning);
    if (restarted)
        QVERIFY2(viewer.sessionTimer.remainingTime() > 4800,
                 qPrintable(QString::number(viewer.sessionTimer.remainingTime())));
    else if (timerRunning)
        QVERIFY(viewer.sessionTimer.remainingTime() <= before);
}

QTEST_MAIN(TestEventFilters)
#include "tst_eventfilters.moc"
