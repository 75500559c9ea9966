#include "itemdownloader.h"

#include "cleanser.h"
#include "settings.h"
#include "statepaths.h"
#include "utils.h"

#include <QDateTime>
#include <QDebug>
#include <QDir>
#include <QEventLoop>
#include <QFileInfo>
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
#include <QNetworkConfigurationManager>
#endif
#include <QNetworkReply>
#include <QTemporaryFile>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace {
int s_revalidationTimeoutMs = ItemDownloader::RevalidationTimeoutMs;
int s_stallTimeoutMs = ItemDownloader::StallTimeoutMs;
const int MaximumTagLength = 4096;

QString cacheFolder(const char *name)
{
    return StatePaths::path(QLatin1String(name));
}

// The tag of a stored body: its Last-Modified and its length. A body sent without a length
// (chunked, or up to the end of the connection) is described by the size that was stored, so
// the cached copy can be checked and revalidated like any other.
QString tagOf(const QNetworkReply *reply, qint64 storedSize)
{
    QByteArray length = reply->rawHeader("Content-Length");
    if (length.isEmpty())
        length = QByteArray::number(storedSize);
    return QStringLiteral("%1:%2").arg(QString::fromLatin1(reply->rawHeader("Last-Modified")),
                                       QString::fromLatin1(length));
}

// Whether a HEAD answer still describes the stored copy. A server that gives no length for the
// HEAD (as for a chunked body) is judged by its Last-Modified alone.
bool sameContent(const QNetworkReply *head, const QString &tag)
{
    const int colon = tag.lastIndexOf(QLatin1Char(':'));
    const QByteArray length = head->rawHeader("Content-Length");
    return QString::fromLatin1(head->rawHeader("Last-Modified")) == tag.left(colon)
           && (length.isEmpty() || QString::fromLatin1(length) == tag.mid(colon + 1));
}

bool hasEntries(const QString &path)
{
    return !QDir(path)
                .entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot)
                .isEmpty();
}
} // namespace

ItemDownloader::ItemDownloader(const QString &url, const QString &dataPath, const QString &tagPath,
                               bool checkOnline, QObject *parent)
    : QObject(parent)
    , m_url(url)
    , m_dataFile(dataPath)
    , m_tagFile(tagPath)
    , m_nam(new QNetworkAccessManager(this))
    , m_checkOnline(checkOnline)
    , m_settings(Settings::load(false, nullptr))
    , m_cleanser(new Cleanser(m_settings, this))
{
    qDebug() << "Tag file:" << tagPath;
}

ItemDownloader::~ItemDownloader()
{
    if (m_reply) {
        m_reply->disconnect(this);
        m_reply->abort();
    }
}

void ItemDownloader::setTimeouts(int revalidationMs, int stallMs)
{
    s_revalidationTimeoutMs = revalidationMs;
    s_stallTimeoutMs = stallMs;
}

void ItemDownloader::start()
{
    m_request = QNetworkRequest(QUrl(m_url));
    // The cache holds the body byte for byte and its length must match the tag.
    m_request.setRawHeader("Accept-Encoding", "identity");
    m_request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                           QNetworkRequest::NoLessSafeRedirectPolicy);
    m_request.setTransferTimeout(s_stallTimeoutMs);

    if (inCache() && !m_url.endsWith(QLatin1String(".zip"))) {
        qDebug() << "NOT downloading";
        m_settled = true;
        emit finished();
        return;
    }

    qDebug() << "Downloading" << m_url;
    if (!cacheNameFits()) {
        failStorage(QStringLiteral("cache file name too long (%1 bytes)")
                        .arg(QFileInfo(m_dataFile.fileName()).fileName().toUtf8().size()));
        return;
    }

#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
    // Bearer management is gone in Qt 6; there a lost connection is noticed by the reply's
    // transfer timeout alone.
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    const QNetworkConfiguration configuration
        = QNetworkConfigurationManager().defaultConfiguration();
    if (configuration.isValid())
        m_nam->setConfiguration(configuration);
    connect(m_nam, &QNetworkAccessManager::networkAccessibleChanged, this,
            &ItemDownloader::namChanged);
    QT_WARNING_POP
#endif

    m_reply = m_nam->get(m_request);
    connect(m_reply, &QNetworkReply::downloadProgress, this, &ItemDownloader::checkSizeFileFirst);
    // A reply that ends before any progress (refused, stalled, empty) still settles the item.
    connect(m_reply, &QNetworkReply::finished, this, &ItemDownloader::onFinished);
}

bool ItemDownloader::inCache()
{
    if (!m_dataFile.exists() || !m_tagFile.exists())
        return false;

    if (!m_tagFile.open(QIODevice::ReadOnly)) {
        qDebug() << "Cannot read tag" << m_tagFile.fileName() << m_tagFile.errorString();
        return false;
    }
    // A real tag is two header values; anything longer is not one and is not read whole.
    const QString tag = QString::fromUtf8(m_tagFile.read(MaximumTagLength + 1));
    bool isNumber = false;
    const qint64 length = tag.split(QLatin1Char(':')).last().toLongLong(&isNumber);
    if (!isNumber || tag.size() > MaximumTagLength || m_dataFile.size() != length) {
        qDebug() << "Cached copy does not match its tag" << tag << "- discarded";
        m_tagFile.close();
        m_dataFile.close();
        m_dataFile.remove();
        return false;
    }
    m_tagFile.close();

    if (!m_checkOnline)
        return true;

    QNetworkRequest head = m_request;
    head.setTransferTimeout(s_revalidationTimeoutMs);
    QNetworkReply *reply = m_nam->head(head);
    QEventLoop loop;
    connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    if (!reply->isFinished())
        loop.exec();

    bool valid = true;
    if (reply->error() == QNetworkReply::NoError) {
        valid = sameContent(reply, tag);
        // The server vouched for it just now: the age that decides clean-ups starts again.
        if (valid && m_tagFile.open(QIODevice::ReadWrite)) {
            m_tagFile.setFileTime(QDateTime::currentDateTime(), QFileDevice::FileModificationTime);
            m_tagFile.close();
        }
    } else if (reply->error() == QNetworkReply::OperationCanceledError) {
        m_revalidationTimedOut = true;
        qDebug() << "Revalidation unanswered for" << s_revalidationTimeoutMs
                 << "ms, cached copy used";
    } else {
        qDebug() << "Revalidation failed, cached copy used:" << reply->errorString();
    }
    reply->deleteLater();
    return valid;
}

void ItemDownloader::checkSizeFileFirst(qint64 received, qint64 total)
{
    Q_UNUSED(received)
    pauseWhileCheckingSize();
    connect(m_cleanser, &Cleanser::ok, this, &ItemDownloader::resumeDownload, Qt::UniqueConnection);
    connect(m_cleanser, &Cleanser::notOk, this, &ItemDownloader::notEnoughSpace,
            Qt::UniqueConnection);
    m_cleanser->checkThat(total);
}

void ItemDownloader::pauseWhileCheckingSize()
{
    if (!m_reply)
        return;
    disconnect(m_reply, &QNetworkReply::downloadProgress, this,
               &ItemDownloader::checkSizeFileFirst);
    disconnect(m_reply, &QNetworkReply::finished, this, &ItemDownloader::onFinished);
    dropReply();
}

void ItemDownloader::resumeDownload()
{
    disconnect(m_cleanser, nullptr, this, nullptr);
    if (m_settled)
        return;
    m_reply = m_nam->get(m_request);
    connect(m_reply, &QNetworkReply::finished, this, &ItemDownloader::onFinished);
    connect(m_reply, &QNetworkReply::readyRead, this, &ItemDownloader::onReadyRead);
}

void ItemDownloader::notEnoughSpace()
{
    disconnect(m_cleanser, nullptr, this, nullptr);
    if (m_settled)
        return;
    qDebug() << "Not enough space...";
    m_settled = true;
    emit sizeIssue();
}

void ItemDownloader::onReadyRead()
{
    if (m_settled || !m_reply || m_reply->error() != QNetworkReply::NoError)
        return;
    if (!m_body && !openBodyFile())
        return;
    appendToBody(m_reply->readAll());
}

void ItemDownloader::onFinished()
{
    if (m_settled)
        return;
    if (!m_reply || m_reply->error() != QNetworkReply::NoError || m_aborted) {
        QString reason = QStringLiteral("connection lost");
        if (m_reply && m_reply->error() == QNetworkReply::OperationCanceledError && !m_aborted)
            reason = QStringLiteral("nothing received for %1 ms").arg(s_stallTimeoutMs);
        else if (m_reply && m_reply->error() != QNetworkReply::NoError)
            reason = m_reply->errorString();
        failNetwork(reason);
        return;
    }

    if (!m_body && !openBodyFile())
        return;
    if (!appendToBody(m_reply->readAll()))
        return;

    const QByteArray declared = m_reply->rawHeader("Content-Length");
    bool isNumber = false;
    const qint64 length = declared.toLongLong(&isNumber);
    if (isNumber && m_body->size() != length) {
        failNetwork(
            QStringLiteral("body cut short: %1 of %2 bytes").arg(m_body->size()).arg(length));
        return;
    }
    const QString tag = tagOf(m_reply, m_body->size());
    if (!commitBody())
        return;
    writeTag(tag);
    dropReply();
    m_settled = true;
    emit finished();
}

void ItemDownloader::namChanged()
{
    if (m_settled)
        return;
    qDebug() << "CONNECTION LOST";
    m_aborted = true;
    onFinished();
}

bool ItemDownloader::openBodyFile()
{
    const QString folder = QFileInfo(m_dataFile.fileName()).absolutePath();
    m_body = std::make_unique<QTemporaryFile>(folder + QStringLiteral("/.download-XXXXXX"));
    if (!m_body->open()) {
        const QString reason = m_body->errorString();
        m_body.reset();
        failStorage(reason);
        return false;
    }
    return true;
}

bool ItemDownloader::appendToBody(const QByteArray &bytes)
{
    if (bytes.isEmpty())
        return true;
    if (m_body->write(bytes) != bytes.size() || !m_body->flush()) {
        // QFile reports a failed flush as an unknown error; the system knows better.
        failStorage(QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    return true;
}

bool ItemDownloader::commitBody()
{
    const QByteArray from = QFile::encodeName(m_body->fileName());
    const QByteArray to = QFile::encodeName(m_dataFile.fileName());
    m_body->close();
    // rename() replaces the old copy in one step, so the data file is always whole.
    if (std::rename(from.constData(), to.constData()) != 0) {
        failStorage(QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    m_body->setAutoRemove(false);
    m_body.reset();
    return true;
}

void ItemDownloader::writeTag(const QString &tag)
{
    // The old tag describes a body that is gone: without a new one the copy is fetched again.
    if (!Utils::writeWhole(m_tagFile.fileName(), tag.toUtf8()))
        m_tagFile.remove();
}

void ItemDownloader::failStorage(const QString &reason)
{
    qWarning() << "Cannot store" << m_url << "in" << m_dataFile.fileName() << ":" << reason;
    m_body.reset();
    dropReply();
    m_settled = true;
    emit sizeIssue();
}

void ItemDownloader::failNetwork(const QString &reason)
{
    qDebug() << "Download of" << m_url << "failed:" << reason;
    m_body.reset();
    dropReply();
    m_settled = true;

    if (hasEntries(cacheFolder("data")) && hasEntries(cacheFolder("etag"))) {
        QFile timestamp(cacheFolder("playlist_last_timestamp.txt"));
        if (timestamp.open(QIODevice::ReadWrite)) {
            timestamp.resize(0);
            timestamp.close();
        }
        emit onError();
        emit finished();
    } else {
        emit finished();
        qDebug() << "Network error, nothing in cache. Exit.";
    }
}

void ItemDownloader::dropReply()
{
    if (!m_reply)
        return;
    QNetworkReply *reply = m_reply;
    m_reply = nullptr;
    reply->disconnect(this);
    if (reply->isRunning())
        reply->abort();
    reply->deleteLater();
}

bool ItemDownloader::cacheNameFits() const
{
    const QFileInfo data(m_dataFile.fileName());
    const QFileInfo tag(m_tagFile.fileName());
    const long limit = pathconf(QFile::encodeName(data.absolutePath()).constData(), _PC_NAME_MAX);
    const int longest
        = qMax(QFile::encodeName(data.fileName()).size(), QFile::encodeName(tag.fileName()).size());
    return longest <= (limit > 0 ? limit : 255);
}
