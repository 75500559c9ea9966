#include "childprocess.h"
#include "commandlineparser.h"
#include "filemanagertakeover.h"
#include "kioskprocess.h"
#include "panelmanager.h"
#include "pointerhider.h"
#include "settings.h"
#include "soundmute.h"
#include "systemshortcutmanager.h"
#include "testsupport.h"
#include "viewer.h"
#include "watchdog.h"

#include <QScreen>
#include <QtTest>

#include <csignal>
#include <fcntl.h>
#include <functional>

using namespace testsupport;

using Factory = std::function<std::unique_ptr<DesktopTakeover>()>;
Q_DECLARE_METATYPE(Factory)

namespace {
// One of the desktop's own files: as it was (absent when null), a text the show's change takes
// away and one it adds (none when empty).
struct DesktopFile
{
    QString path;
    QByteArray original;
    QByteArray gone;
    QByteArray added;
};
using DesktopFiles = QList<DesktopFile>;

// A program of the desktop that runs while the show starts, as the stand-in of that name.
class RunningPrograms
{
public:
    void start(const QString &name, const QStringList &arguments)
    {
        const QString path = m_dir.filePath(name);
        writeFile(path, "#!/bin/sh\ntrap 'kill $s; exit 0' TERM\nsleep 3600 &\ns=$!\nwait $s\n");
        QFile::setPermissions(path, QFileDevice::ReadOwner | QFileDevice::ExeOwner);
        auto process = std::make_unique<QProcess>();
        process->start(path, arguments);
        QVERIFY(process->waitForStarted());
        m_processes.push_back(std::move(process));
    }
    ~RunningPrograms()
    {
        for (auto &process : m_processes) {
            process->terminate();
            process->waitForFinished(5000);
        }
    }

private:
    QTemporaryDir m_dir;
    std::vector<std::unique_ptr<QProcess>> m_processes;
};
} // namespace
Q_DECLARE_METATYPE(DesktopFiles)

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
    void pointerHiddenByTheProgram();
    void desktopFilesComeBackAtTheEnd_data() { addDesktops(); }
    void desktopFilesComeBackAtTheEnd();
    void desktopFilesComeBackAfterAKill_data() { addDesktops(); }
    void desktopFilesComeBackAfterAKill();

private:
    // One row per desktop: its name, its own files, the programs running on it and the calls
    // of the desktop's programs while the show takes over and gives back.
    void addDesktops();
    void startDesktop(const TempHome &home, RunningPrograms &running, const QByteArray &desktop,
                      const QList<QStringList> &programs, const DesktopFiles &files);
    // What differs from the files as they should be; empty when nothing does.
    QString fileProblems(const TempHome &home, const DesktopFiles &files, bool taken);
    // Every take-over; only those that take something when takenOnly.
    void addRows(bool takenOnly);
    // Stand-ins for the desktop's programs that write every call to one log, in order.
    void addDesktop(FakePrograms &fakes, int pkillExit, const QByteArray &keymap);
    // The calls in order, without those of the programs the test is not about (the mixer, the
    // screen saver's end).
    QStringList calls(const FakePrograms &fakes, bool relevantOnly = false) const;
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
    // A panel outlives the program: it must not hold what the program has open (here, the test
    // program's own file, held open by this process).
    static const int held = ::open(qPrintable(QCoreApplication::applicationFilePath()), O_RDONLY);
    Q_UNUSED(held);
    const QByteArray holds = "for fd in /proc/$$/fd/*; do [ \"$(readlink $fd)\" = '"
                             + QCoreApplication::applicationFilePath().toUtf8()
                             + "' ] && echo \"$0 holds the program's files\" >> " + log
                             + "; done\n";
    for (const char *name : {"lxpanel", "xfce4-panel", "wf-panel-pi"})
        fakes.addScript(name, holds + record(name));
    for (const char *name : {"amixer", "openbox", "labwc", "pcmanfm"})
        fakes.addScript(name, record(name));
    writeFile(fakes.dir() + "/keymap", keymap);
    fakes.addScript("xmodmap", record("xmodmap") + "[ \"$1\" = -pke ] && cat '"
                                   + fakes.dir().toUtf8() + "/keymap'\nexit 0");
    // The settings daemon's channels, one file each under HOME: "property<TAB>type<TAB>value"
    // lines in byte order, as xfconfd keeps them in a file of its own.
    fakes.addScript("xfconf-query", R"(c=; p=; t=; v=; list=; remove=; create=; set=
while [ $# -gt 0 ]; do
    case "$1" in
        -c) c=$2; shift ;; -p) p=$2; shift ;; -t) t=$2; shift ;; -s) v=$2; set=1; shift ;;
        -l) list=1 ;; -r) remove=1 ;; -n) create=1 ;;
    esac
    shift
done
mkdir -p "$HOME/.xfconf-stand-in"; f="$HOME/.xfconf-stand-in/$c"; touch "$f"
if [ -n "$list" ]; then awk -F '\t' '{ printf "%-40s %s\n", $1, $3 }' "$f"; exit 0; fi
old=$(awk -F '\t' -v p="$p" '$1 == p' "$f")
if [ -n "$remove" ]; then
    awk -F '\t' -v p="$p" '$1 != p' "$f" > "$f.new"; mv "$f.new" "$f"; exit 0
fi
if [ -n "$set" ]; then
    [ -n "$old" ] || [ -n "$create" ] || exit 1
    [ -n "$t" ] || t=$(printf '%s' "$old" | cut -f2)
    { awk -F '\t' -v p="$p" '$1 != p' "$f"; printf '%s\t%s\t%s\n' "$p" "$t" "$v"; } \
        | LC_ALL=C sort > "$f.new"
    mv "$f.new" "$f"; exit 0
fi
[ -n "$old" ] || exit 1
printf '%s\n' "$old" | cut -f3)");
}

QStringList TestDesktop::calls(const FakePrograms &fakes, bool relevantOnly) const
{
    const QString text = QString::fromUtf8(readFile(fakes.dir() + "/calls"));
    QStringList lines = text.split('\n', Qt::SkipEmptyParts);
    if (relevantOnly)
        lines.erase(std::remove_if(lines.begin(), lines.end(),
                                   [](const QString &line) {
                                       return line.startsWith("amixer ")
                                              || line.startsWith("pkill -9 ");
                                   }),
                    lines.end());
    return lines;
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

    QTest::newRow("muted sound") << sound(true) << QByteArray() << 0 << keymap << "Sound"
                                 << QStringList{"amixer set PCM mute"}
                                 << QStringList{"amixer set PCM unmute"}
                                 << QStringList{"Disabling sound on channel: \"PCM\"",
                                                "Sound restored on channel: \"PCM\""};
    QTest::newRow("LXDE panel of a full-screen show")
        << panel(true, false) << QByteArray("LXDE") << 0 << keymap << "Desktop panel"
        << QStringList{"pkill -x lxpanel"} << QStringList{"lxpanel --profile LXDE"}
        << QStringList{"Desktop panel hidden.", "Desktop panel restored."};
    QTest::newRow("XFCE panel of a locked window")
        << panel(false, true) << QByteArray("XFCE") << 0 << keymap << "Desktop panel"
        << QStringList{"xfce4-panel --quit"} << QStringList{"xfce4-panel"}
        << QStringList{"Desktop panel hidden.", "Desktop panel restored."};
    QTest::newRow("Raspberry Pi OS panel under labwc")
        << panel(true, false) << QByteArray("LXDE-pi-labwc") << 0 << keymap << "Desktop panel"
        << QStringList{"pkill -x wf-panel-pi"} << QStringList{"wf-panel-pi"}
        << QStringList{"Desktop panel hidden.", "Desktop panel restored."};
    QTest::newRow("shortcuts of a locked full-screen kiosk on a bare X session")
        << shortcuts(true, true) << QByteArray("none") << 0 << keymap << "System shortcuts"
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
        << QStringList{"pkill -x lxpanel"} << QStringList() << QStringList();
    QTest::newRow("panel of sway")
        << panel(true, true) << QByteArray("sway") << 0 << keymap << "Desktop panel"
        << QStringList() << QStringList() << QStringList();
    QTest::newRow("panel beside an unlocked window")
        << panel(false, false) << QByteArray("LXDE") << 0 << keymap << "Desktop panel"
        << QStringList() << QStringList() << QStringList();
    QTest::newRow("panel of an unknown desktop")
        << panel(true, true) << QByteArray("GNOME") << 0 << keymap << "Desktop panel"
        << QStringList() << QStringList() << QStringList();
    QTest::newRow("shortcuts with an unreadable key map")
        << shortcuts(true, true) << QByteArray("none") << 0 << QByteArray() << "System shortcuts"
        << QStringList{"xmodmap -pke"} << QStringList()
        << QStringList{"Unable to read the key map; system shortcuts stay enabled."};
    QTest::newRow("file manager beside an unlocked window")
        << Factory([] { return FileManagerTakeover::create(false, false); }) << QByteArray("LXDE")
        << 0 << keymap << "File manager" << QStringList() << QStringList() << QStringList();
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
    // Run as the watchdog runs them.
    for (const QStringList &command : commands) {
        ChildProcess process;
        process.start(command.first(), command.mid(1));
        QVERIFY(process.waitForFinished());
        QCOMPARE(process.exitCode(), 0);
    }
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
    RunningPrograms running;
    running.start("pcmanfm", {"--desktop", "--profile", "LXDE-pi"});
    qputenv("XDG_CURRENT_DESKTOP", "LXDE-pi");
    qputenv("XDG_CONFIG_HOME", home.filePath(".config").toUtf8());
    auto parser = makeParser(home.filePath("conf"));
    writeFile(home.filePath("conf/preferences"),
              "[main]\nversion=QFGLs6IVf1\nfullscreen=true\nadmin_passwd=x\n"
              "[slideshow]\nhide_pointer=true\nmute=true\n");
    Settings::load(true, parser.get());
    const QStringList takeOver{"pkill -x lxpanel", "openbox --reconfigure",
                               "pcmanfm --profile LXDE-pi --reconfigure", "amixer set PCM mute"};
    const QStringList giveBack{"amixer set PCM unmute", "pcmanfm --profile LXDE-pi --reconfigure",
                               "openbox --reconfigure", "lxpanel --profile LXDE-pi"};

    auto viewer = std::make_unique<Viewer>();
    QTRY_COMPARE(calls(fakes), takeOver);
    // Taken, whatever stays of the window manager's own idea of full screen.
    QCOMPARE(viewer->geometry(), viewer->screen()->geometry());
    viewer.reset();
    QTRY_COMPARE(calls(fakes), takeOver + giveBack);
    for (const char *what :
         {"Desktop panel", "System shortcuts", "File manager", "Mouse pointer", "Sound"})
        QVERIFY2(Watchdog::giveBack(what).isEmpty(), what);
    QCOMPARE(QDir(home.filePath(".vorsane-kiosk/give-back")).entryList(QDir::Files), QStringList());
}

void TestDesktop::pointerHiddenByTheProgram()
{
    TempHome home;
    FakePrograms fakes;
    addDesktop(fakes, 0, QByteArray());
    {
        std::unique_ptr<PointerHider> hider = PointerHider::create();
        QVERIFY(QGuiApplication::overrideCursor());
        QCOMPARE(QGuiApplication::overrideCursor()->shape(), Qt::BlankCursor);
        // Nothing to give back from outside: the pointer comes back with the program's end.
        QCOMPARE(Watchdog::giveBack("Mouse pointer"), QList<QStringList>());
    }
    QVERIFY(!QGuiApplication::overrideCursor());
    QCOMPARE(calls(fakes), QStringList());
}

void TestDesktop::addDesktops()
{
    QTest::addColumn<QByteArray>("desktop");
    QTest::addColumn<DesktopFiles>("files");
    QTest::addColumn<QList<QStringList>>("programs");
    QTest::addColumn<QStringList>("takeOverCalls");
    QTest::addColumn<QStringList>("giveBackCalls");

    const QByteArray openbox
        = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
          "<openbox_config xmlns=\"http://openbox.org/3.4/rc\">\n"
          "  <theme><name>PiXflat</name></theme>\n"
          "  <keyboard>\n    <chainQuitKey>C-g</chainQuitKey>\n"
          "    <keybind key=\"A-Tab\"><action name=\"NextWindow\"/></keybind>\n"
          "    <keybind key=\"C-A-t\"><action name=\"Execute\">"
          "<command>lxterminal</command></action></keybind>\n"
          "  </keyboard>\n</openbox_config>\n";
    const QByteArray pcmanfm = "[config]\nbm_open_method=0\n\n[volume]\nmount_on_startup=1\n"
                               "mount_removable=1\nautorun=1\n";
    const DesktopFile piFileManager{".config/pcmanfm/LXDE-pi/pcmanfm.conf", pcmanfm, "autorun=1",
                                    "autorun = 0"};
    const QStringList piReconfigure{"pcmanfm --profile LXDE-pi --reconfigure"};

    QTest::newRow("LXDE-pi")
        << QByteArray("LXDE-pi")
        << DesktopFiles{{".config/openbox/lxde-pi-rc.xml", openbox, "<keybind", "<chainQuitKey"},
                        piFileManager}
        << QList<QStringList>{{"lxpanel", "--profile", "LXDE-pi"},
                              {"pcmanfm", "--desktop", "--profile", "LXDE-pi"}}
        << QStringList{"pkill -x lxpanel", "openbox --reconfigure"} + piReconfigure
        << piReconfigure + QStringList{"openbox --reconfigure", "lxpanel --profile LXDE-pi"};
    // Files the user never had are made for the show and removed after it.
    QTest::newRow("LXDE, with a panel profile of its own and no files")
        << QByteArray("LXDE")
        << DesktopFiles{{".config/openbox/lxde-rc.xml", QByteArray(), "<keybind", "<keyboard"},
                        {".config/pcmanfm/LXDE/pcmanfm.conf", QByteArray(), "", "autorun = 0"}}
        << QList<QStringList>{{"lxpanel", "--profile", "wall"}}
        << QStringList{"pkill -x lxpanel", "openbox --reconfigure"}
        << QStringList{"openbox --reconfigure", "lxpanel --profile wall"};
    QTest::newRow("labwc")
        << QByteArray("LXDE-pi-labwc")
        << DesktopFiles{{".config/labwc/rc.xml",
                         "<?xml version=\"1.0\"?>\n<labwc_config>\n  <keyboard>\n    <default />\n"
                         "    <keybind key=\"A-Tab\"><action name=\"NextWindow\" /></keybind>\n"
                         "  </keyboard>\n</labwc_config>\n",
                         "A-Tab", "key=\"F35\""},
                        piFileManager}
        << QList<QStringList>{{"pcmanfm", "--desktop", "--profile", "LXDE-pi"}}
        << QStringList{"pkill -x wf-panel-pi", "labwc --reconfigure"} + piReconfigure
        << piReconfigure + QStringList{"labwc --reconfigure", "wf-panel-pi"};
    QTest::newRow("wayfire")
        << QByteArray("LXDE-pi-wayfire")
        << DesktopFiles{{".config/wayfire.ini",
                         "[core]\nplugins = command switcher\n\n[command]\n"
                         "binding_terminal = <super> KEY_ENTER\ncommand_terminal = lxterminal\n",
                         "<super> KEY_ENTER", "next_view = none"},
                        piFileManager}
        << QList<QStringList>{} << QStringList{"pkill -x wf-panel-pi"}
        << QStringList{"wf-panel-pi"};
    QTest::newRow("XFCE")
        << QByteArray("XFCE")
        << DesktopFiles{{".xfconf-stand-in/xfce4-keyboard-shortcuts",
                         "/commands/custom/<Primary><Alt>t\tstring\texo-open --launch "
                         "TerminalEmulator\n/xfwm4/custom/<Alt>F4\tstring\tclose_window_key\n"
                         "/xfwm4/custom/<Alt>Tab\tstring\tcycle_windows_key\n"
                         "/xfwm4/custom/override\tbool\ttrue\n",
                         "<Alt>Tab", "/commands/custom/override\tbool\ttrue"},
                        {".xfconf-stand-in/thunar-volman",
                         "/autobrowse/enabled\tbool\ttrue\n/automount-drives/enabled\tbool\ttrue\n",
                         "/autobrowse/enabled\tbool\ttrue", "/autorun/enabled\tbool\tfalse"}}
        << QList<QStringList>{} << QStringList{"xfce4-panel --quit"} << QStringList{"xfce4-panel"};
}

void TestDesktop::startDesktop(const TempHome &home, RunningPrograms &running,
                               const QByteArray &desktop, const QList<QStringList> &programs,
                               const DesktopFiles &files)
{
    for (const DesktopFile &file : files) {
        if (!file.original.isNull())
            QVERIFY(writeFile(home.filePath(file.path), file.original));
    }
    for (const QStringList &program : programs)
        running.start(program.first(), program.mid(1));
    qputenv("XDG_CURRENT_DESKTOP", desktop);
    qputenv("XDG_CONFIG_HOME", home.filePath(".config").toUtf8());
}

QString TestDesktop::fileProblems(const TempHome &home, const DesktopFiles &files, bool taken)
{
    QStringList problems;
    for (const DesktopFile &file : files) {
        const QString path = home.filePath(file.path);
        const QByteArray text = readFile(path);
        if (taken) {
            if ((!file.gone.isEmpty() && text.contains(file.gone)) || !text.contains(file.added))
                problems << path + " not changed: " + text;
        } else if (file.original.isNull()) {
            if (QFileInfo::exists(path))
                problems << path + " left behind";
        } else if (text != file.original) {
            problems << path + " not as it was: " + text;
        }
    }
    return problems.join('\n');
}

void TestDesktop::desktopFilesComeBackAtTheEnd()
{
    QFETCH(QByteArray, desktop);
    QFETCH(DesktopFiles, files);
    QFETCH(QList<QStringList>, programs);
    QFETCH(QStringList, takeOverCalls);
    QFETCH(QStringList, giveBackCalls);
    TempHome home;
    FakePrograms fakes;
    fakes.addDesktopCommands();
    addDesktop(fakes, 0, QByteArray());
    RunningPrograms running;
    startDesktop(home, running, desktop, programs, files);
    auto parser = makeParser(home.filePath("conf"));
    writeFile(home.filePath("conf/preferences"),
              "[main]\nversion=QFGLs6IVf1\nfullscreen=true\nadmin_passwd=x\n");
    Settings::load(true, parser.get());

    auto viewer = std::make_unique<Viewer>();
    QTRY_COMPARE(calls(fakes, true), takeOverCalls);
    QTRY_COMPARE(fileProblems(home, files, true), QString());
    viewer.reset();
    QTRY_COMPARE(calls(fakes, true), takeOverCalls + giveBackCalls);
    QTRY_COMPARE(fileProblems(home, files, false), QString());
    QCOMPARE(QDir(home.filePath(".vorsane-kiosk/desktop-backup")).entryList(QDir::Files),
             QStringList());
}

void TestDesktop::desktopFilesComeBackAfterAKill()
{
    QFETCH(QByteArray, desktop);
    QFETCH(DesktopFiles, files);
    QFETCH(QList<QStringList>, programs);
    QFETCH(QStringList, takeOverCalls);
    QFETCH(QStringList, giveBackCalls);
    KioskProcess kiosk;
    addDesktop(kiosk.fakes(), 0, QByteArray());
    RunningPrograms running;
    startDesktop(kiosk.home(), running, desktop, programs, files);
    kiosk.setEnvironment("XDG_CURRENT_DESKTOP", desktop);
    kiosk.setEnvironment("QT_QPA_PLATFORM", "offscreen");
    const QByteArray playlist
        = "#Vorsane playlist\nfile://" + kiosk.picture("red.png", Qt::red).toUtf8() + " 600\n";

    QVERIFY(kiosk.start(playlist, "fullscreen=true\nadmin_passwd=x\n"));
    QVERIFY2(kiosk.waitForLog("File manager volume popups off."), kiosk.log().constData());
    QTRY_COMPARE(calls(kiosk.fakes(), true), takeOverCalls);
    QTRY_COMPARE(fileProblems(kiosk.home(), files, true), QString());
    ::kill(pid_t(kiosk.process().processId()), SIGKILL);
    QVERIFY(kiosk.process().waitForFinished(10000));
    QTRY_COMPARE(fileProblems(kiosk.home(), files, true), QString());

    // The session starts it again; this time it takes nothing, and gives back what was left.
    QVERIFY(kiosk.start(playlist, "fullscreen=false\n"));
    QVERIFY2(kiosk.waitForLog("was left taken by an earlier run"), kiosk.log().constData());
    QTRY_COMPARE(calls(kiosk.fakes(), true), takeOverCalls + giveBackCalls);
    QTRY_COMPARE(fileProblems(kiosk.home(), files, false), QString());
    QCOMPARE(kiosk.interrupt(), 2);
    QCOMPARE(QDir(kiosk.home().filePath(".vorsane-kiosk/give-back")).entryList(QDir::Files),
             QStringList());
}

QTEST_MAIN(TestDesktop)
#include "tst_desktop.moc"
