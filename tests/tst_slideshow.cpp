#include "testsupport.h"

#include <QImage>
#include <QProcess>
#include <QUdpSocket>
#include <QtTest>

#include <csignal>

using namespace testsupport;

// The real program under Xvfb, playing a playlist of solid-colour pictures.
class TestSlideshow : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void playsInOrderAndStopsOnInterrupt();
    void remoteCommands();

private:
    void startProgram(const QByteArray &playlist);
    QColor screenColor() const;
    bool screenShows(const QColor &color, int timeoutMs = 15000);
    void send(const QByteArray &datagram);

    std::unique_ptr<TempHome> m_home;
    std::unique_ptr<FakePrograms> m_fakes;
    std::unique_ptr<QProcess> m_program;
    QByteArray m_stderr;
};

void TestSlideshow::init()
{
    m_home = std::make_unique<TempHome>();
    m_fakes = std::make_unique<FakePrograms>();
    for (const char *name : {"launchdock", "amixer", "unclutter", "pkill", "xmodmap", "xset",
                             "gksu", "xscreensaver-command", "sudo"})
        m_fakes->add(name);
    QFile::remove("/tmp/screen.png");
    for (const auto &[name, color] :
         {std::pair{"red.png", Qt::red}, std::pair{"green.png", Qt::green},
          std::pair{"blue.png", Qt::blue}})
        QVERIFY(
            makeImage(m_home->filePath(QString("pics/") + name), QSize(320, 240), color, "PNG"));
}

void TestSlideshow::cleanup()
{
    if (m_program && m_program->state() != QProcess::NotRunning) {
        m_program->kill();
        m_program->waitForFinished(5000);
    }
    m_program.reset();
    m_fakes.reset();
    m_home.reset();
}

void TestSlideshow::startProgram(const QByteArray &playlist)
{
    QVERIFY(writeFile(m_home->filePath("conf/playlist"), playlist));
    QVERIFY(writeFile(
        m_home->filePath("conf/preferences"),
        "[main]\nversion=QFGLs6IVf1\nfullscreen=false\n[slideshow]\nhide_pointer=false\n"));
    m_program = std::make_unique<QProcess>();
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("QT_QPA_PLATFORM", "xcb");
    env.insert("XDG_CURRENT_DESKTOP", "none");
    m_program->setProcessEnvironment(env);
    connect(m_program.get(), &QProcess::readyReadStandardError, this,
            [this] { m_stderr += m_program->readAllStandardError(); });
    m_program->start(programPath(), {"--basepath", m_home->filePath("conf")});
    QVERIFY(m_program->waitForStarted(10000));
}

QColor TestSlideshow::screenColor() const
{
    const QImage shot("/tmp/screen.png");
    if (shot.isNull())
        return QColor();
    return shot.pixelColor(shot.width() / 2, shot.height() / 2);
}

bool TestSlideshow::screenShows(const QColor &color, int timeoutMs)
{
    return QTest::qWaitFor([&] { return screenColor() == color; }, timeoutMs);
}

void TestSlideshow::send(const QByteArray &datagram)
{
    QUdpSocket socket;
    socket.writeDatagram(datagram, QHostAddress::LocalHost, 54545);
}

void TestSlideshow::playsInOrderAndStopsOnInterrupt()
{
    const QString pics = m_home->filePath("pics/");
    startProgram("#Vorsane playlist\nfile://" + pics.toUtf8() + "red.png 2\nfile://" + pics.toUtf8()
                 + "green.png 2\nfile://" + pics.toUtf8() + "blue.png 2\n");
    QVERIFY2(screenShows(Qt::red), m_stderr.right(2000));
    QVERIFY2(screenShows(Qt::green), m_stderr.right(2000));
    QVERIFY2(screenShows(Qt::blue), m_stderr.right(2000));
    QVERIFY2(screenShows(Qt::red), m_stderr.right(2000)); // the loop starts over

    ::kill(pid_t(m_program->processId()), SIGINT);
    QVERIFY(m_program->waitForFinished(15000));
    QCOMPARE(m_program->exitStatus(), QProcess::NormalExit);
    QCOMPARE(m_program->exitCode(), 2);
    QVERIFY(m_stderr.contains("Caught signal 2"));
    QCOMPARE(m_fakes->callLines("xset").first(), QStringLiteral("dpms 0 0 0"));
}

void TestSlideshow::remoteCommands()
{
    const QString pics = m_home->filePath("pics/");
    startProgram("#Vorsane playlist\nfile://" + pics.toUtf8() + "red.png 4\nfile://" + pics.toUtf8()
                 + "green.png 4\nfile://" + pics.toUtf8() + "blue.png 4\n");
    QVERIFY2(screenShows(Qt::red), m_stderr.right(2000));

    // Items are counted with the demo picture the loop carries at position 1.
    send(R"({"action": 2, "data": {"index": 3, "loop": 0}})");
    QVERIFY2(screenShows(Qt::blue, 5000), m_stderr.right(2000));

    send(R"({"action": 2, "data": {"filePath": ")" + pics.toUtf8() + R"(green.png"}})");
    QVERIFY2(screenShows(Qt::green, 5000), m_stderr.right(2000));

    QFile::remove("/tmp/screen.png");
    send(R"({"action": 3})");
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists("/tmp/screen.png"), 5000);

    send(R"({"action": 4})");
    QVERIFY2(screenShows(Qt::red, 10000), m_stderr.right(2000));

    m_program->terminate();
}

QTEST_GUILESS_MAIN(TestSlideshow)
#include "tst_slideshow.moc"
