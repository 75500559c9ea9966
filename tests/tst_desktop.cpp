#include "commandlineparser.h"
#include "panelmanager.h"
#include "pointerhider.h"
#include "settings.h"
#include "soundmute.h"
#include "systemshortcutmanager.h"
#include "testsupport.h"
#include "viewer.h"
#include "watchdog.h"

#include <QtTest>

#include <functional>

using namespace testsupport;

using Factory = std::function<std::unique_ptr<DesktopTakeover>()>;
Q_DECLARE_METATYPE(Factory)

// What the program takes from the desktop, and how it gives it back: by itself, and through
// the commands the watchdog would run if the program had to end at once.
class TestDesktop : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void takesOverAndGivesBack_data();
    void takesOverAndGivesBack();
    void watchdogGivesBackTheSame_data() { addRows(true); }
    void watchdogGivesBackTheSame();
    void givesBackOnce_data() { addRows(true); }
    void givesBackOnce();
    void viewerGivesTheDesktopBackInOrder();

private:
    // Every take-over; only those that take something when takenOnly.
    void addRows(bool takenOnly);
    // Stand-ins for the desktop's programs that write every call to one log, in order.
    void addDesktop(FakePrograms &fakes, int pkillExit, const QByteArray &keymap);
    QStringList calls(const FakePrograms &fakes) const;
    QStringList expanded(QStringList lines, const TempHome &home) const;
};

void TestDesktop::addDesktop(FakePrograms &fakes, int pkillExit, const QByteArray &keymap)
{
    const QByteArray log = "'" + fakes.dir().toUtf8() + "/calls'";
    const auto record = [&](const char *name) {
        return QByteArray("line=") + name
               + "; [ $# -gt 0 ] && line=\"$line $*\"; echo \"$line\" >> " + log + "\n";
    };
    fakes.addScript("pkill", record("pkill") + "exit " + QByteArray::number(pkillExit));
    fakes.addScript("lxpanel", record("lxpanel"));
    fakes.addScript("xfce4-panel", record("xfce4-panel"));
    fakes.addScript("amixer", record("amixer"));
    writeFile(fakes.dir() + "/keymap", keymap);
    fakes.addScript("xmodmap", record("xmodmap") + "[ \"$1\" = -pke ] && cat '"
                                   + fakes.dir().toUtf8() + "/keymap'\nexit 0");
    // The call shows once the stand-in is ready to note its end.
    fakes.addScript("unclutter", "trap 'kill $s; echo \"unclutter terminated\" >> " + log
                                     + "; exit 0' TERM\nsleep 3600 &\ns=$!\n" + record("unclutter")
                                     + "wait $s");
}

QStringList TestDesktop::calls(const FakePrograms &fakes) const
{
    const QString text = QString::fromUtf8(readFile(fakes.dir() + "/calls"));
    return text.split('\n', Qt::SkipEmptyParts);
}

QStringList TestDesktop::expanded(QStringList lines, const TempHome &home) const
{
    return lines.replaceInStrings("$HOME", home.path());
}

void TestDesktop::takesOverAndGivesBack_data()
{
    addRows(false);
}

void TestDesktop::addRows(bool takenOnly)
{
    QTest::addColumn<Factory>("make");
    QTest::addColumn<QByteArray>("desktop");
    QTest::addColumn<int>("pkillExit");
    QTest::addColumn<QByteArray>("keymap");
    QTest::addColumn<QString>("what");
    QTest::addColumn<QStringList>("takeOverCalls");
    QTest::addColumn<QStringList>("giveBackCalls");
    QTest::addColumn<QStringList>("logLines");

    const QByteArray keymap = "keycode 133 = Super_L NoSymbol Super_L\n";
    const auto panel = [](bool fullscreen, bool passwordSet) {
        return Factory([=] { return panel::Manager::create(fullscreen, passwordSet); });
    };
    const auto shortcuts = [](bool fullscreen, bool passwordSet) {
        return Factory([=] { return SystemShortcutManager::create(fullscreen, passwordSet); });
    };
    const auto sound = [](bool mute) {
        return Factory([=] { return std::make_unique<SoundMute>(mute); });
    };
    const QStringList disableSuper{"xmodmap -pke", "xmodmap -e clear mod4",
                                   "xmodmap -e keysym Super_L =", "xmodmap -e keysym Super_R ="};

    QTest::newRow("pointer hidden by unclutter")
        << Factory([] { return PointerHider::create(); }) << QByteArray() << 0 << keymap
        << "Mouse pointer" << QStringList{"unclutter -idle 1"}
        << QStringList{"unclutter terminated"}
        << QStringList{"Hiding mouse pointer.", "Mouse pointer shown again."};
    QTest::newRow("muted sound") << sound(true) << QByteArray() << 0 << keymap << "Sound"
                                 << QStringList{"amixer set PCM mute"}
                                 << QStringList{"amixer set PCM unmute"}
                                 << QStringList{"Disabling sound on channel: \"PCM\"",
                                                "Sound restored on channel: \"PCM\""};
    QTest::newRow("LXDE panel of a full-screen show")
        << panel(true, false) << QByteArray("LXDE") << 0 << keymap << "Desktop panel"
        << QStringList{"pkill lxpanel"} << QStringList{"lxpanel --profile LXDE-pi"}
        << QStringList{"Desktop panel hidden.", "Desktop panel restored."};
    QTest::newRow("XFCE panel of a locked window")
        << panel(false, true) << QByteArray("XFCE") << 0 << keymap << "Desktop panel"
        << QStringList{"xfce4-panel --quit"} << QStringList{"xfce4-panel"}
        << QStringList{"Desktop panel hidden.", "Desktop panel restored."};
    QTest::newRow("shortcuts of a locked full-screen kiosk")
        << shortcuts(true, true) << QByteArray() << 0 << keymap << "System shortcuts"
        << disableSuper
        << QStringList{"xmodmap $HOME/.vorsane-kiosk/xmodmap-backup",
                       "xmodmap -e add mod4 = Super_L Super_R"}
        << QStringList{"System shortcuts disabled.", "System shortcuts restored."};
    if (takenOnly)
        return;
    QTest::newRow("sound left on") << sound(false) << QByteArray() << 0 << keymap << "Sound"
                                   << QStringList{"amixer set PCM unmute"} << QStringList()
                                   << QStringList{"Enabling sound on channel: \"PCM\""};
    QTest::newRow("LXDE panel that was not running")
        << panel(true, false) << QByteArray("LXDE") << 1 << keymap << "Desktop panel"
        << QStringList{"pkill lxpanel"} << QStringList() << QStringList();
    QTest::newRow("panel beside an unlocked window")
        << panel(false, false) << QByteArray("LXDE") << 0 << keymap << "Desktop panel"
        << QStringList() << QStringList() << QStringList();
    QTest::newRow("panel of an unknown desktop")
        << panel(true, true) << QByteArray("GNOME") << 0 << keymap << "Desktop panel"
        << QStringList() << QStringList() << QStringList();
    QTest::newRow("shortcuts with an unreadable key map")
        << shortcuts(true, true) << QByteArray() << 0 << QByteArray() << "System shortcuts"
        << QStringList{"xmodmap -pke"} << QStringList()
        << QStringList{"Unable to read the key map; system shortcuts stay enabled."};
    QTest::newRow("shortcuts of a kiosk without password")
        << shortcuts(true, false) << QByteArray() << 0 << keymap << "System shortcuts"
        << QStringList() << QStringList() << QStringList();
}

void TestDesktop::takesOverAndGivesBack()
{
    QFETCH(Factory, make);
    QFETCH(QByteArray, desktop);
    QFETCH(int, pkillExit);
    QFETCH(QByteArray, keymap);
    QFETCH(QString, what);
    QFETCH(QStringList, takeOverCalls);
    QFETCH(QStringList, giveBackCalls);
    QFETCH(QStringList, logLines);
    TempHome home;
    home.stateDir();
    FakePrograms fakes;
    addDesktop(fakes, pkillExit, keymap);
    qputenv("XDG_CURRENT_DESKTOP", desktop);
    LogCapture log;
    giveBackCalls = expanded(giveBackCalls, home);

    std::unique_ptr<DesktopTakeover> takeover = make();
    QTRY_COMPARE(calls(fakes), takeOverCalls);
    const bool taken = !giveBackCalls.isEmpty();
    QCOMPARE(takeover && takeover->isTakenOver(), taken);
    QCOMPARE(!Watchdog::giveBack(what).isEmpty(), taken);

    takeover.reset();
    QTRY_COMPARE(calls(fakes), takeOverCalls + giveBackCalls);
    QCOMPARE(Watchdog::giveBack(what), QList<QStringList>());
    for (const QString &line : logLines)
        QVERIFY2(log.contains(line), qPrintable(line));
    QVERIFY(!QFile::exists(home.filePath(".vorsane-kiosk/xmodmap-backup")));
}

void TestDesktop::watchdogGivesBackTheSame()
{
    QFETCH(Factory, make);
    QFETCH(QByteArray, desktop);
    QFETCH(int, pkillExit);
    QFETCH(QByteArray, keymap);
    QFETCH(QString, what);
    QFETCH(QStringList, takeOverCalls);
    QFETCH(QStringList, giveBackCalls);
    TempHome home;
    home.stateDir();
    FakePrograms fakes;
    addDesktop(fakes, pkillExit, keymap);
    qputenv("XDG_CURRENT_DESKTOP", desktop);

    std::unique_ptr<DesktopTakeover> takeover = make();
    QTRY_COMPARE(calls(fakes), takeOverCalls);
    const QList<QStringList> commands = Watchdog::giveBack(what);
    QVERIFY(!commands.isEmpty());
    for (const QStringList &command : commands)
        QCOMPARE(QProcess::execute(command.first(), command.mid(1)), 0);
    QTRY_COMPARE(calls(fakes), takeOverCalls + expanded(giveBackCalls, home));
}

void TestDesktop::givesBackOnce()
{
    QFETCH(Factory, make);
    QFETCH(QByteArray, desktop);
    QFETCH(int, pkillExit);
    QFETCH(QByteArray, keymap);
    QFETCH(QString, what);
    QFETCH(QStringList, takeOverCalls);
    QFETCH(QStringList, giveBackCalls);
    TempHome home;
    home.stateDir();
    FakePrograms fakes;
    addDesktop(fakes, pkillExit, keymap);
    qputenv("XDG_CURRENT_DESKTOP", desktop);
    const QStringList all = takeOverCalls + expanded(giveBackCalls, home);

    std::unique_ptr<DesktopTakeover> takeover = make();
    QTRY_COMPARE(calls(fakes), takeOverCalls);
    takeover->giveBack();
    QVERIFY(!takeover->isTakenOver());
    QCOMPARE(Watchdog::giveBack(what), QList<QStringList>());
    QTRY_COMPARE(calls(fakes), all);
    takeover->giveBack();
    takeover.reset();
    QCOMPARE(calls(fakes), all);
}

void TestDesktop::viewerGivesTheDesktopBackInOrder()
{
    TempHome home;
    home.stateDir();
    FakePrograms fakes;
    fakes.addDesktopCommands();
    addDesktop(fakes, 0, "keycode 133 = Super_L\n");
    qputenv("XDG_CURRENT_DESKTOP", "LXDE");
    auto parser = makeParser(home.filePath("conf"));
    writeFile(home.filePath("conf/preferences"),
              "[main]\nversion=QFGLs6IVf1\nfullscreen=true\nadmin_passwd=x\n"
              "[slideshow]\nhide_pointer=true\nmute=true\n");
    Settings::load(true, parser.get());
    // unclutter runs beside the others, so its call may come after the mixer's.
    QStringList takeOver{"pkill lxpanel",
                         "xmodmap -pke",
                         "xmodmap -e clear mod4",
                         "xmodmap -e keysym Super_L =",
                         "xmodmap -e keysym Super_R =",
                         "unclutter -idle 1",
                         "amixer set PCM mute"};
    takeOver.sort();
    const QStringList giveBack{"unclutter terminated", "amixer set PCM unmute",
                               "xmodmap " + home.filePath(".vorsane-kiosk/xmodmap-backup"),
                               "xmodmap -e add mod4 = Super_L Super_R",
                               "lxpanel --profile LXDE-pi"};
    const auto sorted = [](QStringList lines) {
        lines.sort();
        return lines;
    };

    auto viewer = std::make_unique<Viewer>();
    QTRY_COMPARE(sorted(calls(fakes)), takeOver);
    viewer.reset();
    QTRY_COMPARE(QStringList(calls(fakes).mid(takeOver.size())), giveBack);
    for (const char *what : {"Desktop panel", "System shortcuts", "Mouse pointer", "Sound"})
        QVERIFY2(Watchdog::giveBack(what).isEmpty(), what);
}

QTEST_MAIN(TestDesktop)
#include "tst_desktop.moc"
