#include "commandlineparser.h"
#include "runnable.h"
#include "settings.h"
#include "testsupport.h"
#include "viewer.h"

#include <QInputDialog>
#include <QLabel>
#include <QSignalSpy>
#include <QtTest>

using namespace testsupport;

namespace {
// A content widget that records its life cycle.
class Content : public QLabel, public Runnable
{
    Q_OBJECT

public:
    explicit Content(int timeout = 0, bool startAnswer = true)
        : Runnable(timeout)
        , m_startAnswer(startAnswer)
    {
    }
    QStringList calls;

Q_SIGNALS:
    void end();
    void pageChanged();

protected:
    bool stopImpl() override
    {
        calls << "stop";
        return true;
    }
    bool startImpl() override
    {
        calls << "start";
        return m_startAnswer;
    }
    bool onTimeoutImpl() override
    {
        Q_EMIT end();
        return true;
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

private:
    bool m_startAnswer;
};

void click(QWidget *widget, Qt::MouseButton button)
{
    QMouseEvent press(QEvent::MouseButtonPress, QPointF(5, 5), button, button, Qt::NoModifier);
    QCoreApplication::sendEvent(widget, &press);
}
} // namespace

class TestViewer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void constructionRunsDesktopCommands_data();
    void constructionRunsDesktopCommands();
    void nextReplacesAndStarts();
    void failedStartKeepsPrevious();
    void inputLockedForOneSecond();
    void readyToShootAfterChange();
    void widgetEndBecomesViewerEnd();
    void pauseTogglesCurrent();
    void sessionTimer();
    void mouseButtons_data();
    void mouseButtons();
    void leavingWithoutPassword();
    void leavingWithPassword_data();
    void leavingWithPassword();
    void fixedScreenGeometry();

private:
    void loadSettings(const QByteArray &extra);
    std::unique_ptr<TempHome> m_home;
    std::unique_ptr<FakePrograms> m_fakes;
    std::unique_ptr<CommandLineParser> m_parser;
};

void TestViewer::init()
{
    m_home = std::make_unique<TempHome>();
    m_fakes = std::make_unique<FakePrograms>();
    for (const char *name : {"launchdock", "amixer", "unclutter", "pkill", "xmodmap", "xset"})
        m_fakes->add(name);
    qputenv("XDG_CURRENT_DESKTOP", "none");
    QCoreApplication::setOrganizationName("VorsaneTest");
    QCoreApplication::setApplicationName("viewer"); // its settings live under the temporary HOME
    m_parser = makeParser(m_home->path());
    loadSettings("fullscreen=false\n");
}

void TestViewer::cleanup()
{
    m_fakes.reset();
    m_home.reset();
}

void TestViewer::loadSettings(const QByteArray &extra)
{
    QByteArray text = "[main]\nversion=QFGLs6IVf1\n";
    // Later sections with the same name would be read as duplicates; merge by hand.
    text += extra;
    writeFile(m_home->filePath("preferences"), text);
    Settings::load(true, m_parser.get());
}

void TestViewer::constructionRunsDesktopCommands_data()
{
    QTest::addColumn<QByteArray>("prefs");
    QTest::addColumn<QStringList>("amixer");
    QTest::addColumn<bool>("unclutter");

    QTest::newRow("sound on, pointer hidden")
        << QByteArray("fullscreen=false\n") << QStringList{"set PCM unmute"} << true;
    QTest::newRow("muted, pointer shown")
        << QByteArray("fullscreen=false\n[slideshow]\nmute=true\nhide_pointer=false\n")
        << QStringList{"set PCM mute"} << false;
}

void TestViewer::constructionRunsDesktopCommands()
{
    QFETCH(QByteArray, prefs);
    QFETCH(QStringList, amixer);
    QFETCH(bool, unclutter);

    loadSettings(prefs);
    LogCapture log;
    Viewer viewer;
    QCOMPARE(m_fakes->callLines("amixer"), amixer);
    QCOMPARE(log.contains("Hiding mouse pointer."), unclutter);
    if (unclutter)
        QTRY_COMPARE(m_fakes->callLines("unclutter"), QStringList{"-idle 1"});
    QVERIFY(log.contains(amixer.first().endsWith("unmute")
                             ? "Enabling sound on channel: \"PCM\""
                             : "Disabling sound on channel: \"PCM\""));
    QVERIFY(viewer.isVisible());
}

void TestViewer::nextReplacesAndStarts()
{
    Viewer viewer;
    QVERIFY(!viewer.next(nullptr));
    auto *first = new Content;
    QVERIFY(viewer.next(first));
    QCOMPARE(viewer.currentContent(), first);
    QCOMPARE(first->calls, QStringList{"start"});
    QCOMPARE(first->cursor().shape(), Qt::BlankCursor);
    QCOMPARE(first->palette().color(QPalette::Window), QColor(Qt::black));

    auto *second = new Content;
    QVERIFY(viewer.next(second));
    QCOMPARE(first->calls, QStringList({"start", "stop"}));
    QCOMPARE(viewer.indexOf(first), -1);
    QCOMPARE(viewer.currentWidget(), second);
    delete first; // taken off the stack, released by its owner
}

void TestViewer::failedStartKeepsPrevious()
{
    Viewer viewer;
    auto *first = new Content;
    QVERIFY(viewer.next(first));
    auto *broken = new Content(0, false);
    QVERIFY(!viewer.next(broken));
    QCOMPARE(viewer.currentContent(), first);
    QCOMPARE(first->calls, QStringList{"start"});
    QVERIFY(viewer.indexOf(broken) >= 0);
}

void TestViewer::inputLockedForOneSecond()
{
    Viewer viewer;
    QVERIFY(viewer.playlistFilterLocked());
    auto *content = new Content;
    QVERIFY(viewer.next(content));
    QVERIFY(viewer.playlistFilterLocked());
    QTRY_VERIFY_WITH_TIMEOUT(!viewer.playlistFilterLocked(), 3000);
}

void TestViewer::readyToShootAfterChange()
{
    Viewer viewer;
    QSignalSpy shots(&viewer, &Viewer::readyToShoot);
    QVERIFY(viewer.next(new Content));
    QVERIFY(shots.wait(2000));
    QCOMPARE(shots.count(), 1);

    // Content that changes in place (a new PDF page) is captured again.
    auto *pages = new Content;
    QVERIFY(viewer.next(pages));
    QVERIFY(shots.wait(2000));
    shots.clear();
    Q_EMIT pages->pageChanged();
    QVERIFY(shots.wait(2000));
    QCOMPARE(shots.count(), 1);
}

void TestViewer::widgetEndBecomesViewerEnd()
{
    Viewer viewer;
    QSignalSpy ends(&viewer, &Viewer::end);
    auto *content = new Content(1);
    QVERIFY(viewer.next(content));
    QVERIFY(ends.wait(3000));
}

void TestViewer::pauseTogglesCurrent()
{
    Viewer viewer;
    auto *content = new Content(30);
    QVERIFY(viewer.next(content));
    viewer.pause();
    QVERIFY(!content->isActive());
    viewer.pause();
    QVERIFY(content->isActive());
    QCOMPARE(content->calls, QStringList({"start", "pause", "resume"}));
}

void TestViewer::sessionTimer()
{
    loadSettings("fullscreen=false\nstop_session_after_seconds=1\n");
    Viewer viewer;
    QSignalSpy ends(&viewer, &Viewer::end);
    viewer.resetTimer();
    QVERIFY(!viewer.sessionTimerActive()); // reset never starts a stopped timer
    viewer.setTimer();
    QVERIFY(viewer.sessionTimerActive());
    QVERIFY(ends.wait(3000));
    QVERIFY(!viewer.sessionTimerActive());
}

void TestViewer::mouseButtons_data()
{
    QTest::addColumn<QByteArray>("prefs");
    QTest::addColumn<int>("button");
    QTest::addColumn<QString>("signal");
    QTest::addColumn<bool>("killsPlayer");

    QTest::newRow("left in display mode")
        << QByteArray("fullscreen=false\n") << int(Qt::LeftButton) << "leftclick" << false;
    QTest::newRow("left in kiosk mode") << QByteArray("fullscreen=false\nmode=kiosk\n")
                                        << int(Qt::LeftButton) << QString() << false;
    QTest::newRow("middle") << QByteArray("fullscreen=false\n") << int(Qt::MiddleButton)
                            << "middleclick" << false;
    QTest::newRow("right, remote enabled")
        << QByteArray("fullscreen=false\n[remote]\nenabled=true\n") << int(Qt::RightButton)
        << "startInlineRemote" << true;
    QTest::newRow("right, remote disabled")
        << QByteArray("fullscreen=false\n") << int(Qt::RightButton) << QString() << false;
}

void TestViewer::mouseButtons()
{
    QFETCH(QByteArray, prefs);
    QFETCH(int, button);
    QFETCH(QString, signal);
    QFETCH(bool, killsPlayer);

    loadSettings(prefs);
    Viewer viewer;
    QSignalSpy left(&viewer, &Viewer::leftclick);
    QSignalSpy middle(&viewer, &Viewer::middleclick);
    QSignalSpy remote(&viewer, &Viewer::startInlineRemote);
    click(&viewer, Qt::MouseButton(button));
    QCOMPARE(left.count(), signal == "leftclick" ? 1 : 0);
    QCOMPARE(middle.count(), signal == "middleclick" ? 1 : 0);
    QCOMPARE(remote.count(), signal == "startInlineRemote" ? 1 : 0);
    QCOMPARE(m_fakes->callLines("pkill").contains("-9 omxplayer"), killsPlayer);
}

void TestViewer::leavingWithoutPassword()
{
    Viewer viewer;
    QSignalSpy terminate(&viewer, &Viewer::terminate);
    auto *content = new Content(30);
    QVERIFY(viewer.next(content));
    viewer.activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(&viewer));

    QTest::keyClick(&viewer, Qt::Key_Escape);
    QCOMPARE(terminate.count(), 1);
    QVERIFY(content->calls.contains("stop"));

    QVERIFY(!viewer.close()); // the window never closes by itself
    QCOMPARE(terminate.count(), 2);

    click(&viewer, Qt::MiddleButton); // once a widget has been shown, display mode
    QCOMPARE(terminate.count(), 3);
    QVERIFY(viewer.next(new Content(30)));
    click(&viewer, Qt::MiddleButton);
    QCOMPARE(terminate.count(), 4); // one connection, however many widgets were shown

    // Window geometry is remembered.
    QSettings settings;
    QVERIFY(settings.contains("Viewer/size"));
    QVERIFY(settings.contains("Viewer/pos"));
}

void TestViewer::leavingWithPassword_data()
{
    QTest::addColumn<QString>("typed");
    QTest::addColumn<bool>("leaves");

    QTest::newRow("right password") << "secret" << true;
    QTest::newRow("wrong password") << "guess" << false;
    QTest::newRow("cancelled") << QString() << false;
}

void TestViewer::leavingWithPassword()
{
    QFETCH(QString, typed);
    QFETCH(bool, leaves);

    loadSettings("fullscreen=false\nadmin_passwd=$6$saltsalt$TVLlQcbpFVof5W3Yz4DTP6gRstiNuHwwTt6GLc"
                 "1E5n0U0aDehy0S5knV8wiOQSpT0Y77vwPZN.Pq.H91p5hVO1\n");
    Viewer viewer;
    QSignalSpy terminate(&viewer, &Viewer::terminate);
    QVERIFY(viewer.next(new Content(30)));
    viewer.activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(&viewer));

    QTest::keyClick(&viewer, Qt::Key_Escape);
    click(&viewer, Qt::MiddleButton);
    QCOMPARE(terminate.count(), 0);

    bool answered = false;
    QTimer::singleShot(0, this, [&] {
        QTRY_VERIFY(QApplication::activeModalWidget());
        auto *dialog = qobject_cast<QInputDialog *>(QApplication::activeModalWidget());
        QVERIFY(dialog);
        answered = true;
        if (typed.isEmpty()) {
            dialog->reject();
        } else {
            dialog->setTextValue(typed);
            dialog->accept();
        }
    });
    QTest::keyClick(&viewer, Qt::Key_Q, Qt::ControlModifier);
    QVERIFY(answered);
    QCOMPARE(terminate.count(), leaves ? 1 : 0);
}

void TestViewer::fixedScreenGeometry()
{
    loadSettings("fullscreen=false\nfixedscreen=true\nlargeur_edit=320\nhauteur_edit=200\n");
    Viewer viewer;
    QCOMPARE(viewer.geometry().size(), QSize(320, 200));
    QVERIFY(viewer.windowFlags() & Qt::FramelessWindowHint);
}

QTEST_MAIN(TestViewer)
#include "tst_viewer.moc"
