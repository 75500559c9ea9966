#include "dropfolder.h"

#include "statepaths.h"

#include <QDir>
#include <QFileInfo>
#include <QMimeDatabase>
#include <QStorageInfo>
#include <QUuid>

#include <cerrno>
#include <unistd.h>

namespace {
// Long enough for any sensible name, short enough for every file system's limit in bytes.
const int maxNameLength = 120;
} // namespace

DropFolder::DropFolder(const QString &home)
    : m_path(StatePaths::dropFolder(home))
    , m_staging(StatePaths::uploadStaging(home))
{
}

bool DropFolder::ensureExists() const
{
    return QDir().mkpath(m_path) && QDir().mkpath(m_staging);
}

void DropFolder::clearStaging() const
{
    QDir staging(m_staging);
    const QStringList leftovers = staging.entryList(QDir::Files | QDir::Hidden);
    for (const QString &name : leftovers)
        staging.remove(name);
}

QString DropFolder::cleanName(const QString &name)
{
    QString base = name;
    const int slash = qMax(base.lastIndexOf(QLatin1Char('/')), base.lastIndexOf(QLatin1Char('\\')));
    if (slash >= 0)
        base = base.mid(slash + 1);
    QString cleaned;
    for (const QChar c : qAsConst(base)) {
        if (c.category() == QChar::Other_Control || c.category() == QChar::Other_Format)
            continue;
        cleaned.append(c);
    }
    while (cleaned.contains(QLatin1String("..")))
        cleaned.replace(QLatin1String(".."), QLatin1String("."));
    cleaned = cleaned.trimmed();
    while (cleaned.startsWith(QLatin1Char('.')) || cleaned.startsWith(QLatin1Char(' ')))
        cleaned.remove(0, 1);
    if (cleaned.size() > maxNameLength) {
        const QString suffix = QFileInfo(cleaned).suffix().left(10);
        cleaned = cleaned.left(maxNameLength - suffix.size() - 1) + QLatin1Char('.') + suffix;
    }
    return cleaned;
}

bool DropFolder::isAccepted(const QString &name)
{
    // What the slideshow shows from this folder: office files would be passed over.
    const QString mime
        = QMimeDatabase().mimeTypeForFile(name, QMimeDatabase::MatchExtension).name();
    return mime.startsWith(QLatin1String("image/")) || mime.startsWith(QLatin1String("video/"))
           || mime == QLatin1String("application/pdf") || mime == QLatin1String("text/html")
           || mime == QLatin1String("text/plain");
}

bool DropFolder::hasRoomFor(qint64 bytes) const
{
    QStorageInfo storage(m_staging);
    if (!storage.isValid())
        storage.setPath(QFileInfo(m_staging).absolutePath());
    return bytes >= 0 && storage.isValid() && bytes <= storage.bytesAvailable() - SpaceMargin;
}

QList<DropFolder::Entry> DropFolder::list() const
{
    QList<Entry> entries;
    const QFileInfoList files
        = QDir(m_path).entryInfoList(QDir::Files, QDir::Name | QDir::IgnoreCase);
    for (const QFileInfo &file : files)
        entries.append({file.fileName(), file.size()});
    return entries;
}

QString DropFolder::stagingFile() const
{
    return m_staging + QLatin1Char('/') + QUuid::createUuid().toString(QUuid::WithoutBraces)
           + QLatin1String(".part");
}

QString DropFolder::commit(const QString &stagedFile, const QString &cleanedName) const
{
    const QFileInfo info(cleanedName);
    const QString stem = info.completeBaseName();
    const QString suffix = info.suffix().isEmpty() ? QString() : QLatin1Char('.') + info.suffix();
    for (int n = 1; n < 1000; ++n) {
        const QString name
            = n == 1 ? cleanedName : QStringLiteral("%1 (%2)%3").arg(stem).arg(n).arg(suffix);
        const QString target = m_path + QLatin1Char('/') + name;
        // link() fails when the target exists, so two uploads of one name never overwrite
        // each other; rename() would replace silently.
        if (::link(QFile::encodeName(stagedFile).constData(), QFile::encodeName(target).constData())
            == 0) {
            QFile::remove(stagedFile);
            return name;
        }
        if (errno != EEXIST)
            break;
    }
    QFile::remove(stagedFile);
    return QString();
}

bool DropFolder::contains(const QString &name) const
{
    return !name.isEmpty() && cleanName(name) == name
           && QFileInfo(m_path + QLatin1Char('/') + name).isFile();
}
