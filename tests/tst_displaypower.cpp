#include "commandlineparser.h"
#include "displaypower.h"
#include "settings.h"
#include "testsupport.h"

#include <QtTest>

using namespace testsupport;

namespace {
// Stand-ins for the display tools that keep the display's state ("on" or "off") in a file, as
// the real display would; "absent" ones fail as a tool without a display does.
QByteArray standIn(const QString &tool, const QString &state)
{
    const QByteArray read = "s=$(cat '" + state.toUtf8() + "' 2>/dev/null || echo on)\n";
    const QByteArray write = "echo $1 > '" + state.toUtf8() + "'\n";
    if (tool == "xset")
        return read + "case \"$*\" in\n  'dpms force off') set off; " + write
               + ";;\n  'dpms force on') set on; " + write
               + ";;\n  q) echo '  DPMS is Enabled'; [ $s = on ] && echo '  Monitor is On' "
                 "|| echo '  Monitor is Off' ;;\nesac";
    if (tool == "xset without DPMS")
        return "echo 'DPMS (Energy Star):'; echo '  Server does not have the DPMS Extension'";
    if (tool == "xset, display stays on")
        return "echo '  DPMS is Enabled'; echo '  Monitor is On'";
    if (tool == "wlopm")
        return read + "case \"$1\" in\n  --off) set off; " + write + ";;\n  --on) set on; " + write
               + ";;\n  *) echo \"HDMI-A-1 $s\" ;;\nesac";
    if (tool == "swaymsg")
        return read + "case \"$*\" in\n  'output * dpms off') set false; " + write
               + ";;\n  'output * dpms on') set true; " + write
               + ";;\n  *) [ $s = off ] && s=false; [ $s = on ] && s=true;"
                 " echo \"[{\\\"name\\\":\\\"HDMI-A-1\\\",\\\"active\\\":true,\\\"dpms\\\":$s}]\" "
                 ";;\nesac";
    if (tool == "wlr-randr")
        return read + "case \"$3\" in\n  --off) set off; " + write + ";;\n  --on) set on; " + write
               + ";;\n  *) echo 'HDMI-A-1 \"Monitor\"'; [ $s = on ] && echo '  Enabled: yes' "
                 "|| echo '  Enabled: no' ;;\nesac";
    // The TV misses the first standby; the power status tells.
    if (tool == "cec-ctl")
        return read
               + "case \"$*\" in\n  --list-devices) echo '        /dev/cec0' ;;\n"
                 "  *--standby) if [ -e '"
               + state.toUtf8() + ".missed' ]; then set off; " + write + "else touch '"
               + state.toUtf8()
               + ".missed'; fi ;;\n"
                 "  *--image-view-on) set on; "
               + write
               + ";;\n  *--give-device-power-status) [ $s = on ] && echo '    pwr-state: on "
                 "(0x00)' "
                 "|| echo '    pwr-state: standby (0x01)' ;;\nesac";
    return "exit 1";
}
} // namespace

// The screen switched off and on the way slideshow/tv_control and the session allow, with the
// display's state read back.
class TestDisplayPower : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void switches_data();
    void switches();
};

void TestDisplayPower::switches_data()
{
    QTest::addColumn<QString>("control");
    QTest::addColumn<QStringList>("session");
    QTest::addColumn<QStringList>("tools");
    QTest::addColumn<QString>("method");
    QTest::addColumn<QStringList>("offCalls");
    QTest::addColumn<QStringList>("onCalls");
    QTest::addColumn<bool>("switchesOff");
    QTest::addColumn<QString>("logLine");

    const QStringList x11{"DISPLAY=:5"};
    const QStringList sway{"DISPLAY=:5", "WAYLAND_DISPLAY=wayland-1", "SWAYSOCK=/run/sway.sock"};
    QTest::newRow("automatic, X11 display power management")
        << "auto" << x11 << QStringList{"xset"} << "dpms" << QStringList{"xset dpms force off"}
        << QStringList{"xset dpms force on"} << true << "Screen power: switched through dpms.";
    QTest::newRow("automatic, Wayland output power before Xwayland's display power")
        << "auto" << sway << QStringList{"wlopm", "xset", "swaymsg"} << "wlopm"
        << QStringList{"wlopm --off *"} << QStringList{"wlopm --on *"} << true << QString();
    QTest::newRow("automatic, sway without wlopm")
        << "auto" << sway << QStringList{"swaymsg", "xset"} << "sway"
        << QStringList{"swaymsg output * dpms off"} << QStringList{"swaymsg output * dpms on"}
        << true << QString();
    QTest::newRow("Wayland with wlr-randr only")
        << "wayland" << QStringList{"WAYLAND_DISPLAY=wayland-1"} << QStringList{"wlr-randr"}
        << "wlr-randr" << QStringList{"wlr-randr --output HDMI-A-1 --off"}
        << QStringList{"wlr-randr --output HDMI-A-1 --on"} << true << QString();
    QTest::newRow("HDMI-CEC, the TV missing the first standby")
        << "cec" << x11 << QStringList{"cec-ctl", "xset"} << "cec"
        << QStringList{"cec-ctl -d /dev/cec0 --to 0 --standby",
                       "cec-ctl -d /dev/cec0 --to 0 --standby"}
        << QStringList{"cec-ctl -d /dev/cec0 --to 0 --image-view-on"} << true
        << "Screen power: the TV did not answer off yet; trying again.";
    QTest::newRow("display power management on a server without it")
        << "dpms" << x11 << QStringList{"xset without DPMS"} << QString() << QStringList()
        << QStringList() << false
        << "Screen power: nothing here can switch the display (slideshow/tv_control=dpms, "
           "tried: dpms)";
    QTest::newRow("automatic, nothing that can switch")
        << "auto" << QStringList() << QStringList() << QString() << QStringList() << QStringList()
        << false
        << "nothing here can switch the display (slideshow/tv_control=auto, tried: tvservice, "
           "vcgencmd, wlopm, sway, wlr-randr, dpms, cec)";
    // Xwayland's display power management switches nothing: it is not taken for a way.
    QTest::newRow("automatic, Wayland without output power tools")
        << "auto" << sway << QStringList{"xset"} << QString() << QStringList() << QStringList()
        << false << "tried: tvservice, vcgencmd, wlopm, sway, wlr-randr, cec)";
    QTest::newRow("switching left off")
        << "none" << x11 << QStringList{"xset"} << QString() << QStringList() << QStringList()
        << false << "slideshow/tv_control is none";
    QTest::newRow("a display that stays on")
        << "dpms" << x11 << QStringList{"xset, display stays on"} << "dpms"
        << QStringList{"xset dpms force off"} << QStringList{"xset dpms force on"} << false
        << "Screen power: the display did not switch off (dpms reads it on).";
}

void TestDisplayPower::switches()
{
    QFETCH(QString, control);
    QFETCH(QStringList, session);
    QFETCH(QStringList, tools);
    QFETCH(QString, method);
    QFETCH(QStringList, offCalls);
    QFETCH(QStringList, onCalls);
    QFETCH(bool, switchesOff);
    QFETCH(QString, logLine);
    TempHome home;
    FakePrograms fakes;
    const QString state = fakes.dir() + "/display";
    for (const char *tool : {"xset", "wlopm", "swaymsg", "wlr-randr", "cec-ctl", "vcgencmd"}) {
        const QString given
            = tools.filter(QRegularExpression("^" + QString(tool) + "\\b")).value(0);
        fakes.addScript(tool, standIn(given, state));
    }
    for (const char *name : {"DISPLAY", "WAYLAND_DISPLAY", "SWAYSOCK"})
        qunsetenv(name);
    for (const QString &variable : session)
        qputenv(variable.section('=', 0, 0).toUtf8(), variable.section('=', 1).toUtf8());
    auto parser = makeParser(home.filePath("conf"));
    writeFile(home.filePath("conf/preferences"),
              "[main]\nversion=QFGLs6IVf1\n[slideshow]\ntv_control=" + control.toUtf8() + "\n");
    Settings::load(true, parser.get());
    DisplayPower::chooseAgain();
    LogCapture log;
    // The switching calls only, in order, by every stand-in.
    const auto switching = [&] {
        QStringList calls;
        for (const char *tool : {"xset", "wlopm", "swaymsg", "wlr-randr", "cec-ctl"})
            for (const QString &line : fakes.callLines(tool))
                if (line.contains(QRegularExpression("--off|--on|force|dpms o|--standby|--image")))
                    calls << QString(tool) + " " + line;
        return calls;
    };

    DisplayPower::off();
    QCOMPARE(DisplayPower::method(), method);
    QCOMPARE(switching(), offCalls);
    QCOMPARE(DisplayPower::isOff(), switchesOff || method.isEmpty());
    DisplayPower::on();
    QCOMPARE(switching(), offCalls + onCalls);
    QVERIFY(!DisplayPower::isOff());
    if (!logLine.isEmpty())
        QVERIFY2(log.contains(logLine), qPrintable(log.lines().join('\n')));
    for (const char *name : {"DISPLAY", "WAYLAND_DISPLAY", "SWAYSOCK"})
        qunsetenv(name);
}

QTEST_MAIN(TestDisplayPower)
#include "tst_displaypower.moc"
