#include "testsupport.h"

#include <QProcess>
#include <QtTest>

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
    int run(const QStringList &arguments);
    std::unique_ptr<TempHome> m_home;
    std::unique_ptr<FakePrograms> m_fakes;
    QByteArray m_stderr;
};

void TestStartup::init()
{
    m_home = std::make_unique<TempHome>();
    m_fakes = std::make_unique<FakePrograms>();
    m_fakes->add("gksu", "Adwaita\n");
    m_fakes->add("launchdock");
    m_fakes->add("xset");
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
    env.insert("LANG", "xx_YY.UTF-8"); // a locale without any translation file
    program.setProcessEnvironment(env);
    program.setWorkingDirectory(m_home->path());
    program.start(programPath(), arguments);
    if (!program.waitForFinished(60000))
        return -1;
    m_stderr = program.readAllStandardError();
    return program.exitStatus() == QProcess::NormalExit ? program.exitCode() : -2;
}

void TestStartup::startupOrder_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<bool>("help");

    QTest::newRow("plain start") << QStringList() << false;
    QTest::newRow("help anywhere") << QStringList{"--hooks", "/h", "--help"} << true;
}

void TestStartup::startupOrder()
{
    QFETCH(QStringList, arguments);
    QFETCH(bool, help);

    const QString prefs = m_home->filePath("conf/preferences");
    QCOMPARE(
        run(QStringList{"--basepath", m_home->filePath("conf"), "--preference", prefs} + arguments),
        0);
    // The state directory comes before the command line, so even help creates it.
    QVERIFY(QFileInfo(m_home->filePath(".vorsane-kiosk")).isDir());

    if (help) {
        QVERIFY(m_fakes->calls("gksu").isEmpty());
        QVERIFY(m_fakes->calls("launchdock").isEmpty());
        QVERIFY(!QFile::exists(prefs));
        QVERIFY(!m_stderr.contains("Loading settings from:"));
        return;
    }
    QCOMPARE(m_fakes->calls("gksu").size(), 1);
    QCOMPARE(m_fakes->callLines("launchdock"), QStringList({"--selected"}));
    QVERIFY(m_stderr.contains("Loading settings from: \"" + prefs.toUtf8() + "\""));
    QVERIFY(m_stderr.contains("Software has been updated. Remove previous configuration."));
    QVERIFY(readFile(prefs).contains("version=QFGLs6IVf1"));
}

void TestStartup::existingStateDirIsKept()
{
    const QString marker = m_home->filePath(".vorsane-kiosk/playlist");
    QVERIFY(writeFile(marker, "kept"));
    QCOMPARE(run({"--basepath", m_home->filePath("conf"), "--preference",
                  m_home->filePath("conf/preferences")}),
             0);
    QCOMPARE(readFile(marker), QByteArray("kept"));
}

QTEST_GUILESS_MAIN(TestStartup)
#include "tst_startup.moc"
