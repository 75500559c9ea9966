#include "cleanser.h"
#include "commandlineparser.h"
#include "settings.h"
#include "testsupport.h"
#include "utils.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QtTest>

using namespace testsupport;

namespace {
// Free space of the root file system moves while other programs run; cleaning is asked for this
// much less than is free, so that one deletion is enough whatever happens meanwhile.
const qint64 freeSpaceMargin = 2LL * 1024 * 1024 * 1024;

void setAge(const QString &path, int days)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadWrite));
    QVERIFY(file.setFileTime(QDateTime::currentDateTime().addDays(-days).addSecs(-60),
                             QFileDevice::FileModificationTime));
}
} // namespace

class TestCleanser : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void enoughSpaceTouchesNothing();
    void hopelessRequestKeepsTheCache();
    void cleanUntilFree_data();
    void cleanUntilFree();
    void emptyListIsNotOk();
    void clean_data();
    void clean();
    void checkWithoutCleanAfterKeepsOldEntries();

private:
    // An entry of the cache: body and the tag vouching for its length, aged in days.
    void addEntry(const QString &name, const QByteArray &body, int days);
    QString dataPath(const QString &name) const { return m_cache + "/data/" + name; }
    QString tagPath(const QString &name) const { return m_cache + "/etag/" + name; }

    FakePrograms m_fakes;
    QTemporaryDir m_settingsDir;
    std::unique_ptr<TempHome> m_home;
    std::unique_ptr<CommandLineParser> m_parser;
    QString m_cache;
    Settings *m_settings = nullptr;
};

void TestCleanser::initTestCase()
{
    m_fakes.add("launchdock");
    m_parser = makeParser(m_settingsDir.path());
    m_settings = Settings::load(true, m_parser.get());
}

void TestCleanser::init()
{
    m_home = std::make_unique<TempHome>();
    m_cache = m_home->stateDir();
    QVERIFY(QDir().mkpath(m_cache + "/data"));
    QVERIFY(QDir().mkpath(m_cache + "/etag"));
}

void TestCleanser::cleanup()
{
    m_settings->set("slideshow/clean_after", false);
    m_home.reset();
}

void TestCleanser::addEntry(const QString &name, const QByteArray &body, int days)
{
    QVERIFY(writeFile(dataPath(name), body));
    QVERIFY(writeFile(tagPath(name),
                      "Mon, 01 Jan 2024 10:00:00 GMT:" + QByteArray::number(body.size())));
    setAge(dataPath(name), days);
    setAge(tagPath(name), days);
}

void TestCleanser::enoughSpaceTouchesNothing()
{
    addEntry("old", "body", 5);
    Cleanser cleanser(m_settings);
    QSignalSpy ok(&cleanser, &Cleanser::ok);
    QSignalSpy notOk(&cleanser, &Cleanser::notOk);
    LogCapture log;

    cleanser.checkThat(1024);

    QCOMPARE(ok.count(), 1);
    QCOMPARE(notOk.count(), 0);
    QVERIFY(QFile::exists(dataPath("old")));
    QVERIFY(QFile::exists(tagPath("old")));
    QVERIFY(!log.contains("Size cleansing"));
}

void TestCleanser::hopelessRequestKeepsTheCache()
{
    addEntry("old", QByteArray(10000, 'x'), 5);
    addEntry("older", QByteArray(20000, 'y'), 9);
    Cleanser cleanser(m_settings);
    QSignalSpy ok(&cleanser, &Cleanser::ok);
    QSignalSpy notOk(&cleanser, &Cleanser::notOk);
    LogCapture log;

    // Like a server declaring a body larger than the whole disk.
    cleanser.checkThat(Utils::totalDiskSpace() * 4);

    QCOMPARE(ok.count(), 0);
    QCOMPARE(notOk.count(), 1);
    QVERIFY(log.contains("Size cleansing"));
    QCOMPARE(log.count("Deleting"), 0);
    for (const char *name : {"old", "older"}) {
        QVERIFY(QFile::exists(dataPath(name)));
        QVERIFY(QFile::exists(tagPath(name)));
    }
}

void TestCleanser::cleanUntilFree_data()
{
    QTest::addColumn<QStringList>("young");
    QTest::addColumn<QStringList>("old");
    QTest::addColumn<QStringList>("tagOnly");
    QTest::addColumn<QStringList>("deleted");
    QTest::addColumn<bool>("answer");

    // Old entries are aged 3, 4, 5... days in list order.
    QTest::newRow("the oldest entry goes first, one is enough")
        << QStringList{"fresh"} << QStringList{"a", "b"} << QStringList() << QStringList{"b"}
        << true;
    QTest::newRow("entries younger than a day are never deleted")
        << QStringList{"today", "yesterday"} << QStringList() << QStringList() << QStringList()
        << false;
    QTest::newRow("tag whose data is already missing")
        << QStringList{"fresh"} << QStringList() << QStringList{"orphan"} << QStringList{"orphan"}
        << true;
}

void TestCleanser::cleanUntilFree()
{
    QFETCH(QStringList, young);
    QFETCH(QStringList, old);
    QFETCH(QStringList, tagOnly);
    QFETCH(QStringList, deleted);
    QFETCH(bool, answer);

    const qint64 available = Utils::availableDiskSpace();
    if (available < 2 * freeSpaceMargin)
        QSKIP("Too little free disk space to run the cleaning walk safely");

    for (const QString &name : young)
        addEntry(name, "young body", 0);
    int days = 3;
    for (const QString &name : old)
        addEntry(name, QByteArray(5000, 'o'), days++);
    for (const QString &name : tagOnly) {
        QVERIFY(writeFile(tagPath(name), "x:12"));
        setAge(tagPath(name), days++);
    }

    Cleanser cleanser(m_settings);
    QSignalSpy ok(&cleanser, &Cleanser::ok);
    QSignalSpy notOk(&cleanser, &Cleanser::notOk);
    // A first, hopeless check takes the listing of the cache and must not delete anything.
    cleanser.checkThat(Utils::totalDiskSpace() * 4);
    QCOMPARE(notOk.count(), 1);
    notOk.clear();

    LogCapture log;
    cleanser.cleanUntilFree(0, available - freeSpaceMargin);

    QCOMPARE(ok.count(), answer ? 1 : 0);
    QCOMPARE(notOk.count(), answer ? 0 : 1);
    QCOMPARE(log.count("Deleting"), deleted.size());
    for (const QString &name : young + old + tagOnly) {
        const bool gone = deleted.contains(name);
        QCOMPARE(QFile::exists(tagPath(name)), !gone);
        if (!tagOnly.contains(name))
            QCOMPARE(QFile::exists(dataPath(name)), !gone);
    }
}

void TestCleanser::emptyListIsNotOk()
{
    Cleanser cleanser(m_settings);
    QSignalSpy ok(&cleanser, &Cleanser::ok);
    QSignalSpy notOk(&cleanser, &Cleanser::notOk);
    cleanser.cleanUntilFree(0, 1);
    QCOMPARE(ok.count(), 0);
    QCOMPARE(notOk.count(), 1);
}

void TestCleanser::clean_data()
{
    QTest::addColumn<bool>("cleanAfter");

    QTest::newRow("clean_after off") << false;
    QTest::newRow("clean_after on") << true;
}

void TestCleanser::clean()
{
    QFETCH(bool, cleanAfter);
    m_settings->set("slideshow/clean_after", cleanAfter);

    addEntry("complete-old", "twelve bytes", 3);
    addEntry("complete-young", "twelve bytes", 0);
    QVERIFY(writeFile(tagPath("tag-only-old"), "x:3"));
    setAge(tagPath("tag-only-old"), 3);
    QVERIFY(writeFile(dataPath("data-only-old"), "abc"));
    setAge(dataPath("data-only-old"), 3);
    QVERIFY(writeFile(dataPath("data-only-young"), "abc"));
    addEntry("cut-old", "twelve bytes", 3);
    QVERIFY(writeFile(dataPath("cut-old"), "twelve"));
    setAge(dataPath("cut-old"), 3);
    QVERIFY(writeFile(tagPath("garbage-tag-old"), "not a tag at all"));
    QVERIFY(writeFile(dataPath("garbage-tag-old"), "abc"));
    setAge(tagPath("garbage-tag-old"), 3);
    setAge(dataPath("garbage-tag-old"), 3);
    addEntry("cut-young", "twelve bytes", 0);
    QVERIFY(writeFile(dataPath("cut-young"), "twelve"));
    QVERIFY(writeFile(dataPath("maintenance.txt"), "Update succeed!"));
    setAge(dataPath("maintenance.txt"), 3);

    Cleanser cleanser(m_settings);
    QSignalSpy ok(&cleanser, &Cleanser::ok);
    cleanser.check();
    // The periodic check only cleans when the preference asks for it.
    if (!cleanAfter) {
        QVERIFY(QFile::exists(tagPath("tag-only-old")));
        cleanser.clean();
    }

    QCOMPARE(ok.count(), 1);
    QCOMPARE(QFile::exists(dataPath("complete-old")), !cleanAfter);
    QCOMPARE(QFile::exists(tagPath("complete-old")), !cleanAfter);
    QVERIFY(QFile::exists(dataPath("complete-young")));
    QVERIFY(QFile::exists(tagPath("complete-young")));
    QVERIFY(!QFile::exists(tagPath("tag-only-old")));
    QVERIFY(!QFile::exists(dataPath("data-only-old")));
    QVERIFY(QFile::exists(dataPath("data-only-young")));
    QVERIFY(!QFile::exists(dataPath("cut-old")));
    QVERIFY(!QFile::exists(tagPath("cut-old")));
    QVERIFY(!QFile::exists(dataPath("garbage-tag-old")));
    QVERIFY(!QFile::exists(tagPath("garbage-tag-old")));
    QVERIFY(QFile::exists(dataPath("cut-young")));
    QVERIFY(QFile::exists(dataPath("maintenance.txt")));
}

void TestCleanser::checkWithoutCleanAfterKeepsOldEntries()
{
    addEntry("old", "body", 30);
    QVERIFY(writeFile(tagPath("stray"), "x:1"));
    setAge(tagPath("stray"), 30);
    Cleanser cleanser(m_settings);
    QSignalSpy ok(&cleanser, &Cleanser::ok);
    LogCapture log;

    cleanser.check();

    QCOMPARE(ok.count(), 1);
    QCOMPARE(log.count("Deleting"), 0);
    QVERIFY(QFile::exists(dataPath("old")));
    QVERIFY(QFile::exists(tagPath("stray")));
}

QTEST_GUILESS_MAIN(TestCleanser)
#include "tst_cleanser.moc"
