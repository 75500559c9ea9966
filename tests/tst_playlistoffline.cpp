#include "commandlineparser.h"
#include "flatplaylistparser.h"
#include "playlistparser.h"
#include "settings.h"
#include "testsupport.h"

#include <QApplication>
#include <QMessageBox>
#include <QPushButton>
#include <QTcpServer>
#include <QTimer>
#include <QWidget>
#include <QtTest>

#include <memory>

using namespace testsupport;

// Going offline with nothing cached ends the application. A quit request stays pending for the
// rest of the process, so this case has a test program of its own.
class TestPlaylistOffline : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void offlineWithoutCopyQuits();

private:
    QTemporaryDir m_base;
    std::unique_ptr<CommandLineParser> m_parser;
};

void TestPlaylistOffline::initTestCase()
{
    m_parser = makeParser(m_base.path());
    Settings::load(true, m_parser.get());
}

void TestPlaylistOffline::offlineWithoutCopyQuits()
{
    TempHome home;
    QUrl url;
    {
        // A port that was free a moment ago: the connection is refused.
        QTcpServer probe;
        QVERIFY(probe.listen(QHostAddress::LocalHost));
        url = QUrl(QString("http://127.0.0.1:%1/playlist").arg(probe.serverPort()));
    }

    QWidget window;
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));

    struct Seen
    {
        int boxes = 0;
        bool windowVisible = true;
        QString title;
        QString text;
        QMessageBox::Icon icon = QMessageBox::NoIcon;
        QMessageBox::StandardButtons buttons;
    } seen;
    QTimer closer;
    closer.setInterval(20);
    connect(&closer, &QTimer::timeout, this, [&seen, &window] {
        auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
        if (!box)
            return;
        ++seen.boxes;
        seen.windowVisible = window.isVisible();
        seen.title = box->windowTitle();
        seen.text = box->text();
        seen.icon = box->icon();
        seen.buttons = box->standardButtons();
        box->button(QMessageBox::Ok)->click();
    });
    closer.start();

    LogCapture log;
    std::unique_ptr<PlaylistParser> parser(PlaylistParser::get(5, url, &window));
    closer.stop();

    QCOMPARE(seen.boxes, 1);
    QVERIFY(!seen.windowVisible);
    QCOMPARE(seen.title, QString("Network unreachable"));
    QCOMPARE(seen.text, QString("Vorsane Kiosk is Offline.\nPlease select local playlist option "
                                "or connect the system to a network."));
    QCOMPARE(seen.icon, QMessageBox::Critical);
    QCOMPARE(seen.buttons, QMessageBox::StandardButtons(QMessageBox::Ok));
    QVERIFY(log.contains("Cannot fetch playlist"));

    // Nothing to play and nothing written; the application is asked to end.
    QVERIFY(qobject_cast<FlatPlaylistParser *>(parser.get()));
    QVERIFY(!QFile::exists(PlaylistParser::localCopyPath()));
    QVERIFY(!QFile::exists(PlaylistParser::offlineCopyPath()));
    QEventLoop loop;
    QTimer::singleShot(5000, &loop, [&loop] { loop.exit(42); });
    QCOMPARE(loop.exec(), 0);
}

QTEST_MAIN(TestPlaylistOffline)
#include "tst_playlistoffline.moc"
