#include "commandlineparser.h"
#include "settings.h"
#include "testsupport.h"

#include <QSettings>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QtTest>

using namespace testsupport;

namespace {
const char resetLine[] = "Software has been updated. Remove previous configuration.";

QStringList defaultKeys()
{
    return {"main/version",
            "main/admin_passwd",
            "main/after_web_session",
            "main/can_access_fs",
            "main/can_end_session",
            "main/can_print",
            "main/printer_name",
            "main/default_timer",
            "main/default_url",
            "main/fullscreen",
            "main/hide_toolbar",
            "main/fixedscreen",
            "main/largeur_edit",
            "main/hauteur_edit",
            "main/list_mode",
            "main/list_use_regex",
            "main/max_history",
            "main/max_windows",
            "main/mode",
            "main/new_tab_url",
            "main/no_screensaver",
            "main/post_session_uri",
            "main/post_session_uri_time",
            "main/zoomFactor",
            "main/start_with_session",
            "main/stop_session_after_seconds",
            "main/user_agent",
            "main/with_clear",
            "main/with_timer",
            "main/external_browser",
            "main/reset",
            "main/external_browser_cmd",
            "remote/direct",
            "remote/enabled",
            "remote/port",
            "remote/url",
            "remote/local_url",
            "remote/key",
            "remote/tv",
            "remote/localplaylist",
            "remote/localfs",
            "slideshow/playlist_update_mode",
            "slideshow/default_time",
            "slideshow/resize",
            "slideshow/stretch",
            "slideshow/auto_scroll",
            "slideshow/do_local_update",
            "slideshow/hide_pointer",
            "slideshow/mute",
            "slideshow/refresh_after_minutes",
            "slideshow/save_modifications",
            "slideshow/stop_on_event",
            "slideshow/show_address",
            "slideshow/clean_after",
            "slideshow/usb_auto",
            "slideshow/shuffle",
            "slideshow/use_remote",
            "slideshow/url",
            "slideshow/external_player",
            "slideshow/external_browser",
            "webpage/default_font",
            "network/proxy_user",
            "network/proxy_passwd",
            "network/proxy_type",
            "network/proxy_uri"};
}
} // namespace

class TestSettings : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void firstStartWritesDefaults();
    void versionReset_data();
    void versionReset();
    void fileValuesOverlayDefaults();
    void reloadKeepsOldInstanceValid();
    void setAndGet();
    void readAutostarted_data();
    void readAutostarted();
    void writePreferencesSkipsSizeKeys();
    void writePreferencesUnwritable();
    void writeListFiles();
    void writeCookies();
    void writeAutostarted_data();
    void writeAutostarted();
    void saveWritesTheWholeSet_data();
    void saveWritesTheWholeSet();
    void dumpListsEverything();

private:
    std::unique_ptr<TempHome> m_home;
    std::unique_ptr<FakePrograms> m_fakes;
    std::unique_ptr<CommandLineParser> m_parser;
    QString prefs() const { return m_home->filePath("etc/preferences"); }
    Settings *load() { return Settings::load(true, m_parser.get()); }
};

void TestSettings::init()
{
    m_home = std::make_unique<TempHome>();
    m_fakes = std::make_unique<FakePrograms>();
    m_fakes->add("launchdock");
    m_fakes->add("xset");
    QDir().mkpath(m_home->filePath("etc"));
    m_parser = makeParser(m_home->filePath("etc"));
}

void TestSettings::cleanup()
{
    m_parser.reset();
    m_fakes.reset();
    m_home.reset();
}

void TestSettings::firstStartWritesDefaults()
{
    LogCapture log;
    Settings *settings = load();
    QCOMPARE(log.count(resetLine), 1);
    QVERIFY(log.contains("Loading settings from: \"" + prefs() + "\""));
    QVERIFY(QFile::exists(prefs()));

    QSettings file(prefs(), QSettings::IniFormat);
    for (const QString &key : defaultKeys())
        QVERIFY2(file.contains(key), qPrintable(key));
    QCOMPARE(file.value("main/version").toString(), QStringLiteral("QFGLs6IVf1"));
    QCOMPARE(file.value("main/size").toString(), QStringLiteral("0"));
    QCOMPARE(file.value("remote/local_url").toString(), QStringLiteral("http://localhost:7575"));

    QCOMPARE(settings->get("main/mode").toString(), QStringLiteral("display"));
    QCOMPARE(settings->get("main/default_timer").toInt(), 900);
    QCOMPARE(settings->get("main/new_tab_url"), settings->get("main/default_url"));
    QCOMPARE(settings->get("webpage/default_font").value<QFont>().family(),
             QStringLiteral("Droid Sans"));

    // The rewritten file carries the version: the next start keeps it.
    log.clear();
    Settings *again = load();
    QCOMPARE(log.count(resetLine), 0);
    QCOMPARE(again->get("main/default_timer").toString(), QStringLiteral("900"));
    QCOMPARE(again->get("slideshow/resize").toBool(), true);
    QCOMPARE(again->get("webpage/default_font").value<QFont>().pointSize(), 14);
}

void TestSettings::versionReset_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<bool>("reset");

    QTest::newRow("no version key") << QByteArray("[main]\nmode=kiosk\n") << true;
    QTest::newRow("older version") << QByteArray("[main]\nversion=abc\nmode=kiosk\n") << true;
    QTest::newRow("version differs in case")
        << QByteArray("[main]\nversion=qfgls6ivf1\nmode=kiosk\n") << true;
    QTest::newRow("empty file") << QByteArray() << true;
    QTest::newRow("garbage file") << QByteArray("\x01\x02 not an ini =\n[[[") << true;
    QTest::newRow("current version")
        << QByteArray("[main]\nversion=QFGLs6IVf1\nmode=kiosk\n") << false;
}

void TestSettings::versionReset()
{
    QFETCH(QByteArray, content);
    QFETCH(bool, reset);

    writeFile(prefs(), content);
    LogCapture log;
    Settings *settings = load();
    QCOMPARE(log.count(resetLine), reset ? 1 : 0);
    if (reset) {
        QCOMPARE(settings->get("main/mode").toString(), QStringLiteral("display"));
        const QByteArray written = readFile(prefs());
        QVERIFY(!written.contains("mode=kiosk"));
        QVERIFY(written.contains("version=QFGLs6IVf1"));
    } else {
        QCOMPARE(settings->get("main/mode").toString(), QStringLiteral("kiosk"));
        QCOMPARE(readFile(prefs()), content);
    }
}

void TestSettings::fileValuesOverlayDefaults()
{
    writeFile(prefs(), "[main]\nversion=QFGLs6IVf1\nmode=display\nfoo=bar\n"
                       "default_timer=notanumber\n");
    LogCapture log;
    Settings *settings = load();
    QCOMPARE(settings->get("main/foo").toString(), QStringLiteral("bar"));
    QCOMPARE(settings->get("main/mode").toString(), QStringLiteral("display"));
    QVERIFY(log.contains("\"main/foo\" = QVariant(QString, \"bar\")"));
    // A wrong type stays as it is; readers get the conversion's zero value.
    QCOMPARE(settings->get("main/default_timer").toInt(), 0);
    QCOMPARE(settings->get("slideshow/default_time").toInt(), 5);
    QVERIFY(!settings->get("main/nothing_like_this").isValid());
    QVERIFY(!settings->versionMissing());
}

void TestSettings::reloadKeepsOldInstanceValid()
{
    writeFile(prefs(), "[main]\nversion=QFGLs6IVf1\nmode=display\n");
    Settings *first = load();
    QCOMPARE(Settings::load(false, nullptr), first);

    // An unchanged file gives the same values, so nothing new needs to be kept.
    QCOMPARE(load(), first);

    writeFile(prefs(), "[main]\nversion=QFGLs6IVf1\nmode=kiosk\n");
    Settings *second = load();
    QVERIFY(second != first);
    QCOMPARE(Settings::load(false, nullptr), second);
    QCOMPARE(second->get("main/mode").toString(), QStringLiteral("kiosk"));
    QCOMPARE(first->get("main/mode").toString(), QStringLiteral("display"));
}

void TestSettings::setAndGet()
{
    Settings *settings = load();
    settings->set("main/mode", "kiosk");
    settings->set("main/default_timer", 42);
    settings->set("main/fullscreen", false);
    settings->set("main/zoomFactor", 1.5);
    settings->set("new/key", QStringLiteral("value"));
    QCOMPARE(settings->get("main/mode"), QVariant(QStringLiteral("kiosk")));
    QCOMPARE(settings->get("main/default_timer"), QVariant(42));
    QCOMPARE(settings->get("main/fullscreen"), QVariant(false));
    QCOMPARE(settings->get("main/zoomFactor"), QVariant(1.5));
    QCOMPARE(settings->get("new/key"), QVariant(QStringLiteral("value")));
    // Memory only until saved.
    QVERIFY(!readFile(prefs()).contains("mode=kiosk"));
}

void TestSettings::readAutostarted_data()
{
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<bool>("autostarted");

    QTest::newRow("sitedeck") << QByteArray("sitedeck\n") << true;
    QTest::newRow("sitedeck and more") << QByteArray("sitedeck-browser --kiosk\n") << true;
    QTest::newRow("other program") << QByteArray("none\n") << false;
    QTest::newRow("leading blank") << QByteArray(" sitedeck\n") << false;
    QTest::newRow("no output") << QByteArray() << false;
}

void TestSettings::readAutostarted()
{
    QFETCH(QByteArray, output);
    QFETCH(bool, autostarted);

    m_fakes->add("launchdock", output);
    Settings *settings = load();
    QCOMPARE(settings->autostarted(), autostarted);
    QCOMPARE(m_fakes->callLines("launchdock").first(), QStringLiteral("--selected"));
}

void TestSettings::writePreferencesSkipsSizeKeys()
{
    Settings *settings = load();
    settings->set("main/size", 7);
    settings->set("extra/size", 9);
    const QString target = m_home->filePath("out/prefs.ini");
    QDir().mkpath(m_home->filePath("out"));
    LogCapture log;
    QVERIFY(settings->writePreferences(target));
    QVERIFY(log.contains("Saving preference file at: \"" + target + "\""));
    QVERIFY(log.contains("\"main\" \"mode\" QVariant(QString, \"display\")"));

    const QString text = QString::fromUtf8(readFile(target));
    const QString mainSection = text.section("[main]", 1).section("\n[", 0, 0);
    QVERIFY(mainSection.contains("\nmode=display\n"));
    QVERIFY(mainSection.contains("\nsize=0\n"));
    QVERIFY(!text.contains("size=7"));
    QVERIFY(!text.contains("[extra]")); // a section holding only "size" writes nothing
}

void TestSettings::writePreferencesUnwritable()
{
    Settings *settings = load();
    LogCapture log;
    QVERIFY(!settings->writePreferences("/proc/no/such/dir/prefs"));
    QVERIFY(log.contains("Unable to write preference file."));
}

void TestSettings::writeListFiles()
{
    Settings *settings = load();
    const QString playlist = m_home->filePath("playlist");
    const QString list = m_home->filePath("list");

    QVERIFY(settings->writePlaylist(playlist));
    QCOMPARE(readFile(playlist), QByteArray("#Vorsane playlist\n"));
    QVERIFY(settings->writeRestrictions(list));
    QCOMPARE(readFile(list), QByteArray());

    settings->setPlaylistEntries({"http://a.example/ 10", "file:///tmp/b.jpg 5"});
    settings->setRestrictionEntries({"*.example.com*", "http://x/"});
    QVERIFY(settings->writePlaylist(playlist));
    QCOMPARE(readFile(playlist),
             QByteArray("#Vorsane playlist\nhttp://a.example/ 10\nfile:///tmp/b.jpg 5\n"));
    QVERIFY(settings->writeRestrictions(list));
    QCOMPARE(readFile(list), QByteArray("*.example.com*\nhttp://x/\n"));

    QVERIFY(!settings->writePlaylist("/proc/no/such/playlist"));
    QVERIFY(!settings->writeRestrictions("/proc/no/such/list"));
}

void TestSettings::writeCookies()
{
    Settings *settings = load();
    QNetworkCookie plain("session", "abc123");
    plain.setDomain(".example.com");
    plain.setPath("/");
    plain.setExpirationDate(QDateTime::fromSecsSinceEpoch(2000000000));
    plain.setSecure(true);
    QNetworkCookie quoted("bad", "it's");
    quoted.setDomain("example.com");
    QNetworkCookie httpOnly("h", "v");
    httpOnly.setDomain("other.org");
    httpOnly.setPath("/app");
    httpOnly.setHttpOnly(true);
    settings->setCookies({plain, quoted, httpOnly});

    const QString path = m_home->filePath("cookies.sqlite");
    QVERIFY(settings->writeCookies(path));
    // Writing twice replaces the table instead of appending.
    QVERIFY(settings->writeCookies(path));
    {
        QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", "check");
        db.setDatabaseName(path);
        QVERIFY(db.open());
        QSqlQuery query(
            "SELECT name, value, host, path, expiry, lastAccessed, isSecure, isHttpOnly FROM "
            "moz_cookies ORDER BY id",
            db);
        QStringList rows;
        while (query.next()) {
            QStringList row;
            for (int i = 0; i < 8; ++i)
                row << query.value(i).toString();
            rows << row.join('|');
        }
        QCOMPARE(rows, QStringList({"session|abc123|.example.com|/|2000000000||1|0",
                                    "h|v|other.org|/app|0||0|1"}));
    }
    QSqlDatabase::removeDatabase("check");

    settings->setCookies({});
    QVERIFY(settings->writeCookies(path));
    {
        QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", "check");
        db.setDatabaseName(path);
        QVERIFY(db.open());
        QSqlQuery query("SELECT COUNT(*) FROM moz_cookies", db);
        QVERIFY(query.next());
        QCOMPARE(query.value(0).toInt(), 0);
    }
    QSqlDatabase::removeDatabase("check");
}

void TestSettings::writeAutostarted_data()
{
    QTest::addColumn<bool>("autostarted");
    QTest::addColumn<QByteArray>("sudoUid");
    QTest::addColumn<QString>("expectedCall");
    QTest::addColumn<bool>("chownLine");

    const QString tail = QStringLiteral(" -c /home/pi/.config/launchdockrc");
    QTest::newRow("autostarted") << true << QByteArray()
                                 << "--select sitedeck --command vorsane-kiosk" + tail << false;
    QTest::newRow("not autostarted")
        << false << QByteArray() << "--select none --command true" + tail << false;
    // The launcher file does not exist here, so the ownership change fails.
    QTest::newRow("under sudo, chown fails")
        << false << QByteArray("1000") << "--select none --command true" + tail
        << !QFile::exists("/home/pi/.config/launchdockrc");
}

void TestSettings::writeAutostarted()
{
    QFETCH(bool, autostarted);
    QFETCH(QByteArray, sudoUid);
    QFETCH(QString, expectedCall);
    QFETCH(bool, chownLine);

    const QByteArray previous = qgetenv("SUDO_UID");
    qputenv("SUDO_UID", sudoUid);
    Settings *settings = load();
    settings->setAutostarted(autostarted);
    LogCapture log;
    settings->writeAutostarted();
    qputenv("SUDO_UID", previous);

    QCOMPARE(m_fakes->callLines("launchdock").last(), expectedCall);
    QCOMPARE(log.contains("chown done."), chownLine);
}

void TestSettings::saveWritesTheWholeSet_data()
{
    QTest::addColumn<bool>("autostart");
    QTest::addColumn<bool>("noScreensaver");
    QTest::addColumn<QStringList>("xsetCalls");

    QTest::newRow("screen saver off, launcher untouched")
        << false << true << QStringList{"s off", "s noblank", "-dpms"};
    QTest::newRow("screen saver on, launcher told")
        << true << false << QStringList{"s on", "s blank", "+dpms"};
}

void TestSettings::saveWritesTheWholeSet()
{
    QFETCH(bool, autostart);
    QFETCH(bool, noScreensaver);
    QFETCH(QStringList, xsetCalls);

    Settings *settings = load();
    settings->set("main/no_screensaver", noScreensaver);
    settings->setPlaylistEntries({"http://a/ 5"});
    const QString base = m_home->filePath("saved");
    QDir().mkpath(base);
    settings->save(autostart, base);

    QVERIFY(QFile::exists(base + "/preferences"));
    QCOMPARE(readFile(base + "/playlist"), QByteArray("#Vorsane playlist\nhttp://a/ 5\n"));
    QVERIFY(QFile::exists(base + "/list"));
    QVERIFY(QFile::exists(base + "/cookies.sqlite"));
    QCOMPARE(m_fakes->callLines("xset"), xsetCalls);
    const QStringList launcher = m_fakes->callLines("launchdock");
    QCOMPARE(launcher.last().startsWith("--select "), autostart);
}

void TestSettings::dumpListsEverything()
{
    Settings *settings = load();
    LogCapture log;
    settings->dump();
    const QStringList lines = log.lines();
    QCOMPARE(lines.size(), defaultKeys().size() + 1);
    QVERIFY(lines.first().startsWith("\"main/admin_passwd\""));
    QCOMPARE(lines.last(), "hookdir: \"" + m_home->filePath("etc") + "/hooks\"");
}

QTEST_MAIN(TestSettings)
#include "tst_settings.moc"
