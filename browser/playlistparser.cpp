#include "playlistparser.h"

#include "flatplaylistparser.h"
#include "settings.h"
#include "statepaths.h"
#include "utils.h"
#include "xmlplaylistparser.h"

#include <QApplication>
#include <QDebug>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QMessageBox>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QTextStream>
#include <QTimer>
#include <QUrl>
#include <QWidget>

namespace {

const char unavailableReply[] = "Unavailable for public use";

// Only regular files are read (a FIFO would block the show), and never more than the limit.
bool readLimited(const QString &path, QByteArray &bytes)
{
    const QFileInfo info(path);
    if (info.exists() && !info.isFile()) {
        qWarning() << "Playlist" << path << "rejected: not a regular file";
        return false;
    }
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    const qint64 limit = PlaylistParser::maxDocumentBytes();
    bytes = file.read(limit + 1);
    if (bytes.size() > limit) {
        qWarning() << "Playlist" << path << "rejected: larger than" << limit / (1024 * 1024)
                   << "MB";
        bytes.clear();
        return false;
    }
    return true;
}

bool readUtf8(const QString &path, QString &text)
{
    QByteArray bytes;
    if (!readLimited(path, bytes))
        return false;
    text = QString::fromUtf8(bytes);
    return true;
}

// Written through a temporary file: a power cut while saving must not leave half a playlist.
bool writeUtf8(const QString &path, const QString &text)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    return Utils::writeWhole(path, text.toUtf8());
}

const int fetchIdleTimeoutMs = 60000;

void showOffline(QWidget *widget)
{
    if (widget)
        widget->hide();
    if (qobject_cast<QApplication *>(QCoreApplication::instance())) {
        QMessageBox::critical(
            nullptr, QCoreApplication::translate("PlaylistParser", "Network unreachable"),
            QCoreApplication::translate("PlaylistParser",
                                        "Vorsane Kiosk is Offline.\nPlease select local playlist "
                                        "option or connect the system to a network."),
            QMessageBox::Ok);
    }
    // Queued, so that it also ends an event loop that has not started yet. exit(), not quit():
    // Qt 6's quit() is ignored until the application's own loop runs.
    QTimer::singleShot(0, QCoreApplication::instance(), [] { QCoreApplication::exit(0); });
}

} // namespace

PlaylistParser::PlaylistParser(QObject *parent)
    : QObject(parent)
{
}

PlaylistParser::~PlaylistParser() = default;

QString PlaylistParser::emptySchedule()
{
    return QStringList{QStringLiteral("<?xml version=\"1.0\"?>"), QStringLiteral("<schedule>"),
                       QStringLiteral("<loop id=\"0\" idle=\"0\">"), QStringLiteral("</loop>"),
                       QStringLiteral("</schedule>")}
        .join(QLatin1Char('\n'));
}

QString PlaylistParser::localCopyPath()
{
    return StatePaths::playlistCopy();
}

QString PlaylistParser::offlineCopyPath()
{
    return StatePaths::playlistOld();
}

PlaylistParser *PlaylistParser::get(int defaultDuration, const QUrl &url, QWidget *widget)
{
    QString text;
    bool offlineCopy = false;
    if (url.scheme() == QLatin1String("file")) {
        const QString path = url.path(QUrl::FullyDecoded);
        QByteArray bytes;
        if (readLimited(path, bytes)) {
            QTextStream stream(bytes, QIODevice::ReadOnly | QIODevice::Text);
            // UTF-8 whatever the locale, as Qt 6 reads it anyway: bytes that are no UTF-8 then
            // show as such, whoever starts the player.
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
            stream.setCodec("UTF-8");
#endif
            text = stream.readAll();
        } else if (!QFileInfo(path).isFile()) {
            qWarning() << "Cannot read playlist" << path;
        } else {
            // Too large: the empty schedule rather than a flat reading of a cut document.
            text = emptySchedule();
        }
    } else {
        text = fetch(url, widget, offlineCopy);
    }

    PlaylistParser *parser = fromText(defaultDuration, text, url.toString());
    parser->m_offlineCopy = offlineCopy;
    return parser;
}

PlaylistParser *PlaylistParser::fromText(int defaultDuration, const QString &text,
                                         const QString &source)
{
    auto *xml = new XmlPlaylistParser(defaultDuration, text, source);
    if (xml->valid)
        return xml;
    const bool rejected = xml->rejected;
    delete xml;
    if (rejected)
        return new XmlPlaylistParser(defaultDuration, emptySchedule(), source);
    return new FlatPlaylistParser(defaultDuration, text);
}

PlaylistParser *PlaylistParser::fromKeptCopy(int defaultDuration)
{
    // The same copy a failed fetch would play, so that a server that stays away changes nothing.
    for (const QString &path : {offlineCopyPath(), localCopyPath()}) {
        QString text;
        if (!readUtf8(path, text) || !isPlaylist(text))
            continue;
        PlaylistParser *parser = fromText(defaultDuration, text, path);
        parser->m_offlineCopy = true;
        return parser;
    }
    return nullptr;
}

qint64 PlaylistParser::maxDocumentBytes()
{
    return Settings::load(false, nullptr)->playlistMaxBytes();
}

bool PlaylistParser::isPlaylist(const QString &text)
{
    if (text.size() > maxDocumentBytes())
        return false;
    int loops = 0;
    switch (XmlPlaylistParser::inspect(text, &loops)) {
    case XmlPlaylistParser::Check::WellFormed:
        return loops > 0;
    case XmlPlaylistParser::Check::TooDeep:
    case XmlPlaylistParser::Check::Doctype:
        return false;
    case XmlPlaylistParser::Check::NotXml:
        break;
    }
    // A flat list is one loop; it is only taken for one when it says what it is.
    return text.startsWith(QLatin1String("#Vorsane playlist"));
}

QString PlaylistParser::fetch(const QUrl &url, QWidget *widget, bool &offlineCopy)
{
    QNetworkAccessManager manager;
    QNetworkRequest request(url);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::NoLessSafeRedirectPolicy);
    // A server that accepts and then stays silent must not hold the show forever; a transfer
    // idle this long fails like any network error and the offline copy is played.
    request.setTransferTimeout(fetchIdleTimeoutMs);
    QNetworkReply *reply = manager.get(request);
    // A body beyond the limit is not held in memory: the transfer stops as soon as it is known.
    bool tooLarge = false;
    const qint64 limit = maxDocumentBytes();
    connect(reply, &QNetworkReply::downloadProgress, reply,
            [reply, &tooLarge, limit](qint64 received, qint64 total) {
                if (!tooLarge && (received > limit || total > limit)) {
                    tooLarge = true;
                    reply->abort();
                }
            });
    QEventLoop loop;
    connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    // The idle limit alone lets a server that sends a byte now and then hold the fetch for good.
    QTimer deadline;
    deadline.setSingleShot(true);
    connect(&deadline, &QTimer::timeout, reply, [reply, url] {
        qWarning() << "Playlist from" << url.toString() << "not whole after"
                   << FetchDeadlineMs / 1000 << "s; given up";
        reply->abort();
    });
    deadline.start(FetchDeadlineMs);
    if (!reply->isFinished())
        loop.exec();

    const QString copyPath = localCopyPath();
    const QString oldPath = offlineCopyPath();
    const bool haveCopy = QFile::exists(copyPath);
    QString copy;
    if (haveCopy && readUtf8(copyPath, copy) && !QFile::exists(oldPath))
        writeUtf8(oldPath, copy);

    QString text;
    if (tooLarge) {
        qWarning() << "Playlist from" << url.toString() << "rejected: larger than"
                   << limit / (1024 * 1024) << "MB";
        offlineCopy = true;
        if (!readUtf8(oldPath, text) || text.isEmpty())
            text = emptySchedule();
        return text;
    }
    if (reply->error() != QNetworkReply::NoError) {
        qWarning() << "Cannot fetch playlist" << url.toString() << reply->errorString();
        offlineCopy = true;
        if (!haveCopy)
            showOffline(widget);
        else
            readUtf8(oldPath, text); // the backup, deliberately, not the last copy
        return text;
    }

    text = QString::fromUtf8(reply->readAll());
    if (text.isEmpty()) {
        offlineCopy = true;
        readUtf8(oldPath, text);
        return text;
    }
    if (text == QLatin1String(unavailableReply))
        text = emptySchedule();
    if (!isPlaylist(text)) {
        const XmlPlaylistParser::Check check = XmlPlaylistParser::inspect(text);
        const QString why = check == XmlPlaylistParser::Check::WellFormed
                                ? QStringLiteral("not a playlist")
                                : XmlPlaylistParser::refusal(check);
        qWarning().noquote()
            << QStringLiteral("Playlist from %1 rejected: %2 (%3 characters, "
                              "status %4); the kept copy is played")
                   .arg(url.toString(), why)
                   .arg(text.size())
                   .arg(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt());
        offlineCopy = true;
        text.clear();
        if (!readUtf8(oldPath, text) || text.isEmpty())
            text = emptySchedule();
        return text;
    }
    writeUtf8(copyPath, text);
    return text;
}
