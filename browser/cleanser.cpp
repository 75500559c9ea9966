#include "cleanser.h"

#include "downloader.h"
#include "playlistparser.h"
#include "settings.h"
#include "statepaths.h"
#include "utils.h"

#include <QDateTime>
#include <QDebug>
#include <QFile>
#include <QFileInfo>
#include <QSet>
#include <QXmlStreamReader>

#include <algorithm>
#include <utility>

namespace {
const char maintenanceFile[] = "maintenance.txt";

// Space a file gives back when deleted, counted in whole file-system blocks.
qint64 blockRounded(qint64 size)
{
    const qint64 block = 4096;
    return size <= 0 ? 0 : (size + block - 1) / block * block;
}

// The body length a tag file vouches for; -1 when the tag cannot be read.
qint64 declaredLength(const QString &tagPath)
{
    QFile tag(tagPath);
    if (!tag.open(QIODevice::ReadOnly))
        return -1;
    const QString text = QString::fromUtf8(tag.readAll());
    bool ok = false;
    const qint64 length = text.split(QLatin1Char(':')).last().toLongLong(&ok);
    return ok ? length : -1;
}
// Every address a playlist text names: the uri attributes of a schedule, the targets of a flat
// list. Read the way the loop builders read them, so the cache names match.
QStringList addressesIn(const QString &text)
{
    QStringList addresses;
    if (!text.startsWith(QLatin1String("#"))) {
        QXmlStreamReader reader(text);
        int depth = 0;
        while (!reader.atEnd() && depth <= PlaylistParser::MaxDocumentDepth) {
            const QXmlStreamReader::TokenType token = reader.readNext();
            if (token == QXmlStreamReader::EndElement)
                --depth;
            if (token != QXmlStreamReader::StartElement)
                continue;
            ++depth;
            const QString uri = reader.attributes().value(QLatin1String("uri")).toString();
            if (!uri.isEmpty())
                addresses << uri;
        }
        if (!reader.hasError())
            return addresses;
    }
    const QStringList lines = text.split(QLatin1Char('\n'));
    for (const QString &line : lines) {
        const int blank = line.lastIndexOf(QLatin1Char(' '));
        if (!line.startsWith(QLatin1Char('#')) && blank > 0)
            addresses << line.left(blank);
    }
    return addresses;
}
} // namespace

Cleanser::Cleanser(Settings *settings, QObject *parent)
    : QObject(parent)
    , m_settings(settings)
    , m_tagDir(StatePaths::tagDir())
    , m_dataDir(StatePaths::dataDir())
{
}

void Cleanser::checkThat(qint64 size)
{
    const qint64 available = Utils::availableDiskSpace();
    if (available >= size) {
        emit ok();
        return;
    }
    qDebug() << "Size cleansing";
    listEntries();
    cleanUntilFree(available, size);
}

void Cleanser::cleanUntilFree(qint64 available, qint64 needed)
{
    if (m_entries.isEmpty()) {
        emit notOk();
        return;
    }

    QStringList deletable;
    qint64 reclaimable = 0;
    for (const QString &name : std::as_const(m_entries)) {
        if (name == QLatin1String(".") || name == QLatin1String(".."))
            continue;
        const QString tagPath = m_tagDir.filePath(name);
        if (!QFileInfo::exists(tagPath) || isProtected(tagPath))
            continue;
        deletable << name;
        reclaimable += blockRounded(QFileInfo(tagPath).size())
                       + blockRounded(QFileInfo(m_dataDir.filePath(name)).size());
    }

    // A request that even an emptied cache could not hold must not cost the cache its content.
    const qint64 reachable = qMax(available, Utils::availableDiskSpace()) + reclaimable;
    if (reachable < needed) {
        qDebug() << "Cannot free" << needed << "bytes: at most" << reachable
                 << "could be had, the cache is kept";
        emit notOk();
        return;
    }

    for (const QString &name : std::as_const(deletable)) {
        qDebug() << "Deleting" << name;
        removeEntry(name);
        if (Utils::availableDiskSpace() >= needed) {
            emit ok();
            return;
        }
    }
    emit notOk();
}

void Cleanser::check()
{
    if (m_settings && m_settings->cleanAfter())
        clean();

    const qint64 available = Utils::availableDiskSpace();
    if (available >= MinimumFreeSpace) {
        emit ok();
        return;
    }
    qDebug() << "Size cleansing";
    listEntries();
    // The periodic check may run while the server is out of reach: what the playlists name is
    // kept, only a download that needs the room may take it.
    const QSet<QString> inUse = namesInUse();
    m_entries.erase(std::remove_if(m_entries.begin(), m_entries.end(),
                                   [&inUse](const QString &name) { return inUse.contains(name); }),
                    m_entries.end());
    cleanUntilFree(available, MinimumFreeSpace);
}

void Cleanser::clean()
{
    const bool expire = m_settings && m_settings->cleanAfter();
    // What the kept playlists still name stays, however old: while the server cannot be reached
    // it is all the show has.
    const QSet<QString> inUse = expire ? namesInUse() : QSet<QString>();

    m_tagDir.refresh();
    m_dataDir.refresh();
    const QStringList tags = m_tagDir.entryList(QDir::Files | QDir::Hidden | QDir::System);
    QStringList data = m_dataDir.entryList(QDir::Files | QDir::Hidden | QDir::System);
    data.removeAll(QLatin1String(maintenanceFile));
    const QSet<QString> tagSet(tags.cbegin(), tags.cend());
    const QSet<QString> dataSet(data.cbegin(), data.cend());

    int removed = 0;
    for (const QString &name : tags) {
        const QString tagPath = m_tagDir.filePath(name);
        const QString dataPath = m_dataDir.filePath(name);
        if (isProtected(tagPath) || (dataSet.contains(name) && isProtected(dataPath)))
            continue;
        const char *reason = nullptr;
        if (!dataSet.contains(name))
            reason = "tag without data";
        else if (declaredLength(tagPath) != QFileInfo(dataPath).size())
            reason = "data does not match its tag";
        else if (expire && !inUse.contains(name))
            reason = "older than a day and no loop names it";
        if (!reason)
            continue;
        qDebug() << "Deleting" << name << '(' << reason << ')';
        if (removeEntry(name))
            ++removed;
    }
    // Data without a tag is never trusted: left over from an interrupted run.
    for (const QString &name : std::as_const(data)) {
        const QString dataPath = m_dataDir.filePath(name);
        if (tagSet.contains(name) || isProtected(dataPath))
            continue;
        qDebug() << "Deleting" << name << "(data without tag)";
        if (QFile::remove(dataPath))
            ++removed;
    }
    if (removed > 0)
        qDebug() << "Cache clean-up removed" << removed << "files";
}

bool Cleanser::isProtected(const QString &path) const
{
    const QDateTime limit = QDateTime::currentDateTime().addSecs(-ProtectedAgeSecs);
    return QFileInfo(path).lastModified() > limit;
}

bool Cleanser::removeEntry(const QString &name)
{
    const bool tagRemoved = QFile::remove(m_tagDir.filePath(name));
    const QString dataPath = m_dataDir.filePath(name);
    if (QFileInfo::exists(dataPath) && !QFile::remove(dataPath)) {
        qWarning() << "Cannot delete" << dataPath;
        return false;
    }
    return tagRemoved;
}

void Cleanser::listEntries()
{
    // Oldest first, so that the content stored longest ago goes first; entries no playlist names
    // go before all others. QDir caches its listing.
    m_tagDir.refresh();
    m_entries
        = m_tagDir.entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                             QDir::Time | QDir::Reversed);
    const QSet<QString> inUse = namesInUse();
    std::stable_partition(m_entries.begin(), m_entries.end(),
                          [&inUse](const QString &name) { return !inUse.contains(name); });
}

QSet<QString> Cleanser::namesInUse() const
{
    QStringList playlists{PlaylistParser::localCopyPath(), PlaylistParser::offlineCopyPath()};
    if (m_settings && m_settings->playlistUpdateMode() == Settings::UpdateMode::LocalPlaylist)
        playlists << m_settings->playlistFilename();
    QSet<QString> names;
    for (const QString &path : std::as_const(playlists)) {
        if (!QFileInfo(path).isFile())
            continue;
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly))
            continue;
        const QByteArray bytes = file.read(PlaylistParser::maxDocumentBytes() + 1);
        if (bytes.size() > PlaylistParser::maxDocumentBytes())
            continue;
        const QStringList addresses = addressesIn(QString::fromUtf8(bytes));
        for (const QString &address : addresses)
            names.insert(Downloader::cacheName(address));
    }
    return names;
}
