#include "testsupport.h"
#include "usbauto.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusVirtualObject>
#include <QtTest>

using namespace testsupport;

using InterfaceProperties = QMap<QString, QVariantMap>;
using ManagedObjects = QMap<QDBusObjectPath, InterfaceProperties>;
Q_DECLARE_METATYPE(InterfaceProperties)
Q_DECLARE_METATYPE(ManagedObjects)

namespace {
const QString service = QStringLiteral("org.freedesktop.UDisks2");
const QString root = QStringLiteral("/org/freedesktop/UDisks2");
const QString filesystem = QStringLiteral("org.freedesktop.UDisks2.Filesystem");
const QString stick = QStringLiteral("/org/freedesktop/UDisks2/block_devices/sda1");

QVariant mountPoints(const QString &mount)
{
    QList<QByteArray> points;
    if (!mount.isEmpty())
        points << QFile::encodeName(mount) + '\0';
    return QVariant::fromValue(points);
}

// UDisks2 as the program meets it: its object manager at the root and the filesystems' mount
// points, answered from what the test sets, and the real interfaces' signals.
class UDisksStandIn : public QDBusVirtualObject
{
public:
    explicit UDisksStandIn(const QString &address)
        : m_bus(QDBusConnection::connectToBus(address, QStringLiteral("udisks-stand-in")))
    {
        m_bus.registerVirtualObject(root, this, QDBusConnection::SubPath);
        m_bus.registerService(service);
    }
    ~UDisksStandIn() override { QDBusConnection::disconnectFromBus(m_bus.name()); }

    QHash<QString, QString> mounts;
    int stateAsked = 0;

    void added(const QString &object, const QString &mount)
    {
        mounts.insert(object, mount);
        QDBusMessage signal
            = QDBusMessage::createSignal(root, QStringLiteral("org.freedesktop.DBus.ObjectManager"),
                                         QStringLiteral("InterfacesAdded"));
        signal << QVariant::fromValue(QDBusObjectPath(object))
               << QVariant::fromValue(interfaces(object));
        m_bus.send(signal);
    }
    void mounted(const QString &object, const QString &mount)
    {
        mounts.insert(object, mount);
        QDBusMessage signal
            = QDBusMessage::createSignal(object, QStringLiteral("org.freedesktop.DBus.Properties"),
                                         QStringLiteral("PropertiesChanged"));
        signal << filesystem << QVariantMap{{QStringLiteral("MountPoints"), mountPoints(mount)}}
               << QStringList();
        m_bus.send(signal);
    }

    QString introspect(const QString &) const override { return QString(); }
    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override
    {
        if (message.member() == QLatin1String("GetManagedObjects")) {
            ManagedObjects objects;
            for (auto it = mounts.cbegin(); it != mounts.cend(); ++it)
                objects.insert(QDBusObjectPath(it.key()), interfaces(it.key()));
            return connection.send(message.createReply(QVariant::fromValue(objects)));
        }
        if (message.member() == QLatin1String("Get") && mounts.contains(message.path())) {
            ++stateAsked;
            return connection.send(message.createReply(
                QVariant::fromValue(QDBusVariant(mountPoints(mounts.value(message.path()))))));
        }
        return false;
    }

private:
    InterfaceProperties interfaces(const QString &object) const
    {
        return {{QStringLiteral("org.freedesktop.UDisks2.Block"),
                 {{QStringLiteral("IdUsage"), QStringLiteral("filesystem")}}},
                {filesystem, {{QStringLiteral("MountPoints"), mountPoints(mounts.value(object))}}}};
    }

    QDBusConnection m_bus;
};
} // namespace

// Keys noticed through UDisks2 signals on a private bus, copied from a real folder.
class TestUsbImport : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void importsANewlyMountedKey_data();
    void importsANewlyMountedKey();

private:
    QProcess m_bus;
    QString m_address;
};

void TestUsbImport::initTestCase()
{
    qDBusRegisterMetaType<QList<QByteArray>>();
    qDBusRegisterMetaType<InterfaceProperties>();
    qDBusRegisterMetaType<ManagedObjects>();
    m_bus.start(QStringLiteral("dbus-daemon"),
                {QStringLiteral("--session"), QStringLiteral("--nofork"),
                 QStringLiteral("--print-address=1")});
    if (!m_bus.waitForStarted(5000))
        QSKIP("dbus-daemon is not installed (package dbus-daemon)");
    QTRY_VERIFY(m_bus.canReadLine());
    m_address = QString::fromUtf8(m_bus.readLine()).trimmed();
    qputenv("VORSANE_UDISKS_BUS", m_address.toUtf8());
}

void TestUsbImport::cleanupTestCase()
{
    m_bus.terminate();
    m_bus.waitForFinished(5000);
}

void TestUsbImport::importsANewlyMountedKey_data()
{
    QTest::addColumn<QString>("how");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QByteArray>("keyFile");
    QTest::addColumn<QStringList>("files");
    QTest::addColumn<QString>("expectedLog");
    QTest::addColumn<bool>("imported");

    const QStringList pictures{"a.png", "sub/b.png"};
    QTest::newRow("mounted after it appeared")
        << "later" << QString() << QByteArray() << pictures << "USB import: 2 of 2 files" << true;
    QTest::newRow("mounted as it appeared")
        << "at once" << QString() << QByteArray() << pictures << "USB content imported" << true;
    QTest::newRow("mounted before its watch was in place")
        << "before the watch" << QString() << QByteArray() << pictures << "USB content imported"
        << true;
    QTest::newRow("mounted again after the start")
        << "mounted at start, again later" << QString() << QByteArray() << pictures
        << "USB content imported" << true;
    QTest::newRow("the right key")
        << "later"
        << "secret" << QByteArray("secret\n") << pictures << "USB content imported" << true;
    QTest::newRow("a wrong key") << "later"
                                 << "secret" << QByteArray("guess") << pictures
                                 << "USB key refused: missing or wrong vorsane.key." << false;
    QTest::newRow("no key file") << "later"
                                 << "secret" << QByteArray() << pictures
                                 << "USB key refused: missing or wrong vorsane.key." << false;
    QTest::newRow("a stick holding only the key")
        << "later"
        << "secret" << QByteArray("secret") << QStringList()
        << "USB key holds no files; the current content is kept." << false;
    // The copy fails half-way: the folder under the program's state folder is longer than the
    // stick's, so the last file's copy gets a name over the system's limit.
    QTest::newRow("a copy that fails half-way")
        << "later" << QString() << QByteArray() << QStringList{"a.png", "too long for the copy"}
        << "USB import aborted; the current content is kept." << false;
    QTest::newRow("mounted at start only")
        << "mounted at start" << QString() << QByteArray() << pictures << QString() << false;
}

void TestUsbImport::importsANewlyMountedKey()
{
    QFETCH(QString, how);
    QFETCH(QString, key);
    QFETCH(QByteArray, keyFile);
    QFETCH(QStringList, files);
    QFETCH(QString, expectedLog);
    QFETCH(bool, imported);
    TempHome home;
    const QString mount = home.filePath("media/KEY");
    const int limit = 4095;
    if (files.contains("too long for the copy")) {
        // Fits under the stick's folder, not under the state folder's longer one.
        const int length = limit - (UsbAuto::targetDir() + ".new/").size() + 1;
        QVERIFY(length + mount.size() + 1 <= limit);
        QString name;
        while (length - name.size() > 200)
            name += QString(qMin(250, length - name.size() - 100), 'd') + '/';
        name += QString(length - name.size() - 4, 'p') + ".png";
        files.replaceInStrings("too long for the copy", name);
    }
    for (const QString &file : files)
        QVERIFY(writeFile(mount + "/" + file, "picture " + file.toUtf8()));
    if (!keyFile.isEmpty())
        QVERIFY(writeFile(mount + "/vorsane.key", keyFile));
    // The show's folder as it was before the key came.
    QVERIFY(writeFile(UsbAuto::targetDir() + "/old.png", "old"));
    // Not even the media folder exists, as on a fresh system.
    QVERIFY(!QFileInfo::exists("/media/" + QFileInfo(home.path()).fileName()));

    UDisksStandIn udisks(m_address);
    if (how.startsWith("mounted at start"))
        udisks.mounts.insert(stick, mount);
    LogCapture log;
    UsbAuto usb(key);
    QSignalSpy finished(&usb, &UsbAuto::finished);
    QSignalSpy failed(&usb, &UsbAuto::importFailed);

    // Once the program has asked for the filesystem's state, its watch on the filesystem is in
    // place.
    if (how == "later") {
        udisks.added(stick, QString());
        QTRY_COMPARE(udisks.stateAsked, 1);
        udisks.mounted(stick, mount);
    } else if (how == "at once") {
        udisks.added(stick, mount);
    } else if (how == "before the watch") {
        udisks.added(stick, QString());
        // The stand-in answers only once the test waits: the mount comes after the signal.
        udisks.mounts.insert(stick, mount);
    } else {
        // A filesystem known from the start is watched too: only its next mount counts.
        QTRY_COMPARE(udisks.stateAsked, 1);
        if (how == "mounted at start, again later") {
            udisks.mounted(stick, QString());
            udisks.mounted(stick, mount);
        }
    }

    if (imported) {
        QVERIFY(finished.wait(10000));
        QStringList copied;
        QDirIterator it(UsbAuto::targetDir(), QDir::Files, QDirIterator::Subdirectories);
        while (it.hasNext())
            copied << QDir(UsbAuto::targetDir()).relativeFilePath(it.next());
        copied.sort();
        QCOMPARE(copied, files);
        QCOMPARE(readFile(UsbAuto::targetDir() + "/sub/b.png"), QByteArray("picture sub/b.png"));
    } else {
        if (!expectedLog.isEmpty())
            QTRY_VERIFY2(log.contains(expectedLog), qPrintable(log.lines().join('\n')));
        // Give a wrong import the time it would take.
        QTest::qWait(300);
        QCOMPARE(finished.count(), 0);
        QCOMPARE(readFile(UsbAuto::targetDir() + "/old.png"), QByteArray("old"));
        QCOMPARE(
            QDir(UsbAuto::targetDir()).entryList(QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot),
            QStringList{"old.png"});
    }
    if (!expectedLog.isEmpty())
        QVERIFY2(log.contains(expectedLog), qPrintable(log.lines().join('\n')));
    QVERIFY(!QFileInfo::exists(UsbAuto::targetDir() + ".new"));
    QVERIFY(!QFileInfo::exists(UsbAuto::targetDir() + ".old"));
}

QTEST_MAIN(TestUsbImport)
#include "tst_usbimport.moc"
