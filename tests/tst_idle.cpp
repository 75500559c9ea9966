#include "idle.h"
#include "playlistitem.h"
#include "testsupport.h"

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QMouseEvent>
#include <QSignalSpy>
#include <QtTest>

using namespace testsupport;

namespace {
const char tvservice[] = "/opt/vc/bin/tvservice";

} // namespace

class TestIdle : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void startSwitchesDisplayOff();
    void missingProgramsLeaveABlackScreen();
    void displayTimeEndsIdleOnly();
    void mousePresses();
};

void TestIdle::startSwitchesDisplayOff()
{
    FakePrograms fakes;
    const QString order = fakes.dir() + QStringLiteral("/order");
    fakes.addScript("sudo", "echo sudo >> '" + order.toUtf8() + "'");
    fakes.addScript("tvservice", "echo tvservice >> '" + order.toUtf8() + "'");
    TvserviceStandIn standIn(fakes.dir() + QStringLiteral("/tvservice"));
    LogCapture log;

    QWidget area;
    std::unique_ptr<PlaylistItem> item(PlaylistItem::idle());
    Idle idle(item.get(), &area);
    QVERIFY(idle.start());

    QVERIFY(log.contains(QStringLiteral("Starting idle")));
    QCOMPARE(fakes.calls("sudo"), QList<QStringList>({{tvservice, "-p"}}));
    if (!standIn.ready())
        QSKIP("the display tool's fixed path is taken or cannot be created here");
    // On first, then off, straight and without sudo.
    QCOMPARE(fakes.calls("tvservice"), QList<QStringList>({{"-o"}}));
    QCOMPARE(readFile(order), QByteArray("sudo\ntvservice\n"));

    // Stopping leaves the display alone.
    idle.stop();
    QCOMPARE(fakes.calls("tvservice").size(), 1);
    QCOMPARE(fakes.calls("sudo").size(), 1);
}

void TestIdle::missingProgramsLeaveABlackScreen()
{
    QTemporaryDir empty;
    const QByteArray path = qgetenv("PATH");
    qputenv("PATH", empty.path().toUtf8());
    QWidget area;
    PlaylistItem item(QString(), PlaylistItem::Idle, 60, false, {});
    Idle idle(&item, &area);
    const bool started = idle.start();
    qputenv("PATH", path);

    QVERIFY(started);
    QVERIFY(idle.isActive());
    QVERIFY(idle.autoFillBackground());
    for (QPalette::ColorGroup group : {QPalette::Active, QPalette::Inactive, QPalette::Disabled})
        QCOMPARE(idle.palette().color(group, QPalette::Window), QColor(Qt::black));
    idle.resize(50, 40);
    const QImage grab = idle.grab().toImage();
    QCOMPARE(grab.pixelColor(25, 20), QColor(Qt::black));
    idle.stop();
}

void TestIdle::displayTimeEndsIdleOnly()
{
    FakePrograms fakes;
    fakes.add("sudo");
    QWidget area;
    PlaylistItem item(QString(), PlaylistItem::Idle, 1, false, {});
    Idle idle(&item, &area);
    QSignalSpy ended(&idle, &Idle::end);
    QVERIFY(idle.start());

    // Paused, the display time stands still; resumed, it runs a full second again.
    QVERIFY(idle.pause());
    QVERIFY(!ended.wait(1300));
    QVERIFY(!idle.pause());
    QVERIFY(ended.wait(2000));
    QCOMPARE(ended.count(), 1);
    QVERIFY(!idle.isActive());
    // The display is switched on again by whoever ends the idle period, not here.
    QCOMPARE(fakes.calls("sudo").size(), 1);
}

void TestIdle::mousePresses()
{
    QWidget area;
    PlaylistItem item(QString(), PlaylistItem::Idle, 60, false, {});
    auto *idle = new Idle(&item, &area);
    QSignalSpy right(idle, &Idle::rightclick);

    for (Qt::MouseButton button : {Qt::LeftButton, Qt::MiddleButton, Qt::RightButton}) {
        QMouseEvent press(QEvent::MouseButtonPress, QPointF(5, 5), button, button, Qt::NoModifier);
        QApplication::sendEvent(idle, &press);
        QVERIFY(press.isAccepted());
    }
    QCOMPARE(right.count(), 1);
}

QTEST_MAIN(TestIdle)
#include "tst_idle.moc"
