#include "dropfolder.h"

#include "statepaths.h"

#include <QDir>
#include <QFileInfo>
#include <QMimeDatabase>
#include <QStorageInfo>
#include <QUuid>

#include <cerrno>
#include <map>
#include <mutex>
#include <unistd.h>

namespace {
// Long enough for any sensible name, short enough for every file system's limit in bytes.
const int maxNameLength = 120;
} // namespace

struct DropFolder::Ledger
{
    std::mutex mutex;
    // Bytes each upload in progress may still write.
    std::map<quint64, qint64> outstanding;
    quint64 next = 1;
};

DropFolder::Reservation::Reservation(Reservation &&other) noexcept
    : m_ledger(std::move(other.m_ledger))
    , m_id(other.m_id)
{
}

DropFolder::Reservation &DropFolder::Reservation::operator=(Reservation &&other) noexcept
{
    if (this != &other) {
        Reservation released(std::move(*this));
        m_ledger = std::move(other.m_ledger);
        m_id = other.m_id;
    }
    return *this;
}

DropFolder::Reservation::~Reservation()
{
    if (!m_ledger)
        return;
    std::lock_guard<std::mutex> lock(m_ledger->mutex);
    m_ledger->outstanding.erase(m_id);
}

void DropFolder::Reservation::written(qint64 bytes)
{
    if (!m_ledger)
        return;
    std::lock_guard<std::mutex> lock(m_ledger->mutex);
    qint64 &left = m_ledger->outstanding[m_id];
    left = qMax<qint64>(0, left - bytes);
}

DropFolder::DropFolder(const QString &home)
    : m_path(StatePaths::dropFolder(home))
    , m_staging(StatePaths::uploadStaging(home))
    , m_ledger(std::make_shared<Ledger>())
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

DropFolder::Reservation DropFolder::reserve(qint64 bytes) const
{
    Reservation reservation;
    if (bytes < 0)
        return reservation;
    // Under the lock: two uploads asking at once must not both count the same free space.
    std::lock_guard<std::mutex> lock(m_ledger->mutex);
    QStorageInfo storage(m_staging);
    if (!storage.isValid())
        storage.setPath(QFileInfo(m_staging).absolutePath());
    if (!storage.isValid())
        return reservation;
    qint64 taken = 0;
    for (const auto &entry : m_ledger->outstanding)
        taken += entry.second;
    if (bytes > storage.bytesAvailable() - SpaceMargin - taken)
        return reservation;
    reservation.m_ledger = m_ledger;
    reservation.m_id = m_ledger->next++;
    m_ledger->outstanding[reservation.m_id] = bytes;
    return reservation;
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
