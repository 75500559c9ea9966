#include "panelmanager.h"
#include "systemshortcutmanager.h"
#include "testsupport.h"
#include "usbauto.h"

#include <QSignalSpy>
#include <QtTest>

using namespace testsupport;

class TestDesktopIntegration : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void panelHiddenAndGivenBack_data();
    void panelHiddenAndGivenBack();
    void shortcutsTakenAndGivenBack_data();
    void shortcutsTakenAndGivenBack();
    void usbImport_data();
    void usbImport();
    void usbInsertionTriggersRestart();
};

void TestDesktopIntegration::panelHiddenAndGivenBack_data()
{
    QTest::addColumn<QByteArray>("desktop");
    QTest::addColumn<bool>("fullscreen");
    QTest::addColumn<int>("hideExitCode");
    QTest::addColumn<QString>("hideProgram");
    QTest::addColumn<QString>("hideCall");
    QTest::addColumn<QString>("restoreProgram");
    QTest::addColumn<QString>("restoreCall");

    QTest::newRow("lxde full screen") << QByteArray("LXDE-pi") << true << 0 << "pkill"
                                      << "lxpanel"
                                      << "lxpanel"
                                      << "--profile LXDE-pi";
    QTest::newRow("xfce full screen") << QByteArray("XFCE") << true << 0 << "xfce4-panel"
                                      << "--quit"
                                      << "xfce4-panel"
                                      << "";
    QTest::newRow("lxde without a running panel") << QByteArray("LXDE") << true << 1 << "pkill"
                                                  << "lxpanel"
                                                  << "lxpanel" << QString();
    QTest::newRow("windowed, no password")
        << QByteArray("LXDE") << false << 0 << "pkill" << QString() << "lxpanel" << QString();
    QTest::newRow("other desktop")
        << QByteArray("GNOME") << true << 0 << "pkill" << QString() << "lxpanel" << QString();
}

void TestDesktopIntegration::panelHiddenAndGivenBack()
{
    QFETCH(QByteArray, desktop);
    QFETCH(bool, fullscreen);
    QFETCH(int, hideExitCode);
    QFETCH(QString, hideProgram);
    QFETCH(QString, hideCall);
    QFETCH(QString, restoreProgram);
    QFETCH(QString, restoreCall);

    FakePrograms fakes;
    fakes.add(hideProgram, {}, hideExitCode);
    fakes.add(restoreProgram);
    const QByteArray saved = qgetenv("XDG_CURRENT_DESKTOP");
    qputenv("XDG_CURRENT_DESKTOP", desktop);
    std::unique_ptr<panel::Manager> manager(panel::Manager::create(fullscreen, false));
    qputenv("XDG_CURRENT_DESKTOP", saved);

    QCOMPARE(fakes.callLines(hideProgram),
             hideCall.isNull() ? QStringList() : QStringList{hideCall});
    QCOMPARE(manager->hidden(), !hideCall.isNull() && hideExitCode == 0);
    manager.reset();
    if (restoreCall.isNull()) {
        QVERIFY(fakes.calls(restoreProgram).size() <= (restoreProgram == hideProgram ? 1 : 0));
        return;
    }
    // The panel is started detached; wait for it to record its start.
    QTRY_VERIFY(fakes.callLines(restoreProgram).contains(restoreCall));
}

void TestDesktopIntegration::shortcutsTakenAndGivenBack_data()
{
    QTest::addColumn<bool>("fullscreen");
    QTest::addColumn<bool>("passwordSet");
    QTest::addColumn<bool>("disabled");

    QTest::newRow("locked-down kiosk") << true << true << true;
    QTest::newRow("no password") << true << false << false;
    QTest::newRow("windowed") << false << true << false;
}

void TestDesktopIntegration::shortcutsTakenAndGivenBack()
{
    QFETCH(bool, fullscreen);
    QFETCH(bool, passwordSet);
    QFETCH(bool, disabled);

    TempHome home;
    home.stateDir();
    FakePrograms fakes;
    fakes.addScript("xmodmap",
                    "[ \"$1\" = -pke ] && echo 'keycode 133 = Super_L NoSymbol'\n"
                    "[ \"$1\" != -pke ] && [ \"$1\" != -e ] && cp \"$1\" \"$0.restored\"\n"
                    "exit 0");
    {
        SystemShortcutManager manager(fullscreen, passwordSet);
        QCOMPARE(manager.disabled(), disabled);
        if (!disabled) {
            QVERIFY(fakes.calls("xmodmap").isEmpty());
            return;
        }
        QCOMPARE(
            fakes.callLines("xmodmap"),
            QStringList({"-pke", "-e clear mod4", "-e keysym Super_L =", "-e keysym Super_R ="}));
    }
    const QStringList calls = fakes.callLines("xmodmap");
    QCOMPARE(calls.size(), 6);
    QCOMPARE(calls.last(), QStringLiteral("-e add mod4 = Super_L Super_R"));
    // The saved key map is what gets loaded back, and the backup is cleaned up.
    QCOMPARE(readFile(fakes.dir() + "/xmodmap.restored"),
             QByteArray("keycode 133 = Super_L NoSymbol\n"));
    QVERIFY(!QFile::exists(home.filePath(".vorsane-kiosk/xmodmap-backup")));
}

void TestDesktopIntegration::usbImport_data()
{
    QTest::addColumn<QString>("configuredKey");
    QTest::addColumn<QByteArray>("keyOnStick"); // null: no key file
    QTest::addColumn<bool>("imported");

    QTest::newRow("no key configured") << QString() << QByteArray() << true;
    QTest::newRow("right key") << "s3cret" << QByteArray("s3cret\n") << true;
    QTest::newRow("wrong key") << "s3cret" << QByteArray("guess") << false;
    QTest::newRow("key file missing") << "s3cret" << QByteArray() << false;
}

void TestDesktopIntegration::usbImport()
{
    QFETCH(QString, configuredKey);
    QFETCH(QByteArray, keyOnStick);
    QFETCH(bool, imported);

    TempHome home;
    QVERIFY(writeFile(UsbAuto::targetDir() + "/old.jpg", "old"));
    QTemporaryDir stick;
    QVERIFY(writeFile(stick.filePath("a.jpg"), "A"));
    QVERIFY(writeFile(stick.filePath("sub/b.png"), "B"));
    if (!keyOnStick.isNull())
        QVERIFY(writeFile(stick.filePath("vorsane.key"), keyOnStick));

    UsbAuto usb(configuredKey, QStringList());
    QCOMPARE(usb.importFrom(stick.path()), imported);
    const QString target = UsbAuto::targetDir();
    if (imported) {
        QCOMPARE(readFile(target + "/a.jpg"), QByteArray("A"));
        QCOMPARE(readFile(target + "/sub/b.png"), QByteArray("B"));
        QVERIFY(!QFile::exists(target + "/old.jpg"));
        QVERIFY(!QFile::exists(target + "/vorsane.key"));
    } else {
        QCOMPARE(readFile(target + "/old.jpg"), QByteArray("old"));
        QVERIFY(!QFile::exists(target + "/a.jpg"));
    }
}

void TestDesktopIntegration::usbInsertionTriggersRestart()
{
    TempHome home;
    QTemporaryDir media;
    QVERIFY(QDir().mkpath(media.filePath("ALREADY")));
    UsbAuto usb(QString(), {media.path()});
    QSignalSpy finished(&usb, &UsbAuto::finished);

    // Fill the stick beside the root, then "mount" it with one rename.
    QTemporaryDir staging;
    QVERIFY(writeFile(staging.filePath("stick/show.jpg"), "S"));
    QVERIFY(QDir().rename(staging.filePath("stick"), media.filePath("STICK")));
    QVERIFY(finished.wait(5000));
    QCOMPARE(readFile(UsbAuto::targetDir() + "/show.jpg"), QByteArray("S"));
}

QTEST_GUILESS_MAIN(TestDesktopIntegration)
#include "tst_desktopintegration.moc"
