#include "usbauto.h"

#include "statepaths.h"

#include <QDebug>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

namespace {
QStringList defaultMediaRoots()
{
    const QString user = QString::fromLocal8Bit(qgetenv("USER"));
    QStringList roots{QStringLiteral("/media/pi"), QStringLiteral("/media")};
    if (!user.isEmpty() && user != QLatin1String("pi"))
        roots.prepend(QStringLiteral("/media/") + user);
    return roots;
}

bool copyTree(const QString &from, const QString &to)
{
    bool ok = true;
    QDirIterator it(from, QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString source = it.next();
        const QString target = to + QLatin1Char('/') + QDir(from).relativeFilePath(source);
        QDir().mkpath(QFileInfo(target).absolutePath());
        if (!QFile::copy(source, target)) {
            qDebug() << "USB copy failed:" << source;
            ok = false;
        }
    }
    return ok;
}
} // namespace

UsbAuto::UsbAuto(const QString &key, QObject *parent)
    : UsbAuto(key, defaultMediaRoots(), parent)
{
}

UsbAuto::UsbAuto(const QString &key, const QStringList &mediaRoots, QObject *parent)
    : QObject(parent)
    , m_key(key)
{
    for (const QString &root : mediaRoots) {
        if (!QFileInfo(root).isDir())
            continue;
        m_known.insert(root, mountsUnder(root));
        m_watcher.addPath(root);
    }
    connect(&m_watcher, &QFileSystemWatcher::directoryChanged, this, &UsbAuto::onDirectoryChanged);
}

QString UsbAuto::targetDir()
{
    return StatePaths::usbAutoDir();
}

QSet<QString> UsbAuto::mountsUnder(const QString &root) const
{
    const QStringList entries = QDir(root).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    return QSet<QString>(entries.cbegin(), entries.cend());
}

void UsbAuto::onDirectoryChanged(const QString &root)
{
    const QSet<QString> now = mountsUnder(root);
    const QSet<QString> added = now - m_known.value(root);
    m_known.insert(root, now);
    bool imported = false;
    for (const QString &name : added)
        imported = importFrom(root + QLatin1Char('/') + name) || imported;
    if (imported)
        Q_EMIT finished();
}

bool UsbAuto::importFrom(const QString &mountPath)
{
    qDebug() << "USB key inserted:" << mountPath;
    if (!m_key.isEmpty()) {
        QFile keyFile(mountPath + QLatin1String("/vorsane.key"));
        if (!keyFile.open(QIODevice::ReadOnly)
            || QString::fromUtf8(keyFile.readAll()).trimmed() != m_key) {
            qDebug() << "USB key refused: missing or wrong vorsane.key.";
            return false;
        }
    }
    // Copy beside the live folder first, so a pulled stick never leaves the show half-copied.
    const QString target = targetDir();
    const QString staging = target + QLatin1String(".new");
    QDir(staging).removeRecursively();
    if (!QDir().mkpath(staging) || !copyTree(mountPath, staging)) {
        QDir(staging).removeRecursively();
        qDebug() << "USB import aborted; the current content is kept.";
        return false;
    }
    QFile::remove(staging + QLatin1String("/vorsane.key"));
    QDir(target).removeRecursively();
    if (!QDir().rename(staging, target)) {
        qDebug() << "USB import could not replace" << target;
        return false;
    }
    qDebug() << "USB content imported into" << target;
    return true;
}
