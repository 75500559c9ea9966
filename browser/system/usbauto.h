#pragma once

#include <QFileSystemWatcher>
#include <QObject>
#include <QSet>
#include <QStringList>

// Copies the content of an inserted USB key into the "usb-auto" folder the playlist plays from,
// then asks for a restart. When a key is configured, the USB key must carry it in a file named
// "vorsane.key", so a stranger's stick cannot replace the show.
class UsbAuto : public QObject
{
    Q_OBJECT

public:
    explicit UsbAuto(const QString &key, QObject *parent = nullptr);
    // Where new mounts appear; the default covers the desktop's automounter locations.
    UsbAuto(const QString &key, const QStringList &mediaRoots, QObject *parent = nullptr);

    static QString targetDir();
    // Replaces the usb-auto folder with the files under mountPath; true when it did.
    bool importFrom(const QString &mountPath);

Q_SIGNALS:
    void finished();

private:
    void onDirectoryChanged(const QString &root);
    QSet<QString> mountsUnder(const QString &root) const;

    QString m_key;
    QFileSystemWatcher m_watcher;
    QHash<QString, QSet<QString>> m_known;
};
