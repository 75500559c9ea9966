#include "commandlineparser.h"
#include "testsupport.h"

#include <QProcess>
#include <QtTest>

using namespace testsupport;

class TestCommandLineParser : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void locations_data();
    void locations();
    void unknownArgumentIsLoggedAndSkipped();
    void helpText();
    void programExits_data();
    void programExits();
};

void TestCommandLineParser::locations_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QStringList>("expected"); // preference, playlist, list, cookie, hooks
    QTest::addColumn<bool>("help");

    const QString d = QStringLiteral("/etc/xdg/sitedeck");
    QTest::newRow("no arguments") << QStringList()
                                  << QStringList{d + "/preferences", d + "/playlist", d + "/list",
                                                 d + "/cookies.sqlite", d + "/hooks"}
                                  << false;
    QTest::newRow("base path and explicit preference")
        << QStringList{"--basepath", "/tmp/k", "--preference", "/x/p"}
        << QStringList{"/x/p", "/tmp/k/playlist", "/tmp/k/list", "/tmp/k/cookies.sqlite",
                       "/tmp/k/hooks"}
        << false;
    QTest::newRow("explicit file wins over a later base path")
        << QStringList{"--cookie", "/c.sqlite", "--basepath", "/b"}
        << QStringList{"/b/preferences", "/b/playlist", "/b/list", "/c.sqlite", "/b/hooks"}
        << false;
    QTest::newRow("every option") << QStringList{"--preference", "/p", "--playlist", "/pl",
                                                 "--whitelist",  "/w", "--cookie",   "/c",
                                                 "--hooks",      "/h"}
                                  << QStringList{"/p", "/pl", "/w", "/c", "/h"} << false;
    QTest::newRow("value missing at the end is ignored")
        << QStringList{"--hooks", "/h", "--playlist"}
        << QStringList{d + "/preferences", d + "/playlist", d + "/list", d + "/cookies.sqlite",
                       "/h"}
        << false;
    QTest::newRow("option value that looks like an option")
        << QStringList{"--preference", "--help"}
        << QStringList{"--help", d + "/playlist", d + "/list", d + "/cookies.sqlite", d + "/hooks"}
        << false;
    QTest::newRow("repeated option overwrites")
        << QStringList{"--playlist", "/a", "--playlist", "/b"}
        << QStringList{d + "/preferences", "/b", d + "/list", d + "/cookies.sqlite", d + "/hooks"}
        << false;
    QTest::newRow("help keeps parsing") << QStringList{"--help", "--hooks", "/h"}
                                        << QStringList{d + "/preferences", d + "/playlist",
                                                       d + "/list", d + "/cookies.sqlite", "/h"}
                                        << true;
    QTest::newRow("no option=value form")
        << QStringList{"--playlist=/x"}
        << QStringList{d + "/preferences", d + "/playlist", d + "/list", d + "/cookies.sqlite",
                       d + "/hooks"}
        << false;
    QTest::newRow("utf-8 value") << QStringList{"--playlist", QString::fromUtf8("/tmp/été")}
                                 << QStringList{d + "/preferences", QString::fromUtf8("/tmp/été"),
                                                d + "/list", d + "/cookies.sqlite", d + "/hooks"}
                                 << false;
}

void TestCommandLineParser::locations()
{
    QFETCH(QStringList, arguments);
    QFETCH(QStringList, expected);
    QFETCH(bool, help);

    const std::unique_ptr<CommandLineParser> parser = makeParser(arguments);
    QCOMPARE(QStringList({parser->getPreferenceFilename(), parser->getPlaylistFilename(),
                          parser->getWhiteListFilename(), parser->getCookieFilename(),
                          parser->getHookDirname()}),
             expected);
    QCOMPARE(parser->helpRequested(), help);
}

void TestCommandLineParser::unknownArgumentIsLoggedAndSkipped()
{
    LogCapture log;
    const std::unique_ptr<CommandLineParser> parser
        = makeParser(QStringList{"--foo", "--PLAYLIST", "/x", "--hooks", "/h"});
    QCOMPARE(log.lines(),
             QStringList({"Unrecognized argument:  --foo", "Unrecognized argument:  --PLAYLIST",
                          "Unrecognized argument:  /x"}));
    QCOMPARE(parser->getHookDirname(), QStringLiteral("/h"));
    QVERIFY(!parser->helpRequested());
}

void TestCommandLineParser::helpText()
{
    QProcess program;
    program.start(programPath(), {"--help"});
    QVERIFY(program.waitForFinished(30000));
    const QString expected
        = programPath()
          + "\n"
            "Arguments:\n"
            "  --help         Display this help menu and exit\n"
            "  --basepath     Use this as default base path (default=/etc/xdg/sitedeck)\n"
            "  --preference   Use this as path for preference file "
            "(default=<base_path>/preferences)\n"
            "  --playlist     Use this as path for playlist file (default=<base_path>/playlist)\n"
            "  --cookie       Use this as cookie file for the browser "
            "(default=<base_path>/cookies.sqlite)\n"
            "  --hooks        Use this directory to find hooks (default=<base_path>/hooks)\n";
    QCOMPARE(QString::fromUtf8(program.readAllStandardOutput()), expected);
    QCOMPARE(program.exitCode(), 0);
}

void TestCommandLineParser::programExits_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<bool>("helpShown");
    QTest::addColumn<QString>("stderrLine");

    QTest::newRow("help alone") << QStringList{"--help"} << true << QString();

    QTest::newRow("unknown then help")
        << QStringList{"--foo", "--help"} << true << "Unrecognized argument:  --foo";
}

void TestCommandLineParser::programExits()
{
    QFETCH(QStringList, arguments);
    QFETCH(bool, helpShown);
    QFETCH(QString, stderrLine);

    TempHome home;
    FakePrograms fakes;
    fakes.add("gksu");
    fakes.add("launchdock");
    QProcess program;
    program.setWorkingDirectory(home.path());
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("QT_QPA_PLATFORM", "offscreen");
    program.setProcessEnvironment(env);
    program.start(programPath(), arguments);
    QVERIFY(program.waitForFinished(30000));
    QCOMPARE(program.exitStatus(), QProcess::NormalExit);
    QCOMPARE(program.exitCode(), 0);
    QCOMPARE(program.readAllStandardOutput().contains("Arguments:"), helpShown);
    if (!stderrLine.isEmpty())
        QVERIFY(program.readAllStandardError().contains(stderrLine.toUtf8()));
    // Help ends before anything else runs.
    QVERIFY(fakes.calls("launchdock").isEmpty());
}

QTEST_GUILESS_MAIN(TestCommandLineParser)
#include "tst_commandlineparser.moc"
