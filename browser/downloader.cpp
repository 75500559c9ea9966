#include "downloader.h"

#include "itemdownloader.h"
#include "playlistitem.h"
#include "playlistloop.h"
#include "statepaths.h"
#include "utils.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QUrl>

#include <memory>

namespace {
const char nothingToDisplay[] = "file://:/image/nothing_to_display.png";
}

Downloader::Downloader(PlaylistLoop *loop, bool checkOnline, QObject *parent)
    : QObject(parent)
    , m_loop(loop)
    , m_root(StatePaths::root())
    , m_dataDir(m_root + QStringLiteral("/data"))
    , m_tagDir(m_root + QStringLiteral("/etag"))
    , m_checkOnline(checkOnline)
{
    // The loop carries the address of the playlist it came from; its server serves the
    // server-relative items.
    if (m_loop) {
        const QUrl source(m_loop->tag);
        if (source.scheme() == QLatin1String("http") || source.scheme() == QLatin1String("https"))
            m_baseUrl = source.toString(QUrl::RemovePath | QUrl::RemoveQuery | QUrl::RemoveFragment
                                        | QUrl::StripTrailingSlash);
    }
    QDir().mkpath(m_root);
    QDir().mkpath(m_dataDir);
    QDir().mkpath(m_tagDir);
    // Bodies of transfers that a signal, a power cut or a full disk cut short: never complete,
    // and never to be taken for it.
    QDir data(m_dataDir);
    const QStringList partial = data.entryList({QStringLiteral(".download-*")},
                                               QDir::Files | QDir::Hidden | QDir::System);
    for (const QString &name : partial) {
        qDebug() << "Removing partial download" << name;
        data.remove(name);
    }
}

Downloader::Downloader(const std::shared_ptr<PlaylistLoop> &loop, bool checkOnline, QObject *parent)
    : Downloader(loop.get(), checkOnline, parent)
{
    m_sharedLoop = loop;
}

Downloader::~Downloader()
{
    delete m_itemDownloader;
}

QString Downloader::cacheName(const QString &address)
{
    return QString::fromLatin1(address.toUtf8().toBase64())
        .replace(QLatin1Char('/'), QLatin1Char('-'));
}

QString Downloader::originalAddress(const QString &url)
{
    const QString prefix = QStringLiteral("file://") + StatePaths::dataDir() + QLatin1Char('/');
    if (!url.startsWith(prefix))
        return url;
    QString name = url.mid(prefix.size());
    const QByteArray decoded
        = QByteArray::fromBase64(name.replace(QLatin1Char('-'), QLatin1Char('/')).toLatin1(),
                                 QByteArray::AbortOnBase64DecodingErrors);
    return decoded.isEmpty() ? url : QString::fromUtf8(decoded);
}

void Downloader::start()
{
    // Deferred, so that a walk with nothing to fetch still ends after the caller has started
    // waiting for its end.
    QMetaObject::invokeMethod(this, &Downloader::downloadNext, Qt::QueuedConnection);
}

void Downloader::downloadNext()
{
    // A server that leaves revalidations unanswered would cost the time limit on every cached
    // item; the rest of the walk trusts the cache instead.
    if (m_itemDownloader && m_itemDownloader->revalidationTimedOut() && m_checkOnline) {
        qDebug() << "Server not answering: no more revalidation in this walk";
        m_checkOnline = false;
    }
    delete m_itemDownloader;
    m_itemDownloader = nullptr;
    if (m_ended)
        return;

    // Items that need no download are passed in this loop rather than by recursion, so a long
    // loop of local items cannot exhaust the stack.
    for (;;) {
        ++m_index;
        if (!m_loop || m_index >= m_loop->items.size()) {
            endWalk();
            return;
        }
        qDebug() << "DL idx:" << m_index << "/" << m_loop->items.size() - 1;
        if (startItem())
            return;
    }
}

bool Downloader::startItem()
{
    const PlaylistItemPtr item = m_loop->items.at(m_index);
    if (!item)
        return false;
    // Web pages load live; an idle item's text is its screen-off span, not an address.
    if (item->type == PlaylistItem::Webpage || item->type == PlaylistItem::Idle)
        return false;
    if (item->url.startsWith(QLatin1String("file://"))
        || item->url.startsWith(QLatin1String("rtsp://")))
        return false;

    // Kept as it is on purpose: the marker file is named by the third "/" part of the address
    // and looked up relative to the working directory.
    const QStringList parts = item->url.split(QLatin1Char('/'));
    if (parts.size() > 2 && !parts.at(2).isEmpty()) {
        QFile marker(parts.at(2));
        if (marker.open(QIODevice::ReadOnly)) {
            const bool missing = marker.readAll().contains("can't find resource");
            marker.close();
            if (missing) {
                qDebug() << "Can't find resource : nothing to display.";
                putNothingToDisplay();
                return false;
            }
        }
    }

    const QString maintenance = m_dataDir + QStringLiteral("/maintenance.txt");
    if (QFile::exists(maintenance)) {
        if (item->type == PlaylistItem::Maintenance) {
            QFile result(maintenance);
            if (result.open(QIODevice::ReadOnly) && result.readAll().contains("Update succeed!")) {
                qDebug() << "Maintenance done. Wait for new playlist.";
                putNothingToDisplay();
                return false;
            }
        } else {
            QFile::remove(maintenance);
        }
    }

    const QString address = item->url;
    const QString name = cacheName(address);
    const QString dataPath = m_dataDir + QLatin1Char('/') + name;
    const QString tagPath = m_tagDir + QLatin1Char('/') + name;
    item->url = QStringLiteral("file://") + dataPath;

    const QString downloadAddress = address.startsWith(QLatin1Char('/'))
                                        ? m_baseUrl + QStringLiteral("/r") + address
                                        : address;

    m_itemDownloader = new ItemDownloader(downloadAddress, dataPath, tagPath, m_checkOnline, this);
    // Queued: the item downloader is deleted by the next step and must not be deleted while
    // it is still emitting.
    connect(m_itemDownloader, &ItemDownloader::finished, this, &Downloader::downloadNext,
            Qt::QueuedConnection);
    connect(m_itemDownloader, &ItemDownloader::sizeIssue, this, &Downloader::replaceFile,
            Qt::QueuedConnection);
    connect(m_itemDownloader, &ItemDownloader::onError, this, &Downloader::addError);
    m_itemDownloader->start();
    return true;
}

void Downloader::replaceFile()
{
    if (m_loop && m_index >= 0 && m_index < m_loop->items.size())
        putNothingToDisplay();
    downloadNext();
}

void Downloader::addError()
{
    m_checkOnline = false;
    ++m_errors;
}

void Downloader::putNothingToDisplay()
{
    m_loop->items[m_index] = std::make_shared<PlaylistItem>(
        QString::fromLatin1(nothingToDisplay), PlaylistItem::Guess, 10, false, QStringList());
}

void Downloader::endWalk()
{
    m_ended = true;
    if (m_errors > 0) {
        restorePreviousPlaylist();
        qDebug() << "Errors occured while downloading.";
        emit downloadNotDone();
    } else {
        if (!m_keepPrevious)
            QFile::remove(m_root + QStringLiteral("/playlist-old"));
        emit downloadDone();
    }
    deleteLater();
}

void Downloader::restorePreviousPlaylist()
{
    // The last good playlist comes back, so that the next start plays content that is whole in
    // the cache.
    QFile previous(m_root + QStringLiteral("/playlist-old"));
    if (!previous.exists()) {
        qDebug() << "No previous playlist to restore";
        return;
    }
    if (!previous.open(QIODevice::ReadOnly)) {
        qWarning() << "Cannot restore the previous playlist:" << previous.errorString();
        return;
    }
    if (!Utils::writeWhole(m_root + QStringLiteral("/playlist"), previous.readAll()))
        qWarning() << "Cannot restore the previous playlist";
}
