#include "commandlineparser.h"
#include "displaypower.h"
#include "kioskprocess.h"
#include "settings.h"
#include "testsupport.h"

#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>
#include <QtTest>

#include <csignal>
#include <unistd.h>

using namespace testsupport;

namespace {
bool installed(const QStringList &programs, QString *missing)
{
    for (const QString &program : programs) {
        if (QStandardPaths::findExecutable(program).isEmpty()) {
            *missing = program;
            return false;
        }
    }
    return true;
}

// A child program that is ended with the test, whatever way the test ends.
class Child : public QProcess
{
public:
    Child() { setProcessChannelMode(QProcess::MergedChannels); }
    ~Child() override
    {
        if (state() == QProcess::NotRunning)
            return;
        terminate();
        if (!waitForFinished(5000))
            kill();
        waitForFinished(1000);
    }
};

QImage grab(const QString &program, const QStringList &arguments, const QString &file)
{
    QFile::remove(file);
    QProcess grabber;
    grabber.start(program, arguments + QStringList{file});
    if (!grabber.waitForFinished(20000))
        return QImage();
    return QImage(file);
}

// The colour at each corner of the screen, and where each corner lies.
QString corners(const QImage &screen, const QRect &area)
{
    if (screen.isNull())
        return QStringLiteral("no screenshot");
    QStringList colours;
    const QRect inside = area.adjusted(1, 1, -2, -2);
    for (const QPoint &point :
         {inside.topLeft(), inside.topRight(), inside.bottomLeft(), inside.bottomRight()})
        colours << QStringLiteral("(%1,%2) %3")
                       .arg(point.x())
                       .arg(point.y())
                       .arg(screen.pixelColor(point).name());
    return colours.join(QLatin1Char(' '));
}

// Whether the four corners inside the area show that colour (as a decoded video gives it).
bool cornersAre(const QImage &screen, const QRect &area, const QColor &colour)
{
    const QRect inside = area.adjusted(1, 1, -2, -2);
    for (const QPoint &point :
         {inside.topLeft(), inside.topRight(), inside.bottomLeft(), inside.bottomRight()}) {
        const QColor seen = screen.valid(point) ? screen.pixelColor(point) : QColor();
        if (!seen.isValid() || qAbs(seen.red() - colour.red()) > 24
            || qAbs(seen.green() - colour.green()) > 24 || qAbs(seen.blue() - colour.blue()) > 24)
            return false;
    }
    return true;
}
} // namespace

// The show on real display servers, seen in the servers' own screenshots: the whole screen,
// with and without a window manager, on X11 and on a Wayland compositor through Xwayland.
class TestFullscreen : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void x11_data();
    void x11();
    void wayland();
};

void TestFullscreen::x11_data()
{
    QTest::addColumn<bool>("windowManager");
    QTest::addColumn<QByteArray>("preferences");
    QTest::addColumn<QRect>("area");

    const QRect screen(0, 0, 640, 480);
    const QByteArray fixed
        = "fullscreen=false\nfixedscreen=true\nlargeur_edit=300\nhauteur_edit=200\n";
    QTest::newRow("full screen, no window manager")
        << false << QByteArray("fullscreen=true\n") << screen;
    QTest::newRow("full screen, openbox") << true << QByteArray("fullscreen=true\n") << screen;
    QTest::newRow("fixed size, no window manager") << false << fixed << QRect(0, 0, 300, 200);
    QTest::newRow("fixed size, openbox") << true << fixed << QRect(0, 0, 300, 200);
}

void TestFullscreen::x11()
{
    QFETCH(bool, windowManager);
    QFETCH(QByteArray, preferences);
    QFETCH(QRect, area);
    QString missing;
    if (!installed({"Xvfb", "ffmpeg", "xprop"}, &missing)
        || (windowManager && !installed({"openbox"}, &missing)))
        QSKIP(qPrintable(missing + " is not installed (scripts/install-deps.sh installs it)"));

    Child server;
    server.setProcessChannelMode(QProcess::SeparateChannels);
    server.start("Xvfb",
                 {"-displayfd", "1", "-noreset", "-nolisten", "tcp", "-screen", "0", "640x480x24"});
    QVERIFY(server.waitForStarted());
    QTRY_VERIFY_WITH_TIMEOUT(server.canReadLine(), 10000);
    const QString display = ":" + QString::fromLatin1(server.readLine()).trimmed();
    // Answering once it shows its root window's properties; it must not reset when the asking
    // client leaves, or the next one meets a server that is starting over.
    const auto answers = [&display](const QString &property) {
        QProcess xprop;
        xprop.start("xprop", {"-display", display, "-root", property});
        xprop.waitForFinished();
        return xprop.exitCode() == 0 ? xprop.readAll() : QByteArray();
    };
    QVERIFY2(QTest::qWaitFor([&] { return !answers("_NET_SUPPORTING_WM_CHECK").isEmpty(); }, 10000),
             qPrintable("no X server on " + display));
    Child windows;
    if (windowManager) {
        windows.setProcessEnvironment([&] {
            QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
            env.insert("DISPLAY", display);
            return env;
        }());
        windows.start("openbox", {"--sm-disable"});
        QVERIFY(windows.waitForStarted());
        // Managing once it names itself on the root window.
        const bool managing = QTest::qWaitFor(
            [&] { return answers("_NET_SUPPORTING_WM_CHECK").contains("window id"); }, 10000);
        QVERIFY2(managing, windows.readAll().constData());
        QVERIFY2(windows.state() == QProcess::Running, windows.readAll().constData());
    }

    KioskProcess kiosk;
    kiosk.setEnvironment("DISPLAY", display);
    QVERIFY(kiosk.start("#Vorsane playlist\nfile://" + kiosk.picture("red.png", Qt::red).toUtf8()
                            + " 600\n",
                        preferences + "[slideshow]\nresize=false\nstretch=true\n"));
    const QString shot = kiosk.home().filePath("screen.png");
    const QStringList x11grab{"-loglevel", "error", "-y",    "-f",        "x11grab", "-video_size",
                              "640x480",   "-i",    display, "-frames:v", "1"};
    QImage screen;
    const bool shown = QTest::qWaitFor(
        [&] {
            screen = grab("ffmpeg", x11grab, shot);
            return cornersAre(screen, area, Qt::red);
        },
        20000);
    QVERIFY2(shown, qPrintable(corners(screen, area) + "\n" + kiosk.log().right(2000)));
    if (area.width() < screen.width()) {
        // Exactly that size: the screen just beyond it is not the show's.
        QVERIFY(screen.pixelColor(area.right() + 2, area.bottom() + 2) != QColor(Qt::red));
        QVERIFY(screen.pixelColor(area.right() + 2, 5) != QColor(Qt::red));
    }
    QCOMPARE(kiosk.interrupt(), 2);
}

void TestFullscreen::wayland()
{
    QString missing;
    if (!installed({"sway", "swaymsg", "grim", "Xwayland", "setpriv"}, &missing))
        QSKIP(qPrintable(missing + " is not installed (scripts/install-deps.sh installs it)"));
    // sway refuses to run as root: the compositor and the show run as an unprivileged user,
    // in folders of their own.
    const bool root = ::getuid() == 0;
    QTemporaryDir work;
    const QString runtime = work.filePath("runtime");
    const QString home = work.filePath("home");
    const QString program = work.filePath("vorsane-kiosk");
    QVERIFY(QDir().mkpath(runtime) && QDir().mkpath(home + "/conf"));
    QVERIFY(QFile::copy(programPath(), program));
    QFile::setPermissions(runtime,
                          QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    QVERIFY(makeImage(home + "/red.png", QSize(320, 240), Qt::red, "PNG"));
    // Then a video, played by libVLC inside the program through Xwayland.
    QCOMPARE(
        QProcess::execute("ffmpeg", {"-y", "-loglevel", "error", "-f", "lavfi", "-i",
                                     "color=c=0x0000ff:size=320x240:rate=25:duration=60", "-c:v",
                                     "libx264", "-pix_fmt", "yuv420p", home + "/blue.mp4"}),
        0);
    QVERIFY(writeFile(home + "/conf/playlist", "#Vorsane playlist\nfile://" + home.toUtf8()
                                                   + "/red.png 8\nfile://" + home.toUtf8()
                                                   + "/blue.mp4 0\n"));
    QVERIFY(writeFile(home + "/conf/preferences",
                      "[main]\nversion=QFGLs6IVf1\nfullscreen=true\n[slideshow]\nresize=false\n"
                      "stretch=true\nexternal_player=false\n"));
    QVERIFY(writeFile(runtime + "/sway.conf", "xwayland force\n"));
    if (root)
        QCOMPARE(QProcess::execute("chown", {"-R", "nobody:nogroup", work.path()}), 0);
    QFile::setPermissions(work.path(), QFileDevice::ReadOwner | QFileDevice::WriteOwner
                                           | QFileDevice::ExeOwner | QFileDevice::ReadOther
                                           | QFileDevice::ExeOther);
    const QStringList environment{"env", "-i", "PATH=/usr/bin:/bin", "HOME=" + home,
                                  "XDG_RUNTIME_DIR=" + runtime};
    const auto asUser = [&](const QStringList &command) {
        QStringList line = environment + command;
        if (root)
            line = QStringList{"setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups"}
                   + line;
        return line;
    };
    const auto start = [](QProcess &process, const QStringList &line) {
        process.start(line.first(), line.mid(1));
        return process.waitForStarted();
    };

    Child sway;
    QVERIFY(start(sway, asUser({"WLR_BACKENDS=headless", "WLR_LIBINPUT_NO_DEVICES=1",
                                "WLR_RENDERER=pixman", "sway", "-c", runtime + "/sway.conf"})));
    QTRY_VERIFY_WITH_TIMEOUT(
        QFileInfo::exists(runtime + "/wayland-1")
            && !QDir(runtime).entryList({"sway-ipc.*"}, QDir::System).isEmpty(),
        10000);
    const QString ipc
        = runtime + "/" + QDir(runtime).entryList({"sway-ipc.*"}, QDir::System).first();
    const QStringList wayland{"WAYLAND_DISPLAY=wayland-1", "SWAYSOCK=" + ipc};
    // Xwayland's display is the one sway gives its own children.
    QProcess ask;
    QVERIFY(start(
        ask, asUser(wayland
                    + QStringList{"swaymsg", "exec", "echo $DISPLAY > " + runtime + "/display"})));
    QVERIFY(ask.waitForFinished());
    QTRY_VERIFY_WITH_TIMEOUT(!readFile(runtime + "/display").trimmed().isEmpty(), 10000);
    const QString display = QString::fromUtf8(readFile(runtime + "/display")).trimmed();

    Child kiosk;
    QVERIFY(start(kiosk, asUser(wayland
                                + QStringList{"DISPLAY=" + display, "XDG_CURRENT_DESKTOP=sway",
                                              "QT_QPA_PLATFORM=xcb", program, "--basepath",
                                              home + "/conf"})));
    const QString shot = work.filePath("home/screen.png");
    QImage screen;
    const QRect output(0, 0, 1280, 720);
    const auto screenIs = [&](const QColor &colour) {
        return QTest::qWaitFor(
            [&] {
                QProcess grim;
                if (!start(grim, asUser(wayland + QStringList{"grim", shot})))
                    return false;
                grim.waitForFinished();
                screen = QImage(shot);
                return cornersAre(screen, QRect(QPoint(), screen.size()), colour);
            },
            30000);
    };
    QVERIFY2(screenIs(Qt::red),
             qPrintable(corners(screen, output) + "\n" + kiosk.readAll().right(3000)));
    QVERIFY2(screenIs(Qt::blue),
             qPrintable(corners(screen, output) + "\n" + kiosk.readAll().right(3000)));

    // Screen power through the compositor, read back from the compositor itself. wlroots'
    // headless outputs (Debian 12) cannot be switched off: the program must say so then.
    for (const QString &variable : wayland + QStringList{"XDG_RUNTIME_DIR=" + runtime})
        qputenv(variable.section('=', 0, 0).toUtf8(), variable.section('=', 1).toUtf8());
    qputenv("WAYLAND_DISPLAY", (runtime + "/wayland-1").toUtf8());
    TempHome settingsHome;
    auto parser = makeParser(settingsHome.filePath("conf"));
    writeFile(settingsHome.filePath("conf/preferences"),
              "[main]\nversion=QFGLs6IVf1\n[slideshow]\ntv_control=wayland\n");
    Settings::load(true, parser.get());
    DisplayPower::chooseAgain();
    const auto compositorSaysOn = [] {
        QProcess swaymsg;
        swaymsg.start("swaymsg", {"-r", "-t", "get_outputs"});
        swaymsg.waitForFinished();
        const QJsonObject output
            = QJsonDocument::fromJson(swaymsg.readAll()).array().first().toObject();
        return output.value(output.contains("power") ? "power" : "dpms").toBool();
    };
    QVERIFY(compositorSaysOn());
    LogCapture log;
    DisplayPower::off();
    QVERIFY2(!DisplayPower::method().isEmpty(), qPrintable(log.lines().join('\n')));
    const bool on = compositorSaysOn();
    QCOMPARE(DisplayPower::isOff(), !on);
    if (on)
        QVERIFY2(log.contains("Screen power: the display did not switch off"),
                 qPrintable(log.lines().join('\n')));
    DisplayPower::on();
    QVERIFY(compositorSaysOn());
    QVERIFY(!DisplayPower::isOff());
    for (const char *name : {"WAYLAND_DISPLAY", "SWAYSOCK", "XDG_RUNTIME_DIR"})
        qunsetenv(name);

    ::kill(pid_t(kiosk.processId()), SIGINT);
    QVERIFY(kiosk.waitForFinished(15000));
    QCOMPARE(kiosk.exitCode(), 2);
}

QTEST_MAIN(TestFullscreen)
#include "tst_fullscreen.moc"
