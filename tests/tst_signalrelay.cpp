#include "signalrelay.h"
#include "testsupport.h"

#include <QtTest>

#include <csignal>

using namespace testsupport;

class TestSignalRelay : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void interruptEndsEventLoopWithItsNumber();
};

void TestSignalRelay::interruptEndsEventLoopWithItsNumber()
{
    QVERIFY(SignalRelay::install());
    SignalRelay relay;
    LogCapture log;

    for (int round = 0; round < 2; ++round) { // the handler stays installed for a second signal
        log.clear();
        QTimer::singleShot(0, &relay, [] { ::raise(SIGINT); });
        QCOMPARE(QCoreApplication::exec(), 2);
        QCOMPARE(log.lines(), QStringList({"Caught signal 2"}));
    }
}

QTEST_GUILESS_MAIN(TestSignalRelay)
#include "tst_signalrelay.moc"
