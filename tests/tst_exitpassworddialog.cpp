#include "exitpassworddialog.h"
#include "testsupport.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QLineEdit>
#include <QMouseEvent>
#include <QPointer>
#include <QSignalSpy>
#include <QWheelEvent>
#include <QtTest>

#include <functional>

using namespace testsupport;

namespace {
const int timeoutMs = 10000;

// The running inactivity timer: the one child timer armed with the full time-out.
QTimer *timeoutTimer(QDialog *dialog)
{
    const QList<QTimer *> timers = dialog->findChildren<QTimer *>();
    for (QTimer *timer : timers) {
        if (timer->interval() == timeoutMs)
            return timer;
    }
    return nullptr;
}

// Runs the prompt the way the viewer does, acting on it from inside its modal loop.
QString runWith(QPointer<ExitPasswordDialog> &dialog, QObject *context,
                const std::function<void(ExitPasswordDialog *)> &action)
{
    QTimer::singleShot(0, context, [&dialog, action] {
        if (dialog)
            action(dialog);
    });
    return dialog->run();
}
} // namespace

class TestExitPasswordDialog : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void looksLikeAPasswordPrompt();
    void answers_data();
    void answers();
    void inputGivesAnotherFullTimeout_data();
    void inputGivesAnotherFullTimeout();
    void inputAfterThePromptArmsNothing();
    void leftAloneClosesAndIsDestroyedOnce();
    void ownerDeletingFirstDropsTheSelfDeletion();
};

void TestExitPasswordDialog::looksLikeAPasswordPrompt()
{
    ExitPasswordDialog dialog(nullptr);
    QCOMPARE(dialog.windowTitle(), QStringLiteral("Password Required"));
    QCOMPARE(dialog.labelText(), QStringLiteral("Administrator password:"));
    QCOMPARE(dialog.textEchoMode(), QLineEdit::Password);
    QVERIFY(dialog.hasMouseTracking());
}

void TestExitPasswordDialog::answers_data()
{
    QTest::addColumn<QString>("typed");
    QTest::addColumn<int>("finishKey");
    QTest::addColumn<QString>("result");

    QTest::newRow("typed and confirmed") << "s3cret word" << int(Qt::Key_Return) << "s3cret word";
    QTest::newRow("typed and cancelled") << "s3cret" << int(Qt::Key_Escape) << "";
    QTest::newRow("confirmed empty") << "" << int(Qt::Key_Return) << "";
}

void TestExitPasswordDialog::answers()
{
    QFETCH(QString, typed);
    QFETCH(int, finishKey);
    QFETCH(QString, result);

    QPointer<ExitPasswordDialog> dialog = new ExitPasswordDialog(nullptr);
    bool shown = false;
    const QString answer = runWith(dialog, this, [&](ExitPasswordDialog *prompt) {
        shown = prompt->isVisible() && prompt->isModal();
        auto *field = prompt->findChild<QLineEdit *>();
        QTest::keyClicks(field, typed);
        QTest::keyClick(field, Qt::Key(finishKey));
    });

    QVERIFY(shown);
    QCOMPARE(answer, result);
    QVERIFY(dialog);
    QVERIFY(!timeoutTimer(dialog)->isActive());
    delete dialog.data();
}

void TestExitPasswordDialog::inputGivesAnotherFullTimeout_data()
{
    QTest::addColumn<QString>("input");
    QTest::addColumn<bool>("resets");

    QTest::newRow("key in the password field") << "key" << true;
    QTest::newRow("mouse move over the dialog") << "move" << true;
    QTest::newRow("mouse move over the password field") << "field move" << true;
    QTest::newRow("click on the dialog") << "press" << true;
    QTest::newRow("mouse wheel") << "wheel" << true;
    QTest::newRow("not an input event") << "other" << false;
}

void TestExitPasswordDialog::inputGivesAnotherFullTimeout()
{
    QFETCH(QString, input);
    QFETCH(bool, resets);

    QPointer<ExitPasswordDialog> dialog = new ExitPasswordDialog(nullptr);
    int before = -1;
    int after = -1;
    runWith(dialog, this, [&](ExitPasswordDialog *prompt) {
        QTimer *timer = timeoutTimer(prompt);
        if (!timer || !timer->isActive())
            return prompt->reject();
        // Past the 5 % slack a coarse timer may take, so that a restart stands out.
        QTRY_VERIFY_WITH_TIMEOUT(timer->remainingTime() < timeoutMs - 1200, 4000);
        before = timer->remainingTime();
        auto *field = prompt->findChild<QLineEdit *>();
        const QPointF inside(10, 10);
        if (input == QLatin1String("key")) {
            QTest::keyClick(field, Qt::Key_A);
        } else if (input == QLatin1String("move") || input == QLatin1String("field move")) {
            QMouseEvent move(QEvent::MouseMove, inside, Qt::NoButton, Qt::NoButton, Qt::NoModifier);
            QApplication::sendEvent(
                input == QLatin1String("move") ? static_cast<QWidget *>(prompt) : field, &move);
        } else if (input == QLatin1String("press")) {
            QMouseEvent press(QEvent::MouseButtonPress, inside, Qt::LeftButton, Qt::LeftButton,
                              Qt::NoModifier);
            QApplication::sendEvent(prompt, &press);
        } else if (input == QLatin1String("wheel")) {
            QWheelEvent wheel(inside, prompt->mapToGlobal(inside.toPoint()), QPoint(),
                              QPoint(0, 120), Qt::NoButton, Qt::NoModifier, Qt::NoScrollPhase,
                              false);
            QApplication::sendEvent(prompt, &wheel);
        } else {
            QEvent other(QEvent::WindowTitleChange);
            QApplication::sendEvent(prompt, &other);
        }
        after = timer->remainingTime();
        prompt->reject();
    });

    QVERIFY(before >= 0);
    if (resets)
        QVERIFY2(after > timeoutMs - 600, qPrintable(QString::number(after)));
    else
        QVERIFY2(after <= before, qPrintable(QString::number(after)));
    delete dialog.data();
}

void TestExitPasswordDialog::inputAfterThePromptArmsNothing()
{
    ExitPasswordDialog dialog(nullptr);
    dialog.resetTimer();
    QTest::keyClick(&dialog, Qt::Key_A);
    QVERIFY(!timeoutTimer(&dialog) || !timeoutTimer(&dialog)->isActive());
}

void TestExitPasswordDialog::leftAloneClosesAndIsDestroyedOnce()
{
    QPointer<ExitPasswordDialog> dialog = new ExitPasswordDialog(nullptr);
    QSignalSpy destroyed(dialog.data(), &QObject::destroyed);
    QElapsedTimer clock;
    clock.start();
    const QString answer = dialog->run();
    const qint64 elapsed = clock.elapsed();

    QCOMPARE(answer, QString());
    // A coarse timer may fire up to 5 % early.
    QVERIFY2(elapsed >= timeoutMs * 95 / 100 - 50 && elapsed < timeoutMs + 2000,
             qPrintable(QString::number(elapsed)));
    // The owner ends it the way the viewer does; the pending self-deletion must not add a second.
    delete dialog.data();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QTest::qWait(50);
    QVERIFY(dialog.isNull());
    QCOMPARE(destroyed.count(), 1);
}

void TestExitPasswordDialog::ownerDeletingFirstDropsTheSelfDeletion()
{
    QPointer<ExitPasswordDialog> dialog = new ExitPasswordDialog(nullptr);
    QSignalSpy destroyed(dialog.data(), &QObject::destroyed);
    dialog->show();
    dialog->onTimeout();
    QVERIFY(dialog);
    QVERIFY(!dialog->isVisible());
    delete dialog.data();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QCOMPARE(destroyed.count(), 1);

    // Left to itself, it goes on its own.
    dialog = new ExitPasswordDialog(nullptr);
    QSignalSpy selfDestroyed(dialog.data(), &QObject::destroyed);
    dialog->show();
    dialog->onTimeout();
    QTRY_VERIFY(dialog.isNull());
    QCOMPARE(selfDestroyed.count(), 1);
}

QTEST_MAIN(TestExitPasswordDialog)
#include "tst_exitpassworddialog.moc"
