#include "commandlineparser.h"
#include "playlistloop.h"
#include "settings.h"
#include "testsupport.h"

#include <QDomDocument>
#include <QtTest>

#include <cstdlib>
#include <ctime>

using namespace testsupport;

namespace {

// Schedules are checked at chosen instants of a zone with daylight-saving changes. This must
// happen before anything asks for the local time.
const bool s_parisTime = [] {
    qputenv("TZ", "Europe/Paris");
    tzset();
    return true;
}();

const char warning[] = "file://:/image/usb_auto_insert_warning.png|3|%1|";
const char demo[] = "file://:/demo/demo.jpg|3|3|";

QDateTime at(const QString &text)
{
    return text.isEmpty() ? QDateTime() : QDateTime::fromString(text, Qt::ISODateWithMs);
}

QString summary(const PlaylistItemPtr &item)
{
    return QStringLiteral("%1|%2|%3|%4")
        .arg(item->url)
        .arg(int(item->type))
        .arg(item->duration)
        .arg(item->parameters.join(QLatin1Char(',')));
}

QStringList summaries(const PlaylistLoop &loop)
{
    QStringList result;
    for (const PlaylistItemPtr &item : loop.items)
        result << summary(item);
    return result;
}

QStringList withoutDemo(QStringList list)
{
    list.removeAll(QString::fromLatin1(demo));
    return list;
}

PlaylistLoopPtr makeXmlLoop(const QString &xml, int defaultDuration = 5)
{
    QDomDocument document;
    if (!document.setContent(xml))
        return nullptr;
    return std::make_shared<PlaylistLoop>(defaultDuration, document.documentElement(),
                                          QStringLiteral("tag"));
}

// A loop with a schedule and two items, so that only the schedule decides.
PlaylistLoopPtr scheduledLoop(const QString &attributes, bool withItems = true)
{
    const QString children
        = withItems ? "<item uri='http://a.example/' type='url'/><item uri='http://b.example/'/>"
                    : QString();
    return makeXmlLoop("<loop " + attributes + ">" + children + "</loop>");
}

QString expand(QString text, const QString &home)
{
    return text.replace(QLatin1String("$HOME"), home);
}

QStringList expand(QStringList list, const QString &home)
{
    for (QString &entry : list)
        entry = expand(entry, home);
    return list;
}

// Creates files by extension: real images and PDFs, text for anything else; a trailing "/"
// makes an empty directory.
bool createFiles(const QString &home, const QStringList &files)
{
    for (const QString &relative : files) {
        const QString path = home + "/" + relative;
        bool ok = true;
        if (relative.endsWith('/'))
            ok = QDir().mkpath(path);
        else if (relative.endsWith(".png") || relative.endsWith(".jpg"))
            ok = QDir().mkpath(QFileInfo(path).absolutePath())
                 && makeImage(path, QSize(4, 4), Qt::gray);
        else if (relative.endsWith(".pdf"))
            ok = QDir().mkpath(QFileInfo(path).absolutePath()) && makePdf(path, 1);
        else
            ok = writeFile(path, "some text\n");
        if (!ok)
            return false;
    }
    return true;
}

} // namespace

class TestPlaylistLoop : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void validateDate_data();
    void validateDate();
    void validateTime_data();
    void validateTime();
    void validateTimeNeedsDates();
    void validateWeekdays_data();
    void validateWeekdays();
    void weekdayBitsOnlyAccumulate();
    void nowOk_data();
    void nowOk();
    void nowOkWithTheClock();
    void scoreKeepsFalling();
    void idleSpan_data();
    void idleSpan();

    void xmlLoop_data();
    void xmlLoop();
    void xmlLoopFields();
    void demoItems_data();
    void demoItems();
    void shuffle_data();
    void shuffle();
    void flatLoop_data();
    void flatLoop();
    void directoryOrder();
    void dragAndDrop_data();
    void dragAndDrop();
    void networkShare_data();
    void networkShare();
    void hugePlaylists();

private:
    QTemporaryDir m_base;
    std::unique_ptr<CommandLineParser> m_parser;
    std::unique_ptr<TempHome> m_home;
    QByteArray m_runtimeDir;
};

void TestPlaylistLoop::initTestCase()
{
    QVERIFY(s_parisTime);
    m_parser = makeParser(m_base.path());
    Settings::load(true, m_parser.get());
    m_runtimeDir = qgetenv("XDG_RUNTIME_DIR");
}

void TestPlaylistLoop::init()
{
    m_home = std::make_unique<TempHome>();
    Settings *settings = Settings::load(false, nullptr);
    settings->set("remote/enabled", false);
    settings->set("slideshow/shuffle", false);
}

void TestPlaylistLoop::cleanup()
{
    qputenv("XDG_RUNTIME_DIR", m_runtimeDir);
    m_home.reset();
}

void TestPlaylistLoop::validateDate_data()
{
    QTest::addColumn<QString>("fromText");
    QTest::addColumn<QString>("toText");
    QTest::addColumn<bool>("ok");
    QTest::addColumn<QDate>("fromDay");
    QTest::addColumn<QDate>("toDay");
    QTest::addColumn<QString>("fromAfter");
    QTest::addColumn<QString>("toAfter");

    const QDate today(2024, 5, 15);
    QTest::newRow("no dates means today") << ""
                                          << "" << true << today << today << ""
                                          << "";
    QTest::newRow("range") << "2024/05/01"
                           << "2024/05/31" << true << QDate(2024, 5, 1) << QDate(2024, 5, 31)
                           << "2024/05/01"
                           << "2024/05/31";
    QTest::newRow("one day") << "2024/05/15"
                             << "2024/05/15" << true << today << today << "2024/05/15"
                             << "2024/05/15";
    QTest::newRow("from only, ends today")
        << "2024/05/01"
        << "" << true << QDate(2024, 5, 1) << today << "2024/05/01"
        << "";
    QTest::newRow("numbers without zeros")
        << "2024/5/1"
        << "2024/6/3" << true << QDate(2024, 5, 1) << QDate(2024, 6, 3) << "2024/5/1"
        << "2024/6/3";
    QTest::newRow("leap day") << "2024/02/29"
                              << "2024/03/01" << true << QDate(2024, 2, 29) << QDate(2024, 3, 1)
                              << "2024/02/29"
                              << "2024/03/01";
    QTest::newRow("from only, in the future keeps today's text")
        << "2024/06/01"
        << "" << false << QDate() << QDate() << "2024/06/01"
        << "2024/05/15";
    QTest::newRow("invalid day") << "2024/02/30"
                                 << "2024/12/31" << false << QDate() << QDate() << "2024/02/30"
                                 << "2024/12/31";
    QTest::newRow("from after to") << "2024/06/01"
                                   << "2024/05/01" << false << QDate() << QDate() << "2024/06/01"
                                   << "2024/05/01";
    QTest::newRow("two pieces") << "2024/05"
                                << "" << false << QDate() << QDate() << "2024/05"
                                << "2024/05/15";
    QTest::newRow("dashes") << "2024-05-01"
                            << "2024-05-31" << false << QDate() << QDate() << "2024-05-01"
                            << "2024-05-31";
    QTest::newRow("letters") << "yyyy/mm/dd"
                             << "" << false << QDate() << QDate() << "yyyy/mm/dd"
                             << "2024/05/15";
    QTest::newRow("invalid to date") << ""
                                     << "2024/13/01" << false << QDate() << QDate() << "2024/05/15"
                                     << "2024/13/01";
}

void TestPlaylistLoop::validateDate()
{
    QFETCH(QString, fromText);
    QFETCH(QString, toText);
    QFETCH(bool, ok);
    QFETCH(QDate, fromDay);
    QFETCH(QDate, toDay);
    QFETCH(QString, fromAfter);
    QFETCH(QString, toAfter);

    PlaylistLoop loop(5, QString("#Vorsane playlist\n"), QString());
    loop.fromDate = fromText;
    loop.toDate = toText;
    QCOMPARE(loop.validateDate(QDate(2024, 5, 15)), ok);
    QCOMPARE(loop.fromDate, fromAfter);
    QCOMPARE(loop.toDate, toAfter);
    if (ok) {
        QCOMPARE(loop.from.date(), fromDay);
        QCOMPARE(loop.to.date(), toDay);
    }
}

void TestPlaylistLoop::validateTime_data()
{
    QTest::addColumn<QString>("start");
    QTest::addColumn<QString>("end");
    QTest::addColumn<QTime>("fromTime");
    QTest::addColumn<QTime>("toTime");
    QTest::addColumn<QDate>("toDay");
    QTest::addColumn<int>("scoreChange");

    const QDate last(2024, 5, 31);
    QTest::newRow("no times") << ""
                              << "" << QTime(0, 0) << QTime(23, 59) << last << -2;
    QTest::newRow("daily period") << "08:00"
                                  << "18:30" << QTime(8, 0) << QTime(18, 30) << last << 0;
    QTest::newRow("single digits") << "8:5"
                                   << "9:7" << QTime(8, 5) << QTime(9, 7) << last << 0;
    QTest::newRow("start hour too large") << "25:10"
                                          << "18:00" << QTime(0, 0) << QTime(18, 0) << last << 0;
    QTest::newRow("start minute too large") << "08:60"
                                            << "18:00" << QTime(0, 0) << QTime(18, 0) << last << 0;
    QTest::newRow("negative start") << "-1:30"
                                    << "18:00" << QTime(0, 0) << QTime(18, 0) << last << 0;
    QTest::newRow("end too large") << "08:00"
                                   << "24:00" << QTime(8, 0) << QTime(23, 59) << last << 0;
    QTest::newRow("end in one piece") << "08:00"
                                      << "7" << QTime(8, 0) << QTime(23, 59) << last << -1;
    QTest::newRow("start with seconds") << "08:00:00"
                                        << "18:00" << QTime(0, 0) << QTime(18, 0) << last << -1;
    QTest::newRow("letters read as zero") << "08:00"
                                          << "xx:30" << QTime(8, 0) << QTime(0, 30) << last << 0;
    QTest::newRow("equal times end today")
        << "08:00"
        << "08:00" << QTime(8, 0) << QTime(8, 0) << QDate(2024, 5, 15) << 0;
    QTest::newRow("both fall back to midnight and 23:59")
        << "99:99"
        << "99:99" << QTime(0, 0) << QTime(23, 59) << last << 0;
}

void TestPlaylistLoop::validateTime()
{
    QFETCH(QString, start);
    QFETCH(QString, end);
    QFETCH(QTime, fromTime);
    QFETCH(QTime, toTime);
    QFETCH(QDate, toDay);
    QFETCH(int, scoreChange);

    PlaylistLoop loop(5, QString("#Vorsane playlist\n"), QString());
    loop.fromDate = "2024/05/01";
    loop.toDate = "2024/05/31";
    loop.startTime = start;
    loop.endTime = end;
    const QDate today(2024, 5, 15);
    QVERIFY(loop.validateDate(today));
    const int score = loop.score;
    QVERIFY(loop.validateTime(today));
    QCOMPARE(loop.from, QDateTime(QDate(2024, 5, 1), fromTime));
    QCOMPARE(loop.to, QDateTime(toDay, toTime));
    QCOMPARE(loop.score - score, scoreChange);
}

void TestPlaylistLoop::validateTimeNeedsDates()
{
    PlaylistLoop loop(5, QString("#Vorsane playlist\n"), QString());
    loop.startTime = "08:00";
    QVERIFY(!loop.validateTime(QDate(2024, 5, 15)));
    QVERIFY(loop.validateDate(QDate(2024, 5, 15)));
    QVERIFY(loop.validateTime(QDate(2024, 5, 15)));
}

void TestPlaylistLoop::validateWeekdays_data()
{
    QTest::addColumn<QString>("repeat");
    QTest::addColumn<QString>("days");
    QTest::addColumn<int>("scoreChange");

    QTest::newRow("empty means every day") << ""
                                           << "1111111" << -1;
    QTest::newRow("monday and sunday") << "06"
                                       << "1000001" << 0;
    QTest::newRow("seven is no day") << "7"
                                     << "0000000" << 0;
    QTest::newRow("separators and letters ignored") << "0, x;2"
                                                    << "1010000" << 0;
    QTest::newRow("repeated digit") << "5555"
                                    << "0000010" << 0;
    QTest::newRow("every digit") << "0123456789"
                                 << "1111111" << 0;
}

void TestPlaylistLoop::validateWeekdays()
{
    QFETCH(QString, repeat);
    QFETCH(QString, days);
    QFETCH(int, scoreChange);

    PlaylistLoop loop(5, QString("#Vorsane playlist\n"), QString());
    loop.repeat = repeat;
    const int score = loop.score;
    QVERIFY(loop.validateWeekdays());
    QString bits;
    for (int i = 0; i < loop.weekdays.size(); ++i)
        bits += loop.weekdays.testBit(i) ? '1' : '0';
    QCOMPARE(bits, days);
    QCOMPARE(loop.score - score, scoreChange);
}

void TestPlaylistLoop::weekdayBitsOnlyAccumulate()
{
    PlaylistLoop loop(5, QString("#Vorsane playlist\n"), QString());
    loop.repeat = "0";
    loop.validateWeekdays();
    loop.repeat = "2";
    loop.validateWeekdays();
    QCOMPARE(loop.weekdays.count(true), 2);
    QVERIFY(loop.weekdays.testBit(0));
    QVERIFY(loop.weekdays.testBit(2));
}

void TestPlaylistLoop::nowOk_data()
{
    QTest::addColumn<QString>("attributes");
    QTest::addColumn<bool>("withItems");
    QTest::addColumn<QDateTime>("now");
    QTest::addColumn<QDateTime>("reference");
    QTest::addColumn<QDateTime>("expected");

    // 2024-05-13 is a Monday, 2024-05-15 a Wednesday.
    const QDateTime none;
    auto row = [](const char *name, const QString &attributes, const QString &now,
                  const QString &expected, const QString &reference = QString(),
                  bool withItems = true) {
        QTest::newRow(name) << attributes << withItems << at(now)
                            << (reference.isEmpty() ? at(now) : at(reference)) << at(expected);
    };

    row("no schedule, midday", "", "2024-05-15T12:00:00", "2024-05-15T00:00:00");
    row("no schedule, first instant", "", "2024-05-15T00:00:00", "2024-05-15T00:00:00");
    row("no schedule, 23:59 sharp", "", "2024-05-15T23:59:00", "2024-05-15T00:00:00");
    row("no schedule, last minute excluded", "", "2024-05-15T23:59:00.001", "");
    row("no items never applies", "", "2024-05-15T12:00:00", "", QString(), false);
    row("idle loop applies without own items", "idle='1'", "2024-05-15T12:00:00",
        "2024-05-15T00:00:00", QString(), false);

    row("daily period, inside", "start='08:00' end='18:00'", "2024-05-15T12:00:00",
        "2024-05-15T08:00:00");
    row("daily period, at the start", "start='08:00' end='18:00'", "2024-05-15T08:00:00",
        "2024-05-15T08:00:00");
    row("daily period, at the end", "start='08:00' end='18:00'", "2024-05-15T18:00:00",
        "2024-05-15T08:00:00");
    row("daily period, just after", "start='08:00' end='18:00'", "2024-05-15T18:00:00.001", "");
    row("daily period, just before", "start='08:00' end='18:00'", "2024-05-15T07:59:59.999", "");
    row("start out of range is midnight", "start='25:10' end='18:00'", "2024-05-15T00:30:00",
        "2024-05-15T00:00:00");
    row("end in one piece is 23:59", "start='08:00' end='7'", "2024-05-15T23:30:00",
        "2024-05-15T08:00:00");

    row("overnight, before midnight", "start='22:00' end='06:00'", "2024-05-15T23:00:00",
        "2024-05-15T22:00:00");
    row("overnight, after midnight", "start='22:00' end='06:00'", "2024-05-15T05:00:00",
        "2024-05-14T22:00:00");
    row("overnight, after the end", "start='22:00' end='06:00'", "2024-05-15T07:00:00", "");
    row("overnight, evening before the start", "start='22:00' end='06:00'", "2024-05-15T21:59:00",
        "");
    row("overnight, the end minute itself", "start='22:00' end='06:00'", "2024-05-15T06:00:00", "");
    row("overnight, weekday of the new day", "start='22:00' end='06:00' repeat='3'",
        "2024-05-16T05:00:00", "2024-05-15T22:00:00");
    row("overnight, weekday of the old day", "start='22:00' end='06:00' repeat='2'",
        "2024-05-16T05:00:00", "");

    row("equal times, exactly then", "start='08:00' end='08:00'", "2024-05-15T08:00:00",
        "2024-05-15T08:00:00");
    row("equal times, a moment later", "start='08:00' end='08:00'", "2024-05-15T08:00:00.001", "");
    row("equal times, earlier reference", "start='08:00' end='08:00'", "2024-05-15T15:00:00",
        "2024-05-15T08:00:00", "2024-05-15T07:00:00");
    row("equal times, reference at the start", "start='08:00' end='08:00'", "2024-05-15T23:00:00",
        "2024-05-15T08:00:00", "2024-05-15T08:00:00");
    row("equal times, before the time", "start='08:00' end='08:00'", "2024-05-15T07:00:00", "",
        "2024-05-15T06:00:00");

    row("weekdays, monday listed", "repeat='06'", "2024-05-13T10:00:00", "2024-05-13T00:00:00");
    row("weekdays, sunday listed", "repeat='06'", "2024-05-19T10:00:00", "2024-05-19T00:00:00");
    row("weekdays, wednesday not listed", "repeat='06'", "2024-05-15T10:00:00", "");
    row("weekdays, seven is never", "repeat='7'", "2024-05-13T10:00:00", "");

    row("date range, inside", "from='2024/05/01' to='2024/05/31'", "2024-05-15T12:00:00",
        "2024-05-01T00:00:00");
    row("date range, last day", "from='2024/05/01' to='2024/05/31'", "2024-05-31T23:59:00",
        "2024-05-01T00:00:00");
    row("date range, day after", "from='2024/05/01' to='2024/05/31'", "2024-06-01T00:00:00", "");
    row("date range, day before", "from='2024/05/01' to='2024/05/31'", "2024-04-30T23:00:00", "");
    row("date range with times runs from first start to last end",
        "from='2024/05/01' to='2024/05/31' start='08:00' end='18:00'", "2024-05-15T20:00:00",
        "2024-05-01T08:00:00");
    row("date range with times, first morning", "from='2024/05/01' to='2024/05/31' start='08:00'",
        "2024-05-01T07:00:00", "");
    row("from date only", "from='2024/05/10'", "2024-05-15T12:00:00", "2024-05-10T00:00:00");
    row("from date in the future", "from='2024/06/10'", "2024-05-15T12:00:00", "");

    // Europe/Paris: 2024-03-31 skips 02:00-03:00, 2024-10-27 repeats 02:00-03:00.
    row("spring change, overnight period", "start='22:00' end='06:00'", "2024-03-31T05:00:00",
        "2024-03-30T22:00:00");
    row("spring change, daily period", "start='01:00' end='04:00'", "2024-03-31T03:30:00",
        "2024-03-31T01:00:00");
    row("spring change, start in the skipped hour", "start='02:30' end='05:00'",
        "2024-03-31T03:45:00", "2024-03-31T03:30:00");
    row("spring change, before the moved start", "start='02:30' end='05:00'", "2024-03-31T03:15:00",
        "");
    row("autumn change, first pass of the repeated hour", "start='01:00' end='04:00'",
        "2024-10-27T00:30:00Z", "2024-10-27T01:00:00");
    row("autumn change, second pass of the repeated hour", "start='01:00' end='04:00'",
        "2024-10-27T01:30:00Z", "2024-10-27T01:00:00");
    row("autumn change, overnight period", "start='22:00' end='06:00'", "2024-10-27T05:30:00",
        "2024-10-26T22:00:00");
    row("autumn change, period ended", "start='00:00' end='02:30'", "2024-10-27T02:00:00Z", "");

    row("invalid from date never applies", "from='2024/02/30'", "2024-05-15T12:00:00", "");
    row("from after to never applies", "from='2024/06/01' to='2024/05/01'", "2024-05-15T12:00:00",
        "");
    row("utc instant is read as local time", "start='12:00' end='13:00'", "2024-05-15T10:30:00Z",
        "2024-05-15T12:00:00");
}

void TestPlaylistLoop::nowOk()
{
    QFETCH(QString, attributes);
    QFETCH(bool, withItems);
    QFETCH(QDateTime, now);
    QFETCH(QDateTime, reference);
    QFETCH(QDateTime, expected);

    QVERIFY(now.isValid());
    const PlaylistLoopPtr loop = scheduledLoop(attributes, withItems);
    QVERIFY(loop);
    const QDateTime result = loop->nowOk(reference, now);
    QCOMPARE(result.isValid(), expected.isValid());
    if (expected.isValid())
        QCOMPARE(result, expected);
    // A second look at the same instant gives the same answer: nothing drifts.
    QCOMPARE(loop->nowOk(reference, now), result);
}

void TestPlaylistLoop::nowOkWithTheClock()
{
    if (QTime::currentTime() >= QTime(23, 58))
        QSKIP("too close to the end of the day");
    const PlaylistLoopPtr loop = scheduledLoop("");
    const QDateTime now = QDateTime::currentDateTime();
    QCOMPARE(loop->nowOk(now), QDateTime(QDate::currentDate(), QTime(0, 0)));
    QVERIFY(!scheduledLoop("repeat='7'")->nowOk(now).isValid());
}

void TestPlaylistLoop::scoreKeepsFalling()
{
    const PlaylistLoopPtr loop = scheduledLoop("");
    // Built: missing start, end and weekdays.
    QCOMPARE(loop->score, -3);
    loop->nowOk(at("2024-05-15T12:00:00"), at("2024-05-15T12:00:00"));
    QCOMPARE(loop->score, -6);
    const PlaylistLoopPtr complete = scheduledLoop("start='08:00' end='18:00' repeat='0123456'");
    complete->nowOk(at("2024-05-15T12:00:00"), at("2024-05-15T12:00:00"));
    QCOMPARE(complete->score, 0);
}

void TestPlaylistLoop::idleSpan_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QTime>("from");
    QTest::addColumn<QTime>("to");

    QTest::newRow("screen off") << "Screen OFF From: 22:00 To: 06:30" << QTime(22, 0)
                                << QTime(6, 30);
    QTest::newRow("single digit hour")
        << "Screen OFF From: 7:05 To: 18:00" << QTime(7, 5) << QTime(18, 0);
    QTest::newRow("no markers read at fixed places")
        << "abcde12:34" << QTime(12, 34) << QTime(0, 0);
    QTest::newRow("letters read as zero, hour too large")
        << "Screen OFF From: 2x:00 To: 25:00" << QTime(0, 0) << QTime();
    QTest::newRow("no colon") << "Screen OFF From: 2200 To: 0630" << QTime() << QTime();
    QTest::newRow("empty text") << "" << QTime() << QTime();
}

void TestPlaylistLoop::idleSpan()
{
    QFETCH(QString, text);
    QFETCH(QTime, from);
    QFETCH(QTime, to);

    PlaylistLoop loop(5, QString("#Vorsane playlist\n"), QString());
    const QDate today(2024, 5, 15);
    const QDateTime start = loop.getFromIdle(text, today);
    const QDateTime end = loop.getToIdle(text, today);
    QCOMPARE(start, from.isValid() ? QDateTime(today, from) : QDateTime());
    QCOMPARE(end, to.isValid() ? QDateTime(today, to) : QDateTime());
    QCOMPARE(loop.idleFrom, start);
    QCOMPARE(loop.idleTo, end);

    if (from.isValid())
        QCOMPARE(loop.getFromIdle(text), QDateTime(QDate::currentDate(), from));
}

void TestPlaylistLoop::xmlLoop_data()
{
    QTest::addColumn<QString>("xml");
    QTest::addColumn<QStringList>("expected");
    QTest::addColumn<bool>("active");

    QTest::newRow("every child a web page")
        << "<loop><i uri='http://a/' type='url'/><i uri='http://b/'/>"
           "<i uri='https://c/' type='url' time='9'/></loop>"
        << QStringList{"http://a/|6|5|", demo, "http://b/|6|5|", "https://c/|6|9|all_webpages"}
        << true;
    QTest::newRow("single web page")
        << "<loop><i uri='http://a/'/></loop>" << QStringList{"http://a/|6|5|all_webpages"} << true;
    QTest::newRow("a dropped child spoils the count")
        << "<loop><i uri='http://a/'/><i uri=''/><i uri='http://c/'/></loop>"
        << QStringList{"http://a/|6|5|", demo, "http://c/|6|5|"} << true;
    QTest::newRow("a comment spoils the count")
        << "<loop><i uri='http://a/'/><!-- note --><i uri='http://c/'/></loop>"
        << QStringList{"http://a/|6|5|", demo, "http://c/|6|5|"} << true;
    QTest::newRow("mixed types")
        << "<loop><i uri='http://a/'/><i uri='http://b/' type='image'/></loop>"
        << QStringList{"http://a/|6|5|", demo, "http://b/|3|5|"} << true;
    QTest::newRow("parameters kept with the marker")
        << "<loop><i uri='http://a/' parameters='x;y'/></loop>"
        << QStringList{"http://a/|6|5|x,y,all_webpages"} << true;
    QTest::newRow("idle loop") << "<loop idle='1'><i uri='http://a/'/></loop>"
                               << QStringList{"|9|60|", demo, "http://a/|6|5|all_webpages"}
                               << false;
    QTest::newRow("idle loop without children")
        << "<loop idle='1'/>" << QStringList{"|9|60|"} << false;
    QTest::newRow("idle needs exactly one") << "<loop idle='true'><i uri='http://a/'/></loop>"
                                            << QStringList{"http://a/|6|5|all_webpages"} << true;
    QTest::newRow("invalid schedule keeps no items")
        << "<loop from='2024/02/30'><i uri='http://a/'/><i uri='http://b/'/></loop>"
        << QStringList() << true;
    QTest::newRow("from after to keeps no items")
        << "<loop from='2024/06/01' to='2024/05/01'><i uri='http://a/'/></loop>" << QStringList()
        << true;
    QTest::newRow("times out of range still load")
        << "<loop start='77:77' end='x'><i uri='http://a/'/></loop>"
        << QStringList{"http://a/|6|5|all_webpages"} << true;
    QTest::newRow("directory is not expanded")
        << "<loop><i uri='file://$HOME'/></loop>" << QStringList{"file://$HOME|8|5|"} << true;
    QTest::newRow("maintenance item")
        << "<loop><i uri='http://s/u.zip' type='maintenance' parameters='a'/></loop>"
        << QStringList{"http://s/u.zip|10|0|a"} << true;
    QTest::newRow("empty loop") << "<loop/>" << QStringList() << true;
    QTest::newRow("nested elements are items, their children not")
        << "<loop><g uri='http://a/'><i uri='http://inner/'/></g></loop>"
        << QStringList{"http://a/|6|5|all_webpages"} << true;
}

void TestPlaylistLoop::xmlLoop()
{
    QFETCH(QString, xml);
    QFETCH(QStringList, expected);
    QFETCH(bool, active);

    const PlaylistLoopPtr loop = makeXmlLoop(expand(xml, m_home->path()));
    QVERIFY(loop);
    QCOMPARE(summaries(*loop), expand(expected, m_home->path()));
    QCOMPARE(loop->active, active);
    QCOMPARE(loop->tag, QString("tag"));
}

void TestPlaylistLoop::xmlLoopFields()
{
    const PlaylistLoopPtr loop
        = makeXmlLoop("<loop id='42' idle='0' shuffle='0' start='08:15' end='17:45' repeat='01234' "
                      "from='2024/01/01' to='2030/12/31'><i uri='http://a/'/></loop>",
                      12);
    QCOMPARE(loop->id, QString("42"));
    QCOMPARE(loop->idle, false);
    QCOMPARE(loop->shuffle, false);
    QCOMPARE(loop->startTime, QString("08:15"));
    QCOMPARE(loop->endTime, QString("17:45"));
    QCOMPARE(loop->repeat, QString("01234"));
    QCOMPARE(loop->fromDate, QString("2024/01/01"));
    QCOMPARE(loop->toDate, QString("2030/12/31"));
    QCOMPARE(loop->defaultDuration, 12);
    QCOMPARE(loop->from, QDateTime(QDate(2024, 1, 1), QTime(8, 15)));
    QCOMPARE(loop->to, QDateTime(QDate(2030, 12, 31), QTime(17, 45)));
    QCOMPARE(loop->weekdays.count(true), 5);
    QCOMPARE(loop->active, true);

    PlaylistLoop flat(7, QString("#Vorsane playlist\nhttp://a/ 5\n"), "flat tag");
    QVERIFY(flat.id.isEmpty());
    QCOMPARE(flat.shuffle, false);
    QCOMPARE(flat.weekdays.size(), 7);
    QCOMPARE(flat.weekdays.count(true), 0);
    QCOMPARE(flat.score, 0);
    QCOMPARE(flat.tag, QString("flat tag"));
    QVERIFY(flat.from.isNull());
    QVERIFY(flat.idleFrom.isNull());
}

void TestPlaylistLoop::demoItems_data()
{
    QTest::addColumn<int>("count");
    QTest::addColumn<QList<int>>("positions");

    QTest::newRow("empty") << 0 << QList<int>();
    QTest::newRow("one item") << 1 << QList<int>();
    QTest::newRow("two items") << 2 << QList<int>{1};
    QTest::newRow("three items") << 3 << QList<int>{1};
    QTest::newRow("four items, one at the end") << 4 << QList<int>{1, 5};
    QTest::newRow("five items") << 5 << QList<int>{1, 5};
    QTest::newRow("seven items") << 7 << QList<int>{1, 5, 9};
    QTest::newRow("eleven items") << 11 << QList<int>{1, 5, 9, 13};
}

void TestPlaylistLoop::demoItems()
{
    QFETCH(int, count);
    QFETCH(QList<int>, positions);

    QString xml = "<loop>";
    QStringList urls;
    for (int i = 0; i < count; ++i) {
        urls << QString("http://host/%1").arg(i);
        xml += QString("<i uri='%1' type='image'/>").arg(urls.last());
    }
    const PlaylistLoopPtr loop = makeXmlLoop(xml + "</loop>");
    QList<int> found;
    QStringList others;
    for (int i = 0; i < loop->items.size(); ++i) {
        if (summary(loop->items.at(i)) == QLatin1String(demo))
            found << i;
        else
            others << loop->items.at(i)->url;
    }
    QCOMPARE(found, positions);
    QCOMPARE(others, urls);
    // Every demo is an item of its own.
    if (found.size() > 1)
        QVERIFY(loop->items.at(found.at(0)) != loop->items.at(found.at(1)));
}

void TestPlaylistLoop::shuffle_data()
{
    QTest::addColumn<bool>("xml");
    QTest::addColumn<bool>("shuffled");

    QTest::newRow("xml loop with shuffle") << true << true;
    QTest::newRow("xml loop without shuffle") << true << false;
    QTest::newRow("flat loop with the preference") << false << true;
    QTest::newRow("flat loop without the preference") << false << false;
}

void TestPlaylistLoop::shuffle()
{
    QFETCH(bool, xml);
    QFETCH(bool, shuffled);

    QStringList urls;
    for (int i = 0; i < 9; ++i)
        urls << QString("http://host/%1").arg(i);

    // The C library generator, stepped exactly as the loop does it.
    const unsigned seed = 20240515;
    QStringList expected = urls;
    if (shuffled) {
        std::srand(seed);
        for (int i = 1; i < expected.size(); ++i)
            expected.swapItemsAt(i, std::rand() % (i + 1));
        QVERIFY(expected != urls);
    }

    std::srand(seed);
    PlaylistLoopPtr loop;
    if (xml) {
        QString text = QString("<loop shuffle='%1'>").arg(shuffled ? "1" : "0");
        for (const QString &url : urls)
            text += "<i uri='" + url + "' type='image'/>";
        loop = makeXmlLoop(text + "</loop>");
    } else {
        Settings::load(false, nullptr)->set("slideshow/shuffle", shuffled);
        loop = std::make_shared<PlaylistLoop>(5, "#Vorsane playlist\n" + urls.join(" 5\n") + " 5\n",
                                              QString());
    }
    QStringList order;
    for (const PlaylistItemPtr &item : qAsConst(loop->items))
        order << item->url;
    order.removeAll("file://:/demo/demo.jpg");
    QCOMPARE(order, expected);
    // Demo images are placed after the shuffle, at their usual places.
    QCOMPARE(loop->items.at(1)->url, QString("file://:/demo/demo.jpg"));
}

void TestPlaylistLoop::flatLoop_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QStringList>("files");
    QTest::addColumn<QStringList>("expected");

    const QString head = "#Vorsane playlist\n";
    const QString warn = QString::fromLatin1(warning);

    QTest::newRow("three web pages")
        << head + "http://a/ 10\nhttp://b/ 20\nhttps://c/ 30\n"
        << QStringList()
        << QStringList{"http://a/|6|10|", demo, "http://b/|6|20|", "https://c/|6|30|all_webpages"};
    QTest::newRow("three web pages and a file")
        << head + "http://a/ 10\nhttp://b/ 20\nfile://$HOME/p.png 5\nhttps://c/ 30\n"
        << QStringList{"p.png"}
        << QStringList{"http://a/|6|10|",  demo, "http://b/|6|20|", "file://$HOME/p.png|3|5|",
                       "https://c/|6|30|", demo};
    QTest::newRow("without the final newline the marker comes one early")
        << head + "http://a/ 10\nhttp://b/ 20\nhttps://c/ 30" << QStringList()
        << QStringList{"http://a/|6|10|", demo, "http://b/|6|20|all_webpages", "https://c/|6|30|"};
    QTest::newRow("a comment spoils the marker")
        << head + "# lobby screen\nhttp://a/ 10\nhttp://b/ 20\n"
        << QStringList() << QStringList{"http://a/|6|10|", demo, "http://b/|6|20|"};
    QTest::newRow("file url kept as written")
        << head + "file:$HOME/a.jpg 10\n"
        << QStringList{"a.jpg"} << QStringList{"file:$HOME/a.jpg|3|10|"};
    QTest::newRow("missing file skipped, no warning") << head + "file:///nowhere/a.jpg 10\n"
                                                      << QStringList() << QStringList();
    QTest::newRow("directory expanded in order")
        << head + "file://$HOME/show 8\n"
        << QStringList{"show/b.jpg", "show/A.jpg", "show/a.jpg", "show/sub/c.pdf", "show/.hidden"}
        << QStringList{"file://$HOME/show/A.jpg|3|8|",   demo,
                       "file://$HOME/show/a.jpg|3|8|",   "file://$HOME/show/b.jpg|3|8|",
                       "file://$HOME/show/sub/c.pdf|4|8|", demo};
    QTest::newRow("empty directory adds nothing") << head + "file://$HOME/empty 8\n"
                                                  << QStringList{"empty/"} << QStringList();
    QTest::newRow("screen off") << head + "Screen OFF From: 22:00 To: 06:00 300\nhttp://a/ 10\n"
                                << QStringList()
                                << QStringList{"Screen OFF From: 22:00 To: 06:00|9|0|", demo,
                                               "http://a/|6|10|"};
    QTest::newRow("screen off alone brings the usb warning")
        << head + "Screen OFF From: 22:00 To: 06:00 300\n"
        << QStringList()
        << QStringList{"Screen OFF From: 22:00 To: 06:00|9|0|", demo, warn.arg(300)};
    QTest::newRow("lines without a blank skipped")
        << head + "http://a/\n\nhttp://b/ 5\n"
        << QStringList() << QStringList{"http://b/|6|5|"};
    QTest::newRow("duration not a number")
        << head + "http://a/ ten\nhttp://b/ 5\n"
        << QStringList() << QStringList{"http://a/|6|0|", demo, "http://b/|6|5|all_webpages"};
    QTest::newRow("windows line ends")
        << "#Vorsane playlist\r\nhttp://a/ 10\r\nhttp://b/ 5\r\n"
        << QStringList() << QStringList{"http://a/|6|10|", demo, "http://b/|6|5|all_webpages"};
    QTest::newRow("unknown scheme is no entry") << head + "ftp://host/a.jpg 10\n"
                                                << QStringList() << QStringList{warn.arg(10)};
    QTest::newRow("text that is no url") << head + "http://exa mple.com/ 12\n"
                                         << QStringList() << QStringList{warn.arg(12)};
    QTest::newRow("plain words") << "hello world 7" << QStringList() << QStringList{warn.arg(7)};
    QTest::newRow("empty text") << QString() << QStringList() << QStringList{warn.arg(5)};
    QTest::newRow("marker only") << head << QStringList() << QStringList{warn.arg(5)};
    QTest::newRow("broken xml is flat text")
        << "<schedule><loop>" << QStringList() << QStringList{warn.arg(5)};
    QTest::newRow("usb-auto with files")
        << head + "usb-auto 10\n"
        << QStringList{".vorsane-kiosk/usbauto/2.png", ".vorsane-kiosk/usbauto/1.png"}
        << QStringList{"file://$HOME/.vorsane-kiosk/usbauto/1.png|3|10|", demo,
                       "file://$HOME/.vorsane-kiosk/usbauto/2.png|3|10|"};
    QTest::newRow("usb-auto empty")
        << head + "usb-auto 10\n"
        << QStringList{".vorsane-kiosk/usbauto/"} << QStringList{warn.arg(10)};
    QTest::newRow("usb-auto missing") << head + "usb-auto 10\n"
                                      << QStringList() << QStringList{warn.arg(10)};
    QTest::newRow("usb-auto empty next to a web page")
        << head + "usb-auto 10\nhttp://a/ 7\n"
        << QStringList() << QStringList{"http://a/|6|7|"};
    QTest::newRow("usb-auto needs the exact word")
        << head + "usb-auto-2 10\n"
        << QStringList{".vorsane-kiosk/usbauto/1.png"} << QStringList{warn.arg(10)};
}

void TestPlaylistLoop::flatLoop()
{
    QFETCH(QString, text);
    QFETCH(QStringList, files);
    QFETCH(QStringList, expected);

    const QString home = m_home->path();
    QVERIFY(createFiles(home, files));
    LogCapture log;
    const PlaylistLoop loop(5, expand(text, home), "tag");
    QCOMPARE(summaries(loop), expand(expected, home));
    QCOMPARE(log.contains("USB Auto in playlist."), text.contains("\nusb-auto "));
    QCOMPARE(log.contains("Dispay warning for usb-auto."),
             expected.join(' ').contains("usb_auto_insert_warning"));
    QVERIFY(loop.active);
    QVERIFY(!loop.idle);
}

void TestPlaylistLoop::directoryOrder()
{
    const QString dir = m_home->filePath("media");
    QVERIFY(createFiles(dir, {"b.jpg", "A.jpg", "a.jpg", "B.jpg", "deep/er/z.png"}));
    const bool haveVideo = makeVideo(dir + "/clip.mp4", 1);

    PlaylistLoop loop(5, QString("#Vorsane playlist\n"), QString());
    loop.items.clear();
    QVERIFY(loop.addDirectoryInItems(dir, 9));
    QStringList expected{"A.jpg|3|9|", "a.jpg|3|9|", "B.jpg|3|9|", "b.jpg|3|9|"};
    if (haveVideo)
        expected << "clip.mp4|1|0|";
    expected << "deep/er/z.png|3|9|";
    for (QString &entry : expected)
        entry.prepend("file://" + dir + "/");
    QCOMPARE(summaries(loop), expected);

    QVERIFY(!loop.addDirectoryInItems(m_home->filePath("nothing-here"), 9));
    QVERIFY(QDir().mkpath(m_home->filePath("empty")));
    QVERIFY(!loop.addDirectoryInItems(m_home->filePath("empty"), 9));
    QCOMPARE(loop.items.size(), expected.size());

    detail::PlaylistItemCompare less;
    auto item = [](const QString &url) {
        return std::make_shared<PlaylistItem>(url, PlaylistItem::Webpage, 1, false, QStringList());
    };
    QVERIFY(less(item("file:///A"), item("file:///a")));
    QVERIFY(!less(item("file:///a"), item("file:///A")));
    QVERIFY(less(item("file:///a"), item("file:///B")));
    QVERIFY(!less(item("file:///a"), item("file:///a")));
}

void TestPlaylistLoop::dragAndDrop_data()
{
    QTest::addColumn<bool>("remoteEnabled");
    QTest::addColumn<bool>("folderExists");
    QTest::addColumn<bool>("included");

    QTest::newRow("remote on, folder present") << true << true << true;
    QTest::newRow("remote on, no folder") << true << false << false;
    QTest::newRow("remote off, folder present") << false << true << false;
}

void TestPlaylistLoop::dragAndDrop()
{
    QFETCH(bool, remoteEnabled);
    QFETCH(bool, folderExists);
    QFETCH(bool, included);

    const QString home = m_home->path();
    Settings::load(false, nullptr)->set("remote/enabled", remoteEnabled);
    if (folderExists)
        QVERIFY(createFiles(home, {".vorsane-kiosk/dragndrop/dropped.png"}));
    LogCapture log;
    const PlaylistLoop loop(11, QString("#Vorsane playlist\nhttp://a/ 10\nhttp://b/ 10\n"),
                            QString());
    QStringList expected{"http://a/|6|10|", "http://b/|6|10|all_webpages"};
    if (included)
        expected.prepend("file://" + home + "/.vorsane-kiosk/dragndrop/dropped.png|3|11|");
    QCOMPARE(withoutDemo(summaries(loop)), expected);
    QCOMPARE(log.contains("Add drag and drop directory."), included);
}

void TestPlaylistLoop::networkShare_data()
{
    QTest::addColumn<QString>("entry");
    QTest::addColumn<bool>("mounted");
    QTest::addColumn<bool>("mountWorks");
    QTest::addColumn<QStringList>("mountCalls");
    QTest::addColumn<QStringList>("expected");

    const QString share = "$RUN/gvfs/smb-share:server=srv,share=media/";
    QTest::newRow("file on a share not mounted yet")
        << "smb://srv/media/shows/a.png" << false << true << QStringList{"smb://srv/media"}
        << QStringList{share + "shows/a.png|3|10|"};
    QTest::newRow("directory on a share")
        << "smb://srv/media/shows" << false << true << QStringList{"smb://srv/media"}
        << QStringList{"file://" + share + "shows/a.png|3|10|", demo,
                       "file://" + share + "shows/b.pdf|4|10|"};
    QTest::newRow("share already mounted")
        << "smb://srv/media/shows/b.pdf" << true << true << QStringList()
        << QStringList{share + "shows/b.pdf|4|10|"};
    QTest::newRow("mount fails") << "smb://srv/media/shows/a.png" << false << false
                                 << QStringList{"smb://srv/media"} << QStringList();
    QTest::newRow("missing file on the share")
        << "smb://srv/media/shows/zz.png" << true << true << QStringList() << QStringList();
    QTest::newRow("no share named")
        << "smb://srv" << false << true << QStringList{"smb://srv/"} << QStringList();
}

void TestPlaylistLoop::networkShare()
{
    QFETCH(QString, entry);
    QFETCH(bool, mounted);
    QFETCH(bool, mountWorks);
    QFETCH(QStringList, mountCalls);
    QFETCH(QStringList, expected);

    const QString run = m_home->filePath("run");
    QVERIFY(QDir().mkpath(run));
    qputenv("XDG_RUNTIME_DIR", run.toUtf8());
    const QString stage = m_home->filePath("stage");
    QVERIFY(createFiles(stage, {"shows/a.png", "shows/b.pdf"}));
    const QString mountPoint = run + "/gvfs/smb-share:server=srv,share=media";

    FakePrograms fakes;
    if (mountWorks)
        fakes.addScript("gvfs-mount",
                        "mkdir -p \"$XDG_RUNTIME_DIR/gvfs/smb-share:server=srv,share=media\""
                        " && cp -r \"$HOME/stage/shows\" "
                        "\"$XDG_RUNTIME_DIR/gvfs/smb-share:server=srv,share=media/\"");
    else
        fakes.add("gvfs-mount", "gvfs-mount: location is not mountable\n", 1);
    if (mounted) {
        QVERIFY(QDir().mkpath(mountPoint));
        QVERIFY(QProcess::execute("cp", {"-r", stage + "/shows", mountPoint + "/"}) == 0);
    }

    LogCapture log;
    const PlaylistLoop loop(5, "#Vorsane playlist\n" + entry + " 10\n", QString());
    for (QString &line : expected)
        line.replace("$RUN", run);
    QCOMPARE(summaries(loop), expected);
    QCOMPARE(fakes.callLines("gvfs-mount"), mountCalls);
    QVERIFY(log.contains("Receiving smb url: \"" + entry + "\""));
    QVERIFY(log.contains("  Server: \"srv\""));
    QVERIFY(log.contains("  Mount url:"));
    QVERIFY(log.contains("  Fullpath :"));
    // A share entry is an address: no usb warning even when nothing came of it.
    QVERIFY(!log.contains("Dispay warning for usb-auto."));
}

void TestPlaylistLoop::hugePlaylists()
{
    QString flat = "#Vorsane playlist\n";
    for (int i = 0; i < 20000; ++i)
        flat += QString("http://host/page%1 5\n").arg(i);
    const PlaylistLoop big(5, flat, QString());
    // 20000 entries and a demo image every four places.
    QCOMPARE(big.items.size(), 20000 + 6667);
    QCOMPARE(big.items.last()->parameters, QStringList{"all_webpages"});
    QCOMPARE(big.items.at(big.items.size() - 2)->url, QString("file://:/demo/demo.jpg"));

    QString xml = "<loop>";
    for (int i = 0; i < 5000; ++i)
        xml += QString("<i uri='http://host/%1' type='image' time='%2'/>").arg(i).arg(i % 7);
    const PlaylistLoopPtr loop = makeXmlLoop(xml + "</loop>");
    QCOMPARE(withoutDemo(summaries(*loop)).size(), 5000);
}

QTEST_MAIN(TestPlaylistLoop)
#include "tst_playlistloop.moc"
