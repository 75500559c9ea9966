#include "maintenance.h"
#include "testsupport.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSignalSpy>
#include <QtTest>

using namespace testsupport;

namespace {
const char desktop[] = "/home/pi/Desktop/";
const char script[] = "/home/pi/Desktop/maintenance_vorsane-kiosk.sh";
const char dataDir[] = "/home/pi/.vorsane-kiosk/data";
const char marker[] = "/home/pi/.vorsane-kiosk/data//maintenance.txt";

// Makes the desktop user's data directory for one test, only where there is no such user yet,
// and removes everything it made afterwards.
class PiHome
{
public:
    PiHome()
    {
        if (QFile::exists(QStringLiteral("/home/pi")))
            return;
        m_created = QDir().mkpath(QString::fromLatin1(dataDir));
        if (!m_created)
            QDir(QStringLiteral("/home/pi")).removeRecursively();
    }
    ~PiHome()
    {
        if (m_created)
            QDir(QStringLiteral("/home/pi")).removeRecursively();
    }
    bool created() const { return m_created; }

private:
    bool m_created = false;
};
} // namespace

class TestMaintenance : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void unpacksThenRunsScript_data();
    void unpacksThenRunsScript();
    void scriptRunsOnlyAfterUnpacking();
    void scriptOutputIsEchoed();
    void scriptEndIsReported_data();
    void scriptEndIsReported();
    void reboot_data();
    void reboot();
};

void TestMaintenance::unpacksThenRunsScript_data()
{
    QTest::addColumn<QString>("location");
    QTest::addColumn<int>("unzipExitCode");
    QTest::addColumn<QString>("archive");

    QTest::newRow("archive on a USB key")
        << "file:///media/usb/pack.zip" << 0 << "/media/usb/pack.zip";
    QTest::newRow("cached archive with a blank in its name")
        << "file:///tmp/cache dir/aHR0cDovL2V4YW1wbGU=" << 0
        << "/tmp/cache dir/aHR0cDovL2V4YW1wbGU=";
    QTest::newRow("missing archive still runs the script")
        << "file:///nowhere/pack.zip" << 9 << "/nowhere/pack.zip";
}

void TestMaintenance::unpacksThenRunsScript()
{
    QFETCH(QString, location);
    QFETCH(int, unzipExitCode);
    QFETCH(QString, archive);

    FakePrograms fakes;
    fakes.add("unzip", "", unzipExitCode);
    fakes.add("sh");
    LogCapture log;
    Maintenance maintenance(nullptr);
    maintenance.startMaintenance(location);

    QVERIFY(log.lines().contains(QLatin1Char('"') + archive + QLatin1Char('"')));
    QCOMPARE(fakes.calls("unzip"),
             QList<QStringList>({{"-o", archive, "-d", QString::fromLatin1(desktop)}}));
    QCOMPARE(fakes.calls("sh"), QList<QStringList>({{QString::fromLatin1(script)}}));
    // Both children are released once done.
    QTRY_VERIFY(maintenance.findChildren<QProcess *>().isEmpty());
}

void TestMaintenance::scriptRunsOnlyAfterUnpacking()
{
    FakePrograms fakes;
    const QByteArray unpacked = fakes.dir().toUtf8() + "/unpacked";
    fakes.addScript("unzip", "sleep 0.3; touch '" + unpacked + "'");
    fakes.addScript("sh", "if [ -e '" + unpacked + "' ]; then echo after; else echo before; fi");
    LogCapture log;
    Maintenance maintenance(nullptr);
    maintenance.startMaintenance(QStringLiteral("file:///media/usb/pack.zip"));

    QCOMPARE(fakes.calls("sh").size(), 1);
    QVERIFY(log.contains(QStringLiteral("\"after\\n\"")));
    QVERIFY(!log.contains(QStringLiteral("before")));
}

void TestMaintenance::scriptOutputIsEchoed()
{
    FakePrograms fakes;
    fakes.add("unzip");
    fakes.addScript("sh", "echo 'step 1 done'; echo 'disk almost full' >&2");
    LogCapture log;
    Maintenance maintenance(nullptr);
    maintenance.startMaintenance(QStringLiteral("file:///media/usb/pack.zip"));

    QVERIFY(log.lines().contains(QStringLiteral("\"step 1 done\\n\"")));
    QVERIFY(log.lines().contains(QStringLiteral("\"disk almost full\\n\"")));
    // Nothing left to read is not echoed as an empty line.
    QVERIFY(!log.lines().contains(QStringLiteral("\"\"")));
}

void TestMaintenance::scriptEndIsReported_data()
{
    QTest::addColumn<int>("exitCode");
    QTest::newRow("script succeeded") << 0;
    QTest::newRow("script failed") << 3;
}

void TestMaintenance::scriptEndIsReported()
{
    QFETCH(int, exitCode);
    FakePrograms fakes;
    fakes.add("unzip");
    fakes.add("sh", "", exitCode);
    Maintenance maintenance(nullptr);
    QSignalSpy finished(&maintenance, &Maintenance::scriptFinished);
    maintenance.startMaintenance(QStringLiteral("file:///media/usb/pack.zip"));
    QTRY_COMPARE(finished.count(), 1);
    QCOMPARE(finished.first().first().toInt(), exitCode);
}

void TestMaintenance::reboot_data()
{
    QTest::addColumn<bool>("dataDirWritable");
    QTest::newRow("data directory missing") << false;
    QTest::newRow("data directory writable") << true;
}

void TestMaintenance::reboot()
{
    QFETCH(bool, dataDirWritable);

    FakePrograms fakes;
    fakes.add("sudo");
    std::unique_ptr<PiHome> pi;
    if (dataDirWritable) {
        pi = std::make_unique<PiHome>();
        if (!pi->created())
            QSKIP("the desktop user's home exists or cannot be made here");
    } else if (QFile::exists(QString::fromLatin1(dataDir))) {
        QSKIP("the desktop user's data directory exists here");
    }

    Maintenance maintenance(nullptr);
    maintenance.reboot();

    QTRY_COMPARE(fakes.calls("sudo"), QList<QStringList>({{"reboot", "now"}}));
    if (dataDirWritable)
        QCOMPARE(readFile(QString::fromLatin1(marker)), QByteArray("Update succeed!"));
    else
        QVERIFY(!QFile::exists(QString::fromLatin1(marker)));
}

QTEST_GUILESS_MAIN(TestMaintenance)
#include "tst_maintenance.moc"
