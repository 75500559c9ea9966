#include "testsupport.h"

#include <QProcess>
#include <QtTest>

#include <csignal>

using namespace testsupport;

// Runs the real program with a temporary HOME and recording stand-ins for its child programs.
class TestStartup : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void startupOrder_data();
    void startupOrder();
    void existingStateDirIsKept();

private:
    // Runs the program; once the show has started it is interrupted. Returns the exit code.
    int run(const QStringList &arguments);
    std::unique_ptr<TempHome> m_home;
    std::unique_ptr<FakePrograms> m_fakes;
    QByteArray m_stderr;
};

void TestStartup::init()
{
    m_home = std::make_unique<TempHome>();
    m_fakes = std::make_unique<FakePrograms>();
    for (const char *name : {"launchdock", "xset", "amixer", "unclutter", "pkill", "xmodmap",
                             "xscreensaver-command", "sudo"})
        m_fakes->add(name);
    m_fakes->add("gksu", "Adwaita\n");
}

void TestStartup::cleanup()
{
    m_fakes.reset();
    m_home.reset();
}

int TestStartup::run(const QStringList &arguments)
{
    QProcess program;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("QT_QPA_PLATFORM", "offscreen");
    env.insert("XDG_CURRENT_DESKTOP", "none");
    env.insert("LANG", "xx_YY.UTF-8"); // a locale without any translation file
    program.setProcessEnvironment(env);
    program.setWorkingDirectory(m_home->path());
    m_stderr.clear();
    connect(&program, &QProcess::readyReadStandardError, this,
            [&] { m_stderr += program.readAllStandardError(); });
    program.start(programPath(), arguments);
    const bool showStarted = QTest::qWaitFor(
        [&] { return m_stderr.contains("NB LOOPS") || program.state() == QProcess::NotRunning; },
        60000);
    if (showStarted && program.state() != QProcess::NotRunning)
        ::kill(pid_t(program.processId()), SIGINT);
    if (program.state() != QProcess::NotRunning && !program.waitForFinished(30000)) {
        program.kill();
        program.waitForFinished();
        return -1;
    }
    m_stderr += program.readAllStandardError();
    return program.exitStatus() == QProcess::NormalExit ? program.exitCode() : -2;
}

void TestStartup::startupOrder_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("preferences"); // relative to HOME; empty when help is shown

    QTest::newRow("plain start") << QStringList{"--preference", "conf/preferences"}
                                 << "conf/preferences";
    QTest::newRow("help anywhere")
        << QStringList{"--preference", "conf/preferences", "--hooks", "/h", "--help"} << QString();
    QTest::newRow("help taken as the preference file name")
        << QStringList{"--preference", "--help"} << "--help";
}

void TestStartup::startupOrder()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, preferences);

    const int code = run(QStringList{"--basepath", m_home->filePath("conf")} + arguments);
    // The state directory comes before the command line, so even help creates it.
    QVERIFY(QFileInfo(m_home->filePath(".vorsane-kiosk")).isDir());

    if (preferences.isEmpty()) {
        QCOMPARE(code, 0);
        QVERIFY(m_fakes->calls("gksu").isEmpty());
        QVERIFY(m_fakes->calls("launchdock").isEmpty());
        QVERIFY(!QFile::exists(m_home->filePath("conf/preferences")));
        QVERIFY(!m_stderr.contains("Loading settings from:"));
        return;
    }
    QCOMPARE(code, 2);
    QVERIFY(m_stderr.contains("Caught signal 2"));
    QCOMPARE(m_fakes->calls("gksu").size(), 1);
    QCOMPARE(m_fakes->callLines("launchdock").first(), QStringLiteral("--selected"));
    QCOMPARE(m_fakes->callLines("xset").first(), QStringLiteral("dpms 0 0 0"));
    QVERIFY(m_stderr.contains("Software has been updated. Remove previous configuration."));
    QVERIFY(readFile(m_home->filePath(preferences)).contains("version=QFGLs6IVf1"));
}

void TestStartup::existingStateDirIsKept()
{
    const QString marker = m_home->filePath(".vorsane-kiosk/playlist");
    QVERIFY(writeFile(marker, "kept"));
    QCOMPARE(run({"--basepath", m_home->filePath("conf")}), 2);
    QCOMPARE(readFile(marker), QByteArray("kept"));
}

QTEST_GUILESS_MAIN(TestStartup)
#include "tst_startup.moc"
