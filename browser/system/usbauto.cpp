#include "usbauto.h"

#include "statepaths.h"

#include <QDBusAbstractInterface>
#include <QDBusConnection>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>
#include <QDebug>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QThread>

using InterfaceProperties = QMap<QString, QVariantMap>;
using ManagedObjects = QMap<QDBusObjectPath, InterfaceProperties>;
Q_DECLARE_METATYPE(InterfaceProperties)
Q_DECLARE_METATYPE(ManagedObjects)

namespace {
const char udisksService[] = "org.freedesktop.UDisks2";
const char root[] = "/org/freedesktop/UDisks2";
const char filesystemInterface[] = "org.freedesktop.UDisks2.Filesystem";
const char mountPointsProperty[] = "MountPoints";

// UDisks2 gives mount points as NUL-terminated byte strings (type aay).
QStringList mountPointsOf(const QVariant &value)
{
    QList<QByteArray> raw;
    if (value.userType() == qMetaTypeId<QDBusArgument>())
        raw = qdbus_cast<QList<QByteArray>>(value.value<QDBusArgument>());
    else
        raw = value.value<QList<QByteArray>>();
    QStringList paths;
    for (QByteArray path : qAsConst(raw)) {
        const int end = path.indexOf('\0');
        if (end >= 0)
            path.truncate(end);
        if (!path.isEmpty())
            paths << QFile::decodeName(path);
    }
    return paths;
}

QDBusConnection connectBus(const QString &name)
{
    const QString address = qEnvironmentVariable("VORSANE_UDISKS_BUS");
    if (address.isEmpty())
        return QDBusConnection::connectToBus(QDBusConnection::SystemBus, name);
    return QDBusConnection::connectToBus(address, name);
}

QString megabytes(qint64 bytes)
{
    return QString::number(double(bytes) / (1024 * 1024), 'f', 1);
}
} // namespace

// The D-Bus signals arrive as the Qt signals of the same name and argument types.
class UDisksObjectManager : public QDBusAbstractInterface
{
    Q_OBJECT

public:
    UDisksObjectManager(const QDBusConnection &bus, QObject *parent)
        : QDBusAbstractInterface(QString::fromLatin1(udisksService), QString::fromLatin1(root),
                                 "org.freedesktop.DBus.ObjectManager", bus, parent)
    {
    }

Q_SIGNALS:
    void InterfacesAdded(const QDBusObjectPath &object, const InterfaceProperties &interfaces);
    void InterfacesRemoved(const QDBusObjectPath &object, const QStringList &interfaces);
};

class DBusProperties : public QDBusAbstractInterface
{
    Q_OBJECT

public:
    DBusProperties(const QString &object, const QDBusConnection &bus, QObject *parent)
        : QDBusAbstractInterface(QString::fromLatin1(udisksService), object,
                                 "org.freedesktop.DBus.Properties", bus, parent)
    {
    }

Q_SIGNALS:
    void PropertiesChanged(const QString &interface, const QVariantMap &changed,
                           const QStringList &invalidated);
};

// Shared by the copying thread and the show's thread.
struct UsbAuto::Copy
{
    QString source;
    QString staging;
    std::atomic<bool> cancelled{false};
    bool ok = false;
    int files = 0;
};

UsbAuto::UsbAuto(const QString &key, QObject *parent)
    : QObject(parent)
    , m_key(key)
    , m_connectionName(QStringLiteral("vorsane-udisks-%1").arg(quintptr(this), 0, 16))
{
    const QDBusConnection bus = connectBus(m_connectionName);
    qDBusRegisterMetaType<InterfaceProperties>();
    qDBusRegisterMetaType<ManagedObjects>();
    qDBusRegisterMetaType<QList<QByteArray>>();
    if (!bus.isConnected()) {
        qDebug() << "USB import: no connection to UDisks2:" << bus.lastError().message();
        return;
    }
    // UDisks2 may start after the show (or restart): its objects are read again each time.
    m_serviceWatcher = new QDBusServiceWatcher(QString::fromLatin1(udisksService), bus,
                                               QDBusServiceWatcher::WatchForRegistration, this);
    connect(m_serviceWatcher, &QDBusServiceWatcher::serviceRegistered, this, &UsbAuto::attach);
    attach();
}

UsbAuto::~UsbAuto()
{
    if (m_thread) {
        m_copy->cancelled = true;
        m_thread->wait();
        delete m_thread;
        QDir(m_copy->staging).removeRecursively();
    }
    delete m_objects;
    qDeleteAll(m_watches);
    QDBusConnection::disconnectFromBus(m_connectionName);
}

QString UsbAuto::targetDir()
{
    return StatePaths::usbAutoDir();
}

void UsbAuto::attach()
{
    delete m_objects;
    m_objects = new UDisksObjectManager(QDBusConnection(m_connectionName), this);
    connect(m_objects, &UDisksObjectManager::InterfacesAdded, this, &UsbAuto::onInterfacesAdded);
    connect(m_objects, &UDisksObjectManager::InterfacesRemoved, this,
            &UsbAuto::onInterfacesRemoved);
    auto *call = new QDBusPendingCallWatcher(
        m_objects->asyncCall(QStringLiteral("GetManagedObjects")), this);
    connect(call, &QDBusPendingCallWatcher::finished, this, &UsbAuto::onManagedObjects);
}

void UsbAuto::onManagedObjects(QDBusPendingCallWatcher *call)
{
    call->deleteLater();
    const QDBusPendingReply<ManagedObjects> reply = *call;
    if (reply.isError()) {
        qDebug() << "USB import: UDisks2 not available yet:" << reply.error().message();
        return;
    }
    // Keys mounted before the show started are not imported: only a new mount is.
    const ManagedObjects objects = reply.value();
    for (auto it = objects.cbegin(); it != objects.cend(); ++it) {
        const QString object = it.key().path();
        if (it.value().contains(QString::fromLatin1(filesystemInterface))
            && !m_mounts.contains(object))
            track(object, mountPointsOf(it.value()
                                            .value(QString::fromLatin1(filesystemInterface))
                                            .value(QString::fromLatin1(mountPointsProperty))));
    }
}

void UsbAuto::track(const QString &object, const QStringList &mountPoints)
{
    m_mounts.insert(object, mountPoints);
    if (m_watches.contains(object))
        return;
    auto *watch = new DBusProperties(object, QDBusConnection(m_connectionName), this);
    m_watches.insert(object, watch);
    connect(watch, &DBusProperties::PropertiesChanged, this,
            [this, object](const QString &interface, const QVariantMap &changed) {
                if (interface == QLatin1String(filesystemInterface)
                    && changed.contains(QString::fromLatin1(mountPointsProperty)))
                    onMountPoints(object, mountPointsOf(changed.value(
                                              QString::fromLatin1(mountPointsProperty))));
            });
    // A mount made before the watch was in place was told to nobody: the state is asked for
    // once the watch is there.
    auto *call = new QDBusPendingCallWatcher(
        watch->asyncCall(QStringLiteral("Get"), QString::fromLatin1(filesystemInterface),
                         QString::fromLatin1(mountPointsProperty)),
        this);
    connect(call, &QDBusPendingCallWatcher::finished, this,
            [this, object](QDBusPendingCallWatcher *call) {
                call->deleteLater();
                const QDBusPendingReply<QDBusVariant> reply = *call;
                if (!reply.isError() && m_mounts.contains(object))
                    onMountPoints(object, mountPointsOf(reply.value().variant()));
            });
}

void UsbAuto::onInterfacesAdded(const QDBusObjectPath &object,
                                const InterfaceProperties &interfaces)
{
    const auto filesystem = interfaces.constFind(QString::fromLatin1(filesystemInterface));
    if (filesystem == interfaces.cend())
        return;
    track(object.path(), {});
    onMountPoints(object.path(),
                  mountPointsOf(filesystem->value(QString::fromLatin1(mountPointsProperty))));
}

void UsbAuto::onInterfacesRemoved(const QDBusObjectPath &object, const QStringList &interfaces)
{
    if (!interfaces.contains(QString::fromLatin1(filesystemInterface)))
        return;
    m_mounts.remove(object.path());
    delete m_watches.take(object.path());
}

void UsbAuto::onMountPoints(const QString &object, const QStringList &mountPoints)
{
    const bool wasMounted = !m_mounts.value(object).isEmpty();
    m_mounts.insert(object, mountPoints);
    if (wasMounted || mountPoints.isEmpty())
        return;
    importFrom(mountPoints.first());
}

bool UsbAuto::importFrom(const QString &mountPath)
{
    qDebug() << "USB key mounted:" << mountPath;
    if (m_thread) {
        qDebug() << "USB import already running; this key is left alone.";
        return false;
    }
    if (!QFileInfo(mountPath).isDir()) {
        qDebug() << "USB key cannot be read:" << mountPath;
        return false;
    }
    if (!m_key.isEmpty()) {
        QFile keyFile(mountPath + QLatin1String("/vorsane.key"));
        if (!keyFile.open(QIODevice::ReadOnly)
            || QString::fromUtf8(keyFile.read(4096)).trimmed() != m_key) {
            qDebug() << "USB key refused: missing or wrong vorsane.key.";
            return false;
        }
    }
    // Copied beside the live folder first: a pulled stick never leaves the show half-copied.
    m_copy = std::make_shared<Copy>();
    m_copy->source = mountPath;
    m_copy->staging = targetDir() + QLatin1String(".new");
    std::shared_ptr<Copy> copy = m_copy;
    m_thread = QThread::create([copy] {
        QDir(copy->staging).removeRecursively();
        if (!QDir().mkpath(copy->staging))
            return;
        QStringList files;
        qint64 total = 0;
        QDirIterator it(copy->source, QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot,
                        QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString file = it.next();
            if (QDir(copy->source).relativeFilePath(file) == QLatin1String("vorsane.key"))
                continue;
            files << file;
            total += it.fileInfo().size();
        }
        qDebug().noquote() << QStringLiteral("USB import: copying %1 files (%2 MB) from %3")
                                  .arg(files.size())
                                  .arg(megabytes(total), copy->source);
        qint64 done = 0;
        int lastTenth = 0;
        for (const QString &file : qAsConst(files)) {
            if (copy->cancelled)
                return;
            const QString target
                = copy->staging + QLatin1Char('/') + QDir(copy->source).relativeFilePath(file);
            QDir().mkpath(QFileInfo(target).absolutePath());
            const qint64 size = QFileInfo(file).size();
            if (!QFile::copy(file, target) || QFileInfo(target).size() != size) {
                qDebug() << "USB copy failed:" << file;
                return;
            }
            ++copy->files;
            done += size;
            const int tenth = total > 0 ? int(done * 10 / total) : 10;
            if (tenth > lastTenth || copy->files == files.size()) {
                lastTenth = tenth;
                qDebug().noquote() << QStringLiteral("USB import: %1 of %2 files, %3 of %4 MB")
                                          .arg(copy->files)
                                          .arg(files.size())
                                          .arg(megabytes(done), megabytes(total));
            }
        }
        copy->ok = true;
    });
    connect(m_thread, &QThread::finished, this, &UsbAuto::onCopyEnded);
    m_thread->start();
    return true;
}

void UsbAuto::onCopyEnded()
{
    m_thread->deleteLater();
    m_thread = nullptr;
    const std::shared_ptr<Copy> copy = std::move(m_copy);
    const QString target = targetDir();
    const QString previous = target + QLatin1String(".old");
    bool replaced = false;
    if (!copy->ok) {
        qDebug() << "USB import aborted; the current content is kept.";
    } else if (copy->files == 0) {
        qDebug() << "USB key holds no files; the current content is kept.";
    } else {
        QDir(previous).removeRecursively();
        const bool hadTarget = QFileInfo::exists(target);
        if (hadTarget && !QDir().rename(target, previous)) {
            qDebug() << "USB import could not replace" << target;
        } else if (!QDir().rename(copy->staging, target)) {
            qDebug() << "USB import could not replace" << target;
            if (hadTarget)
                QDir().rename(previous, target);
        } else {
            QDir(previous).removeRecursively();
            replaced = true;
        }
    }
    QDir(copy->staging).removeRecursively();
    if (!replaced) {
        Q_EMIT importFailed();
        return;
    }
    qDebug() << "USB content imported into" << target;
    Q_EMIT finished();
}

#include "usbauto.moc"
