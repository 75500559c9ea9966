#include "commandlineparser.h"
#include "processoutputreader.h"
#include "settings.h"
#include "testsupport.h"
#include "utils.h"

#include <QProcess>
#include <QStorageInfo>
#include <QtTest>

using namespace testsupport;

namespace {
// crypt(3) hashes of "secret" (SHA-512) and "kiosk" (MD5), made with openssl passwd.
const char sha512Secret[] = "$6$saltsalt$TVLlQcbpFVof5W3Yz4DTP6gRstiNuHwwTt6GLc1E5n0U0aDehy0S5kn"
                            "V8wiOQSpT0Y77vwPZN.Pq.H91p5hVO1";
const char md5Kiosk[] = "$1$ab12$DdzRxZ2GeEJLSutvWMssu/";
} // namespace

class TestUtils : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void adminPassword_data();
    void adminPassword();
    void diskSpace();
    void randomStrings();
    void iconTheme_data();
    void iconTheme();
    void processOutputReader();
    void runAndWait_data();
    void runAndWait();

private:
    TempHome m_home;
    FakePrograms m_fakes;
    std::unique_ptr<CommandLineParser> m_parser;
};

void TestUtils::initTestCase()
{
    m_fakes.add("launchdock");
    m_parser = makeParser(m_home.path());
    Settings::load(true, m_parser.get());
}

void TestUtils::adminPassword_data()
{
    QTest::addColumn<QString>("stored");
    QTest::addColumn<QString>("typed");
    QTest::addColumn<bool>("accepted");

    QTest::newRow("no password, empty input") << QString() << QString() << true;
    QTest::newRow("no password, any input") << QString() << "anything" << true;
    QTest::newRow("sha512, right word") << sha512Secret << "secret" << true;
    QTest::newRow("sha512, one character changed") << sha512Secret << "secreT" << false;
    QTest::newRow("sha512, empty input") << sha512Secret << QString() << false;
    QTest::newRow("sha512, the hash itself") << sha512Secret << sha512Secret << false;
    QTest::newRow("md5, right word") << md5Kiosk << "kiosk" << true;
    QTest::newRow("md5, prefix of the word") << md5Kiosk << "kios" << false;
    QTest::newRow("stored text is not a hash") << "plain"
                                               << "plain" << false;
}

void TestUtils::adminPassword()
{
    QFETCH(QString, stored);
    QFETCH(QString, typed);
    QFETCH(bool, accepted);

    Settings::load(false, nullptr)->set("main/admin_passwd", stored);
    QCOMPARE(Utils::validateAdminPassword(typed), accepted);
}

void TestUtils::diskSpace()
{
    const QStorageInfo root("/");
    QCOMPARE(Utils::totalDiskSpace(), root.bytesTotal());
    const qint64 available = Utils::availableDiskSpace();
    QVERIFY(available > 0);
    QVERIFY(available <= Utils::totalDiskSpace());
    // Other processes write meanwhile; allow a little drift.
    QVERIFY(qAbs(available - root.bytesAvailable()) < 512 * 1024 * 1024);
}

void TestUtils::randomStrings()
{
    const QByteArray alphabet = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ1234567890";
    QCOMPARE(Utils::genString(0), std::string());
    QSet<char> seen;
    for (int round = 0; round < 200; ++round) {
        const std::string text = Utils::genString(8);
        QCOMPARE(text.size(), size_t(8));
        for (char c : text) {
            QVERIFY(alphabet.contains(c));
            seen.insert(c);
        }
    }
    // 1600 draws over 62 characters: every character shows up unless the modulo is wrong.
    QCOMPARE(seen.size(), 62);
}

void TestUtils::iconTheme_data()
{
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("theme");

    QTest::newRow("name with blanks and line end") << QByteArray("  Adwaita \n") << 0 << "Adwaita";
    QTest::newRow("inner blanks collapse") << QByteArray("My   Theme\n") << 0 << "My Theme";
    QTest::newRow("text after a NUL byte is ignored")
        << QByteArray("Papirus\0junk", 12) << 0 << "Papirus";
    QTest::newRow("no output") << QByteArray() << 1 << "elementary-xfce";
    QTest::newRow("only blanks") << QByteArray(" \n\t") << 0 << "elementary-xfce";
}

void TestUtils::iconTheme()
{
    QFETCH(QByteArray, output);
    QFETCH(int, exitCode);
    QFETCH(QString, theme);

    FakePrograms fakes;
    fakes.add("gksu", output, exitCode);
    QCOMPARE(Utils::getIconTheme(), theme);
    QCOMPARE(
        fakes.calls("gksu"),
        QList<QStringList>({{"--u", "pi", "xfconf-query -c xsettings -p /Net/IconThemeName"}}));
}

void TestUtils::processOutputReader()
{
    FakePrograms fakes;
    fakes.addScript("worker", "echo first line; echo second line; exit 3");
    QProcess process;
    ProcessOutputReader reader(&process);
    LogCapture log;
    process.start("worker", {"--flag"});
    QCOMPARE(reader.loop(), 3);
    QVERIFY(log.contains("first line"));
    QVERIFY(log.contains("Finish with return code: 3"));
    QCOMPARE(fakes.callLines("worker"), QStringList({"--flag"}));
}

void TestUtils::runAndWait_data()
{
    QTest::addColumn<QByteArray>("body"); // null: the program does not exist
    QTest::addColumn<int>("code");
    QTest::addColumn<QByteArray>("output");

    QTest::newRow("success with output") << QByteArray("echo done") << 0 << QByteArray("done\n");
    QTest::newRow("failure code") << QByteArray("exit 4") << 4 << QByteArray();
    QTest::newRow("crash") << QByteArray("kill -9 $$") << -1 << QByteArray();
    QTest::newRow("missing program") << QByteArray() << -1 << QByteArray();
}

void TestUtils::runAndWait()
{
    QFETCH(QByteArray, body);
    QFETCH(int, code);
    QFETCH(QByteArray, output);

    FakePrograms fakes;
    if (!body.isNull())
        fakes.addScript("child", body);
    QByteArray read;
    QCOMPARE(Utils::runAndWait(body.isNull() ? "no-such-program-here" : "child", {"a b"}, &read),
             code);
    QCOMPARE(read, output);
    if (!body.isNull())
        QCOMPARE(fakes.calls("child"), QList<QStringList>{{"a b"}});
}

QTEST_MAIN(TestUtils)
#include "tst_utils.moc"
