#pragma once

#include <QHash>
#include <QObject>
#include <QStringList>

#include <atomic>
#include <memory>

class QDBusObjectPath;
class QDBusPendingCallWatcher;
class QDBusServiceWatcher;
class QThread;
class UDisksObjectManager;
class DBusProperties;

// Copies the content of an inserted USB key into the "usb-auto" folder the playlist plays from,
// then asks for a restart. Keys are noticed through UDisks2 on the system bus, once their
// filesystem is mounted, wherever it is mounted. When a key is configured, the USB key must
// carry it in a file named "vorsane.key", so a stranger's stick cannot replace the show. The
// copy runs beside the show and replaces the folder only once it is whole and not empty.
class UsbAuto : public QObject
{
    Q_OBJECT

public:
    // The bus is the system bus, or the one at the address in VORSANE_UDISKS_BUS.
    explicit UsbAuto(const QString &key, QObject *parent = nullptr);
    ~UsbAuto() override;

    static QString targetDir();
    // Starts copying the files under mountPath; true when the copy started.
    bool importFrom(const QString &mountPath);
    bool importRunning() const { return m_thread != nullptr; }

Q_SIGNALS:
    // The folder was replaced.
    void finished();
    // A copy ended without replacing the folder.
    void importFailed();

private:
    struct Copy;

    void attach();
    void onManagedObjects(QDBusPendingCallWatcher *call);
    void onInterfacesAdded(const QDBusObjectPath &object,
                           const QMap<QString, QVariantMap> &interfaces);
    void onInterfacesRemoved(const QDBusObjectPath &object, const QStringList &interfaces);
    void track(const QString &object, const QStringList &mountPoints);
    void onMountPoints(const QString &object, const QStringList &mountPoints);
    void onCopyEnded();

    QString m_key;
    QString m_connectionName;
    QDBusServiceWatcher *m_serviceWatcher = nullptr;
    UDisksObjectManager *m_objects = nullptr;
    // The filesystems known, with where each is mounted now, and the watch on each.
    QHash<QString, QStringList> m_mounts;
    QHash<QString, DBusProperties *> m_watches;
    QThread *m_thread = nullptr;
    std::shared_ptr<Copy> m_copy;
};
