#include "browser.h"
#include "dispatcher.h"
#include "httpserver.h"
#include "image.h"
#include "locationedit.h"
#include "navbar.h"
#include "page.h"
#include "restrictedwebview.h"
#include "show.h"
#include "viewer.h"
#include "webtest.h"

#include <QDialog>
#include <QRegularExpression>
#include <QStatusBar>
#include <QTabWidget>
#include <QtTest>

#include <csignal>
#include <cstdarg>
#include <unistd.h>

using namespace testsupport;

namespace {
QStringList s_systemLog;

void record(const char *format, va_list arguments)
{
    char line[4096];
    std::vsnprintf(line, sizeof line, format, arguments);
    s_systemLog << QString::fromUtf8(line);
}
} // namespace

// The system log, read where the program writes it.
extern "C" void syslog(int, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    record(format, arguments);
    va_end(arguments);
}

extern "C" void __syslog_chk(int, int, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    record(format, arguments);
    va_end(arguments);
}

// Web sessions end to end: the real dispatcher and viewer under X, the real browser against a
// local HTTP server, recording stand-ins for desktop programs and hook scripts.
class TestKiosk : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void listsFilterNavigation_data();
    void listsFilterNavigation();
    void subFramesAreFiltered();
    void blankTargetOpensTab();
    void downloadIsOpenedAndEndsWithSession();
    void basicAuthentication();
    void touchesOpenOneSessionUntilItsTimerEnds();
    void activityKeepsSessionAlive_data();
    void activityKeepsSessionAlive();
    void alertOpenWhenSessionEnds();
    void inlineRemoteIsInteractive_data();
    void inlineRemoteIsInteractive();
    void frozenTabIsClosed();

private:
    void launch(const QStringList &prefs, const QByteArray &list = QByteArray());
    Browser *browser() const { return qobject_cast<Browser *>(m_show->dispatcher->shownWidget()); }
    static QString text(Browser *browser);
    static RestrictedWebView *view(Browser *browser) { return browser->currentPage()->view(); }
    // Acts on the first visible window of that class as soon as it shows, even inside its loop.
    void onWindow(const char *className, std::function<void(QWidget *)> act);
    void html(const QString &path, const QByteArray &body)
    {
        m_server->setRoute(path, body, 200, {{"Content-Type", "text/html"}});
    }
    QString hookCalls() const { return readFile(m_show->home.filePath("hooks.log")); }

    std::unique_ptr<Show> m_show;
    std::unique_ptr<HttpServer> m_server;
};

void TestKiosk::initTestCase()
{
    QCoreApplication::setOrganizationName(QStringLiteral("VorsaneTest"));
}

void TestKiosk::init()
{
    m_show = std::make_unique<Show>();
    m_server = std::make_unique<HttpServer>();
    html("/home", "<p>WELCOME</p>");
    html("/other", "<p>SECRET</p>");
    s_systemLog.clear();
}

void TestKiosk::cleanup()
{
    m_show.reset();
    m_server.reset();
}

void TestKiosk::launch(const QStringList &prefs, const QByteArray &list)
{
    const QString red = m_show->home.filePath("red.png");
    QVERIFY(makeImage(red, QSize(64, 48), Qt::red, "PNG"));
    QVERIFY(writeFile(m_show->confPath("list"), list));
    for (const char *hook : {"session-start", "session-stop"}) {
        const QString path = m_show->confPath(QString("hooks/") + hook);
        QVERIFY(writeFile(path, "#!/bin/sh\necho " + QByteArray(hook).mid(8) + " >> '"
                                    + m_show->home.filePath("hooks.log").toUtf8() + "'\n"));
        QFile::setPermissions(path, QFileDevice::ReadOwner | QFileDevice::ExeOwner);
    }
    QVERIFY(m_show->launch(
        "#Vorsane playlist\nfile://" + red.toUtf8() + " 60\n",
        QStringList{"main/mode=kiosk", "main/default_url=" + m_server->url("/home").toString()}
            + prefs));
}

QString TestKiosk::text(Browser *browser)
{
    return browser ? pageText(view(browser)) : QString();
}

void TestKiosk::onWindow(const char *className, std::function<void(QWidget *)> act)
{
    auto *timer = new QTimer(this);
    connect(timer, &QTimer::timeout, this, [timer, className, act] {
        for (QWidget *window : QApplication::topLevelWidgets()) {
            if (window->isVisible()
                && (window->inherits(className) || window->objectName() == className)) {
                timer->stop();
                timer->deleteLater();
                act(window);
                return;
            }
        }
    });
    timer->start(50);
}

void TestKiosk::listsFilterNavigation_data()
{
    QTest::addColumn<QString>("mode");
    QTest::addColumn<QByteArray>("list");
    // Lines the filter cannot use, each named in the log.
    QTest::addColumn<int>("problems");
    QTest::newRow("white list names the home page") << "whitelist" << QByteArray("/home\n") << 0;
    QTest::newRow("black list names the other page") << "blacklist" << QByteArray("/other\n") << 0;
    QTest::newRow("white list among malformed lines")
        << "whitelist"
        << QByteArray("\x00\x01\xff\xfe binary\n", 13) + QByteArray(1 << 20, 'a')
               + "\n(unbalanced\n[also\n/home\n"
        << 3;
}

void TestKiosk::listsFilterNavigation()
{
    QFETCH(QString, mode);
    QFETCH(QByteArray, list);
    QFETCH(int, problems);
    launch({"main/list_mode=" + mode}, list);
    QVERIFY(browser());
    QTRY_VERIFY(text(browser()).contains("WELCOME"));
    QCOMPARE(m_show->log.lines().filter(QRegularExpression("^Restriction file")).size(), problems);
    QVERIFY(s_systemLog.contains("ALLOWED: " + m_server->url("/home").toString()));

    const QString other = m_server->url("/other").toString();
    NavBar *bar = browser()->currentPage()->navBar();
    bar->locationEdit()->setText(other);
    bar->onLocationChanged();
    QTRY_COMPARE(browser()->statusBar()->currentMessage(), "DENIED: " + other);
    QVERIFY(s_systemLog.contains("DENIED: " + other));
    QCOMPARE(m_server->requestCount("/other"), 0);
    QVERIFY(text(browser()).contains("WELCOME"));
}

void TestKiosk::subFramesAreFiltered()
{
    html("/home", "<p>WELCOME</p><iframe src='/other'></iframe>");
    launch({"main/list_mode=blacklist"}, "/other\n");
    QTRY_VERIFY(text(browser()).contains("WELCOME"));
    const QString other = m_server->url("/other").toString();
    QTRY_VERIFY(s_systemLog.contains("DENIED: " + other));
    QCOMPARE(browser()->statusBar()->currentMessage(), "DENIED: " + other);
    QCOMPARE(m_server->requestCount("/other"), 0);
}

void TestKiosk::blankTargetOpensTab()
{
    html("/home", "<a id='l' target='_blank' href='/other' "
                  "style='display:block;width:300px;height:80px'>open</a>");
    launch({});
    QTRY_VERIFY(text(browser()).contains("open"));
    const QRect link = elementRect(view(browser()), "#l");
    QVERIFY(!link.isEmpty());
    QTest::mouseClick(inputWidget(view(browser())), Qt::LeftButton, {}, link.center());
    QTRY_COMPARE(browser()->tabs()->count(), 2);
    QTRY_VERIFY(text(browser()).contains("SECRET"));
}

void TestKiosk::downloadIsOpenedAndEndsWithSession()
{
    // The opener hands the file on to a viewer that runs on after it, like xdg-open does.
    const QString pidFile = m_show->home.filePath("viewer.pid");
    m_show->fakes.addScript("xdg-open", "sleep 3600 & echo $! > '" + pidFile.toUtf8() + "'");
    m_server->setRoute("/report", "REPORT-BODY", 200,
                       {{"Content-Type", "text/plain"},
                        {"Content-Disposition", "attachment; filename=\"my report.txt\""}});
    launch({});
    QTRY_VERIFY(text(browser()).contains("WELCOME"));
    view(browser())->load(m_server->url("/report"));
    const QString folder = QStringLiteral("/tmp/sitedeck-%1").arg(::getuid());
    QTRY_COMPARE(m_show->fakes.callLines("xdg-open"), QStringList{folder + "/my report.txt"});
    QCOMPARE(readFile(folder + "/my report.txt"), QByteArray("REPORT-BODY"));
    QTRY_VERIFY(!readFile(pidFile).isEmpty());
    const pid_t viewerPid = readFile(pidFile).trimmed().toInt();
    QCOMPARE(::kill(viewerPid, 0), 0);

    browser()->onEnd();
    QTRY_COMPARE(m_show->dispatcher->state(), 3);
    QVERIFY(!QFileInfo::exists(folder));
    QTRY_VERIFY(::kill(viewerPid, 0) != 0);
}

void TestKiosk::basicAuthentication()
{
    m_server->setRoute("/secret", "no", 401, {{"WWW-Authenticate", "Basic realm=\"kiosk\""}});
    launch({});
    QTRY_VERIFY(text(browser()).contains("WELCOME"));
    onWindow("AuthDialog", [this](QWidget *dialog) {
        html("/secret", "<p>INSIDE</p>");
        dialog->findChild<QLineEdit *>("usernameEdit")->setText("visitor");
        dialog->findChild<QLineEdit *>("passwordEdit")->setText("open sesame");
        static_cast<QDialog *>(dialog)->accept();
    });
    view(browser())->load(m_server->url("/secret"));
    QTRY_VERIFY(text(browser()).contains("INSIDE"));
    QCOMPARE(m_server->lastRequest("/secret").header("authorization"),
             "Basic " + QByteArray("visitor:open sesame").toBase64());
}

void TestKiosk::touchesOpenOneSessionUntilItsTimerEnds()
{
    launch({"main/start_with_session=false", "slideshow/stop_on_event=true", "main/with_timer=true",
            "main/default_timer=2"});
    QVERIFY(qobject_cast<Image *>(m_show->dispatcher->shownWidget()));
    m_show->log.clear();
    // The first touch reaches the viewer through the filter on the picture, once the second
    // after the change has passed; the others arrive while the session opens or runs.
    QTRY_VERIFY(!m_show->viewer->playlistFilterLocked());
    QMouseEvent touch(QEvent::MouseMove, QPointF(10, 10), QPointF(10, 10), Qt::NoButton,
                      Qt::NoButton, Qt::NoModifier);
    QApplication::sendEvent(m_show->dispatcher->shownWidget(), &touch);
    QPointer<Browser> session = browser();
    QVERIFY(session);
    for (int i = 0; i < 2; ++i)
        m_show->viewer->emitMouseEvent();
    QCOMPARE(browser(), session.data());
    QCOMPARE(m_show->viewer->findChildren<Browser *>().size(), 1);
    QCOMPARE(hookCalls(), QString("start\n"));
    QCOMPARE(m_show->log.count("NB LOOPS"), 0);

    const auto remaining = [&session] {
        for (QLabel *label : session->findChildren<QLabel *>()) {
            if (label->text().startsWith("remaining:"))
                return label->text();
        }
        return QString();
    };
    QTRY_COMPARE(remaining(), QString("remaining: 00:00:01"));
    QTRY_VERIFY_WITH_TIMEOUT(qobject_cast<Image *>(m_show->dispatcher->shownWidget()), 10000);
    QCOMPARE(m_show->dispatcher->state(), 3);
    QCOMPARE(hookCalls(), QString("start\nstop\n"));
    QTRY_VERIFY(!session);
}

void TestKiosk::activityKeepsSessionAlive_data()
{
    QTest::addColumn<QString>("input");
    QTest::addColumn<bool>("overPage");

    QTest::newRow("pointer moves over the page") << "move" << true;
    // Its tab bar and status bar.
    QTest::newRow("pointer moves over the browser around the page") << "move" << false;
    QTest::newRow("typing into the page") << "key" << true;
    QTest::newRow("wheel over the page") << "wheel" << true;
    QTest::newRow("touch on the page") << "touch" << true;
}

void TestKiosk::activityKeepsSessionAlive()
{
    QFETCH(QString, input);
    QFETCH(bool, overPage);

    // A field that takes the keys: typed keys must not need to bubble up to count.
    html("/home", "<input id='i' autofocus>");
    launch({"main/stop_session_after_seconds=2"});
    QVERIFY(browser() && m_show->viewer->sessionTimerActive());
    view(browser())->setFocus();
    static auto *touchScreen = QTest::createTouchDevice();
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < 3500 && browser()) {
        QWidget *target = overPage ? static_cast<QWidget *>(view(browser())) : browser();
        const QPoint at(100, 100 + int(clock.elapsed() % 50));
        if (input == QLatin1String("move")) {
            QMouseEvent move(QEvent::MouseMove, at, target->mapToGlobal(at), Qt::NoButton,
                             Qt::NoButton, Qt::NoModifier);
            QApplication::sendEvent(target, &move);
        } else if (input == QLatin1String("key")) {
            // Keys reach whatever inside the view has the focus.
            QWidget *focus = target->focusProxy() ? target->focusProxy() : target;
            QTest::keyClick(focus, Qt::Key_A);
        } else if (input == QLatin1String("wheel")) {
            QWheelEvent wheel(at, target->mapToGlobal(at), QPoint(), QPoint(0, -120), Qt::NoButton,
                              Qt::NoModifier, Qt::NoScrollPhase, false);
            QApplication::sendEvent(target, &wheel);
        } else {
            // One sequence per state: a release in the same sequence would replace the press.
            QTest::touchEvent(target, touchScreen).press(0, at, target);
            QTest::touchEvent(target, touchScreen).release(0, at, target);
        }
        QTest::qWait(300);
    }
    QVERIFY(browser());
    QCOMPARE(m_show->dispatcher->state(), 1);
    QTRY_VERIFY_WITH_TIMEOUT(qobject_cast<Image *>(m_show->dispatcher->shownWidget()), 5000);
}

void TestKiosk::alertOpenWhenSessionEnds()
{
    html("/home", "<p>WELCOME</p><script>alert('hello')</script>");
    QPointer<QWidget> alert;
    bool seen = false;
    // Left open: the session timer runs out inside the alert's own event loop.
    onWindow("QMessageBox", [&alert, &seen](QWidget *box) { alert = box, seen = true; });
    launch({"main/stop_session_after_seconds=2"});
    QPointer<Browser> session = browser();
    QTRY_VERIFY(seen);
    QTRY_VERIFY_WITH_TIMEOUT(qobject_cast<Image *>(m_show->dispatcher->shownWidget()), 10000);
    QTRY_VERIFY(!alert || !alert->isVisible());
    QTRY_VERIFY(!session);
    QCOMPARE(m_show->dispatcher->state(), 3);
}

void TestKiosk::inlineRemoteIsInteractive_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("query");

    QTest::newRow("a plain key") << "abc" << "?k=abc";
    QTest::newRow("no key (the default)") << "" << "";
    QTest::newRow("a key that needs percent-encoding") << "a b&c" << "?k=a%20b%26c";
}

void TestKiosk::inlineRemoteIsInteractive()
{
    QFETCH(QString, key);
    QFETCH(QString, query);

    html("/remote", "<input id='i' style='width:300px;height:40px'>");
    launch({"main/mode=display", "remote/enabled=true", "main/stop_session_after_seconds=2",
            "remote/local_url=" + m_server->url("/remote").toString(), "remote/key=" + key});
    m_show->dispatcher->startInlineRemote();
    QVERIFY(browser());
    QCOMPARE(browser()->getHome(), QUrl(m_server->url("/remote").toString() + query));
    RestrictedWebView *remote = view(browser());
    QTRY_VERIFY(!elementRect(remote, "#i").isEmpty());
    // A page that has not shown its first frame yet drops clicks: click until the field has the
    // focus.
    QTRY_VERIFY((QTest::mouseClick(inputWidget(remote), Qt::LeftButton, {},
                                   elementRect(remote, "#i").center()),
                 runScript(remote, "document.activeElement.id").toString() == "i"));
    QTest::keyClicks(inputWidget(remote), "hi");
    QTRY_COMPARE(runScript(remote, "document.getElementById('i').value").toString(),
                 QString("hi"));
    QVERIFY(!m_show->viewer->sessionTimerActive());
    browser()->onEnd();
    QTRY_VERIFY(qobject_cast<Image *>(m_show->dispatcher->shownWidget()));
}

void TestKiosk::frozenTabIsClosed()
{
    // QtWebKit runs scripts on the program's own thread: there the watchdog ends the program.
    if (QLatin1String(VORSANE_WEB_ENGINE_NAME) != QLatin1String("webengine"))
        QSKIP("scripts share the program's thread in this engine");
    m_server->setRoute("/started", "ok");
    html("/endless", "<script>var r=new XMLHttpRequest();r.open('GET','/started',false);r.send();"
                     "while(true){}</script>");
    launch({});
    QTRY_VERIFY(text(browser()).contains("WELCOME"));
    browser()->newPage(m_server->url("/endless"));
    QCOMPARE(browser()->tabs()->count(), 2);
    QTRY_COMPARE(m_server->requestCount("/started"), 1);

    const QString endless = m_server->url("/endless").toString();
    QTRY_COMPARE_WITH_TIMEOUT(browser()->tabs()->count(), 1, 15000);
    QCOMPARE(browser()->statusBar()->currentMessage(),
             "The page " + endless + " stopped answering and was closed.");
    QCOMPARE(m_show->log.lines().filter(QRegularExpression("^Tab " + QRegularExpression::escape(endless)
                                                           + " did not answer")).size(),
             1);
    // The session goes on, in its other tab.
    QCOMPARE(m_show->dispatcher->state(), 1);
    QVERIFY(text(browser()).contains("WELCOME"));
}

QTEST_MAIN(TestKiosk)
#include "tst_kiosk.moc"
