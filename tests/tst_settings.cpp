#include "commandlineparser.h"
#include "settings.h"
#include "testsupport.h"

#include <QNetworkCookie>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QtTest>

using namespace testsupport;

// The preference store's typed reading and its writers, on real files in a temporary folder.
class TestSettings : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void typedGetters_data();
    void typedGetters();
    void writers_data();
    void writers();
    void saveWritesTheWholeSet();

private:
    Settings *loadWith(const QByteArray &preferences);

    std::unique_ptr<TempHome> m_home;
    std::unique_ptr<FakePrograms> m_programs;
    std::unique_ptr<CommandLineParser> m_parser;
};

void TestSettings::init()
{
    m_home = std::make_unique<TempHome>();
    m_programs = std::make_unique<FakePrograms>();
    m_programs->add(QStringLiteral("xset"));
    m_programs->add(QStringLiteral("launchdock"));
    m_parser = makeParser(m_home->filePath(QStringLiteral("conf")));
}

void TestSettings::cleanup()
{
    m_programs.reset();
    m_home.reset();
}

Settings *TestSettings::loadWith(const QByteArray &preferences)
{
    writeFile(m_home->filePath(QStringLiteral("conf/preferences")),
              "[main]\nversion=QFGLs6IVf1\n" + preferences);
    return Settings::load(true, m_parser.get());
}

void TestSettings::typedGetters_data()
{
    QTest::addColumn<QByteArray>("preferences");
    QTest::addColumn<int>("mode");
    QTest::addColumn<int>("updateMode");
    QTest::addColumn<bool>("serverMode");
    QTest::addColumn<QString>("pages");
    QTest::addColumn<bool>("passwordSet");

    using M = Settings::Mode;
    using U = Settings::UpdateMode;
    QTest::newRow("defaults") << QByteArray() << int(M::Display) << int(U::LocalPlaylist) << false
                              << QString() << false;
    QTest::newRow("kiosk, public server, pages given")
        << QByteArray("mode=kiosk\n[slideshow]\nplaylist_update_mode=serverVorsaneTV\n"
                      "pages=http://s/p/a/\nurl=http://s/other\n")
        << int(M::Kiosk) << int(U::Server) << true << QString("http://s/p/a/") << false;
    QTest::newRow("private server, only url: url is the fallback")
        << QByteArray("[slideshow]\nplaylist_update_mode=serverVorsaneTVPrivate\nurl=http://s/u\n")
        << int(M::Display) << int(U::ServerPrivate) << true << QString("http://s/u") << false;
    QTest::newRow("unknown mode values, no polling")
        << QByteArray("mode=Kiosk\n[slideshow]\nplaylist_update_mode=localplaylist\n")
        << int(M::Other) << int(U::Other) << false << QString() << false;
    QTest::newRow("password hash set") << QByteArray("admin_passwd=$6$salt$hash\n")
                                       << int(M::Display) << int(U::LocalPlaylist) << false
                                       << QString() << true;
    QTest::newRow("password false counts as none")
        << QByteArray("admin_passwd=false\n") << int(M::Display) << int(U::LocalPlaylist)
        << false << QString() << false;
}

void TestSettings::typedGetters()
{
    QFETCH(QByteArray, preferences);
    const Settings *settings = loadWith(preferences);
    QTEST(int(settings->mode()), "mode");
    QTEST(int(settings->playlistUpdateMode()), "updateMode");
    QTEST(settings->serverMode(), "serverMode");
    QTEST(settings->playlistPages(), "pages");
    QTEST(settings->passwordSet(), "passwordSet");
}

void TestSettings::writers_data()
{
    QTest::addColumn<QString>("writer");
    QTest::addColumn<QStringList>("entries");
    // "under a file": the folder cannot exist, whoever runs the test; "full disk": the previous
    // file lies on a disk with no room left.
    QTest::addColumn<QString>("where");
    QTest::addColumn<bool>("result");
    // The file's text, or for cookies the rows "name=value" read back.
    QTest::addColumn<QStringList>("expected");

    QTest::newRow("preferences: sections, a size entry from the array interface")
        << "preferences" << QStringList{"main/size=7"} << QString() << true
        << QStringList{"[main]", "mode=display", "size=0"};
    QTest::newRow("preferences: unwritable path")
        << "preferences" << QStringList() << "under a file" << false << QStringList();
    QTest::newRow("preferences: full disk keeps the previous file")
        << "preferences" << QStringList() << "full disk" << false << QStringList();
    QTest::newRow("playlist: empty list holds the header only")
        << "playlist" << QStringList() << QString() << true << QStringList{"#Vorsane playlist", ""};
    QTest::newRow("playlist: entries in order")
        << "playlist" << QStringList{"file:///a.jpg 5", "https://e.org 30"} << QString() << true
        << QStringList{"#Vorsane playlist", "file:///a.jpg 5", "https://e.org 30", ""};
    QTest::newRow("playlist: unwritable path")
        << "playlist" << QStringList{"x 1"} << "under a file" << false << QStringList();
    QTest::newRow("playlist: full disk keeps the previous file")
        << "playlist" << QStringList{"http://new.example/ 5"} << "full disk" << false
        << QStringList();
    QTest::newRow("restrictions: empty list, empty file")
        << "restrictions" << QStringList() << QString() << true << QStringList{""};
    QTest::newRow("restrictions: patterns, no header")
        << "restrictions" << QStringList{"*.org", "bad"} << QString() << true
        << QStringList{"*.org", "bad", ""};
    QTest::newRow("restrictions: unwritable path")
        << "restrictions" << QStringList{"x"} << "under a file" << false << QStringList();
    QTest::newRow("restrictions: full disk keeps the previous file")
        << "restrictions" << QStringList{"*.new"} << "full disk" << false << QStringList();
    QTest::newRow("cookies: rows kept")
        << "cookies" << QStringList{"a=1", "b=2"} << QString() << true << QStringList{"a=1", "b=2"};
    QTest::newRow("cookies: a quote in a value loses only that row")
        << "cookies" << QStringList{"a=it's", "b=2"} << QString() << true << QStringList{"b=2"};
    QTest::newRow("cookies: unwritable path")
        << "cookies" << QStringList{"a=1"} << "under a file" << false << QStringList();
}

void TestSettings::writers()
{
    QFETCH(QString, writer);
    QFETCH(QStringList, entries);
    QFETCH(QString, where);
    const bool unwritable = where == QLatin1String("under a file");
    const bool fullDisk = where == QLatin1String("full disk");

    Settings *settings = loadWith(QByteArray());
    writeFile(m_home->filePath(QStringLiteral("blocker")), "a file, not a folder");
    const QString out = m_home->filePath(QStringLiteral("out"));
    const QString path = unwritable ? m_home->filePath(QStringLiteral("blocker/out"))
                                    : out + QLatin1Char('/') + writer;
    if (!unwritable)
        QVERIFY(QDir().mkpath(out));
    SmallDisk disk;
    const QByteArray previous = writer == QLatin1String("preferences")
                                    ? QByteArray("[main]\nmode=kiosk\n")
                                    : QByteArray("#Vorsane playlist\nhttp://old.example/ 5\n");
    if (fullDisk) {
        const QString why = disk.mount(out);
        if (!why.isEmpty())
            QSKIP(qPrintable(why));
        QVERIFY(writeFile(path, previous));
        QVERIFY(disk.fill());
    }
    LogCapture log;

    bool result = false;
    if (writer == QLatin1String("preferences")) {
        for (const QString &entry : entries)
            settings->set(entry.section('=', 0, 0), entry.section('=', 1));
        result = settings->writePreferences(path);
    } else if (writer == QLatin1String("playlist")) {
        settings->setPlaylistEntries(entries);
        result = settings->writePlaylist(path);
    } else if (writer == QLatin1String("restrictions")) {
        settings->setRestrictionEntries(entries);
        result = settings->writeRestrictions(path);
    } else {
        QList<QNetworkCookie> cookies;
        for (const QString &entry : entries) {
            QNetworkCookie cookie(entry.section('=', 0, 0).toLatin1(),
                                  entry.section('=', 1).toLatin1());
            cookie.setDomain(QStringLiteral("example.org"));
            cookie.setPath(QStringLiteral("/"));
            cookies << cookie;
        }
        settings->setCookies(cookies);
        result = settings->writeCookies(path);
    }
    QTEST(result, "result");
    if (unwritable)
        return;
    if (fullDisk) {
        // Neither a shortened file nor a temporary one beside it, and a line that says so.
        QCOMPARE(readFile(path), previous);
        QCOMPARE(QDir(out).entryList(QDir::Files | QDir::Hidden),
                 QStringList({QStringLiteral("filler"), writer}));
        QVERIFY(log.contains(writer == QLatin1String("preferences")
                                 ? QStringLiteral("Unable to write preference file.")
                                 : QStringLiteral("Cannot write \"%1\"").arg(path)));
        return;
    }

    QFETCH(QStringList, expected);
    if (writer == QLatin1String("cookies")) {
        QStringList rows;
        {
            QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), "check");
            db.setDatabaseName(path);
            QVERIFY(db.open());
            QSqlQuery query(QStringLiteral("SELECT name, value FROM moz_cookies ORDER BY name"),
                            db);
            while (query.next())
                rows << query.value(0).toString() + '=' + query.value(1).toString();
        }
        QSqlDatabase::removeDatabase(QStringLiteral("check"));
        QCOMPARE(rows, expected);
    } else if (writer == QLatin1String("preferences")) {
        const QStringList lines = QString::fromUtf8(readFile(path)).split('\n');
        // The [main] section holds the map's mode and exactly one size entry, the interface's.
        const int section = lines.indexOf(QStringLiteral("[main]"));
        QVERIFY(section >= 0);
        QVERIFY(lines.contains(expected.at(1)));
        QCOMPARE(lines.filter(QRegularExpression(QStringLiteral("^size="))).size(),
                 lines.filter(QRegularExpression(QStringLiteral("^\\["))).size());
        QVERIFY(lines.contains(expected.at(2)));
        QVERIFY(!lines.contains(QStringLiteral("size=7")));
    } else {
        QCOMPARE(QString::fromUtf8(readFile(path)).split('\n'), expected);
    }
}

void TestSettings::saveWritesTheWholeSet()
{
    Settings *settings = loadWith(QByteArray("no_screensaver=true\n"));
    settings->setPlaylistEntries({QStringLiteral("file:///a.jpg 5")});
    settings->setRestrictionEntries({QStringLiteral("*.org")});
    const QString base = m_home->filePath(QStringLiteral("set"));
    QVERIFY(QDir().mkpath(base));
    // Loading asks the launcher once; saving without the wish must not.
    const int launcherCalls = m_programs->callLines(QStringLiteral("launchdock")).size();
    settings->save(false, base);

    for (const char *name : {"preferences", "playlist", "list", "cookies.sqlite"})
        QVERIFY2(QFileInfo(base + '/' + name).size() > 0, name);
    // The launcher is left alone without the wish; the screen saver goes off with no_screensaver.
    QCOMPARE(m_programs->callLines(QStringLiteral("launchdock")).size(), launcherCalls);
    QVERIFY(m_programs->callLines(QStringLiteral("xset")).contains(QStringLiteral("-dpms")));

    settings->save(true, base);
    QCOMPARE(m_programs->callLines(QStringLiteral("launchdock")).last(),
             QStringLiteral("--select none --command true -c /home/pi/.config/launchdockrc"));
}

QTEST_GUILESS_MAIN(TestSettings)
#include "tst_settings.moc"
