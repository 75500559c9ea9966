#include "runnable.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QtTest>

using namespace testsupport;

namespace {
// Content that records every hook call and answers as the test says.
class Content : public QObject, public Runnable
{
public:
    explicit Content(int timeout)
        : Runnable(timeout)
    {
    }

    bool startAnswer = true;
    bool stopAnswer = true;
    QList<bool> timeoutAnswers; // consumed one per expiry; true once empty
    QStringList calls;

protected:
    bool stopImpl() override
    {
        calls << "stop";
        return stopAnswer;
    }
    bool startImpl() override
    {
        calls << "start";
        return startAnswer;
    }
    bool onTimeoutImpl() override
    {
        calls << "timeout";
        return timeoutAnswers.isEmpty() ? true : timeoutAnswers.takeFirst();
    }
    bool pauseImpl() override
    {
        calls << "pause";
        return true;
    }
    bool resumeImpl() override
    {
        calls << "resume";
        return true;
    }
};
} // namespace

class TestRunnable : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void timedContentStopsWhenTimeoutAgrees();
    void untimedContentKeepsActiveFlag_data();
    void untimedContentKeepsActiveFlag();
    void pauseTwiceRestartsWholeDisplayTime();
    void restartOfStoppedContent();
    void failedStartChangesNothing();
    void failedStopKeepsTimerRunning();
    void resumeBeforeStartDoesNotSpin();
    void setTimeoutLeavesRunningTimer();
};

void TestRunnable::timedContentStopsWhenTimeoutAgrees()
{
    LogCapture log;
    Content content(1);
    content.timeoutAnswers = {false};
    QElapsedTimer clock;
    clock.start();
    QVERIFY(content.start());
    QVERIFY(content.isActive());
    QTRY_COMPARE_WITH_TIMEOUT(content.calls, QStringList({"start", "timeout", "timeout", "stop"}),
                              5000);
    // Asked again only after another full period.
    QVERIFY(clock.elapsed() >= 1900);
    QVERIFY(!content.isActive());
    QCOMPARE(log.count("Timeout"), 2);
    QCOMPARE(log.count("Stopping"), 1);
}

void TestRunnable::untimedContentKeepsActiveFlag_data()
{
    QTest::addColumn<int>("timeout");
    QTest::newRow("zero") << 0;
    QTest::newRow("negative") << -3;
}

void TestRunnable::untimedContentKeepsActiveFlag()
{
    QFETCH(int, timeout);
    LogCapture log;
    Content content(timeout);
    QVERIFY(!content.isActive());
    QVERIFY(content.start());
    QVERIFY(content.isActive());
    content.stop();
    QVERIFY(content.isActive());
    // Started untimed content always takes the pause branch.
    QVERIFY(content.pause());
    QVERIFY(content.pause());
    QCOMPARE(content.calls, QStringList({"start", "stop", "pause", "pause"}));
    QVERIFY(!log.contains("Timeout"));
}

void TestRunnable::pauseTwiceRestartsWholeDisplayTime()
{
    Content content(2);
    QVERIFY(content.start());
    QTest::qWait(1000); // let part of the display time pass before pausing
    QVERIFY(content.pause());
    QVERIFY(!content.isActive());
    QElapsedTimer resumed;
    QVERIFY(!content.pause());
    resumed.start();
    QVERIFY(content.isActive());
    QTRY_VERIFY_WITH_TIMEOUT(content.calls.contains("stop"), 5000);
    QVERIFY2(resumed.elapsed() >= 1900, "the display time begins anew after a resume");
    QCOMPARE(content.calls, QStringList({"start", "pause", "resume", "timeout", "stop"}));
}

void TestRunnable::restartOfStoppedContent()
{
    LogCapture log;
    Content content(10);
    QVERIFY(content.start());
    content.stop();
    QVERIFY(!content.isActive());
    log.clear();
    QVERIFY(content.restart(true));
    QVERIFY(!log.contains("Stopping"));
    QCOMPARE(log.count("Starting"), 1);
    QVERIFY(content.isActive());

    // A running content is stopped first.
    log.clear();
    QVERIFY(content.restart(true));
    QCOMPARE(log.count("Stopping"), 1);
    QVERIFY(content.isActive());
}

void TestRunnable::failedStartChangesNothing()
{
    Content content(5);
    content.startAnswer = false;
    QVERIFY(!content.start());
    QVERIFY(!content.isActive());

    Content untimed(0);
    untimed.startAnswer = false;
    QVERIFY(!untimed.start());
    QVERIFY(!untimed.isActive());
}

void TestRunnable::failedStopKeepsTimerRunning()
{
    Content content(5);
    QVERIFY(content.start());
    content.stopAnswer = false;
    content.stop();
    QVERIFY(content.isActive());
    content.stopAnswer = true;
    content.stop();
    QVERIFY(!content.isActive());
}

void TestRunnable::resumeBeforeStartDoesNotSpin()
{
    Content content(5);
    QVERIFY(!content.pause()); // resume branch
    QTest::qWait(100);
    QVERIFY(!content.calls.contains("timeout"));
    QVERIFY(content.isActive());
}

void TestRunnable::setTimeoutLeavesRunningTimer()
{
    Content content(1);
    QVERIFY(content.start());
    content.setTimeout(60);
    QTRY_VERIFY_WITH_TIMEOUT(content.calls.contains("stop"), 5000);
    QCOMPARE(content.timeout(), 60);
}

QTEST_GUILESS_MAIN(TestRunnable)
#include "tst_runnable.moc"
