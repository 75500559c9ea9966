#include "playlistparser.h"

#include "flatplaylistparser.h"
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
#include <QSaveFile>
#include <QTextStream>
#include <QTimer>
#include <QUrl>
#include <QWidget>

namespace {

const char unavailableReply[] = "Unavailable for public use";

bool readUtf8(const QString &path, QString &text)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    text = QString::fromUtf8(file.readAll());
    return true;
}

// Written through a temporary file: a power cut while saving must not leave half a playlist.
bool writeUtf8(const QString &path, const QString &text)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        qWarning() << "Cannot write" << path << file.errorString();
        return false;
    }
    file.write(text.toUtf8());
    return file.commit();
}

const int fetchIdleTimeoutMs = 60000;

void showOffline(QWidget *widget)
{
    if (widget)
        widget->hide();
    if (qobject_cast<QApplication *>(QCoreApplication::instance())) {
        QMessageBox::critical(nullptr,
                              QCoreApplication::translate("PlaylistParser", "Network unreachable"),
                              QCoreApplication::translate(
                                  "PlaylistParser",
                                  "Vorsane Kiosk is Offline.\nPlease select local playlist "
                                  "option or connect the system to a network."),
                              QMessageBox::Ok);
    }
    // Queued, so that it also ends an event loop that has not started yet.
    QTimer::singleShot(0, QCoreApplication::instance(), &QCoreApplication::quit);
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
    return QString::fromLocal8Bit(qgetenv("HOME")) + QLatin1String("/.vorsane-kiosk/playlist");
}

QString PlaylistParser::offlineCopyPath()
{
    return QString::fromLocal8Bit(qgetenv("HOME")) + QLatin1String("/.vorsane-kiosk/playlist-old");
}

PlaylistParser *PlaylistParser::get(int defaultDuration, const QUrl &url, QWidget *widget)
{
    QString text;
    if (url.scheme() == QLatin1String("file")) {
        QFile file(url.path(QUrl::FullyDecoded));
        if (file.open(QIODevice::ReadOnly | QIODevice::Text))
            text = QTextStream(&file).readAll();
        else
            qWarning() << "Cannot read playlist" << file.fileName() << file.errorString();
    } else {
        text = fetch(url, widget);
    }

    auto *xml = new XmlPlaylistParser(defaultDuration, text, url.toString());
    if (xml->valid)
        return xml;
    delete xml;
    return new FlatPlaylistParser(defaultDuration, text);
}

QString PlaylistParser::fetch(const QUrl &url, QWidget *widget)
{
    QNetworkAccessManager manager;
    QNetworkRequest request(url);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::NoLessSafeRedirectPolicy);
    // A server that accepts and then stays silent must not hold the show forever; a transfer
    // idle this long fails like any network error and the offline copy is played.
    request.setTransferTimeout(fetchIdleTimeoutMs);
    QNetworkReply *reply = manager.get(request);
    QEventLoop loop;
    connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    if (!reply->isFinished())
        loop.exec();

    const QString copyPath = localCopyPath();
    const QString oldPath = offlineCopyPath();
    const bool haveCopy = QFile::exists(copyPath);
    QString copy;
    if (haveCopy && readUtf8(copyPath, copy) && !QFile::exists(oldPath))
        writeUtf8(oldPath, copy);

    QString text;
    if (reply->error() != QNetworkReply::NoError) {
        qWarning() << "Cannot fetch playlist" << url.toString() << reply->errorString();
        if (!haveCopy)
            showOffline(widget);
        else
            readUtf8(oldPath, text); // the backup, deliberately, not the last copy
        return text;
    }

    text = QString::fromUtf8(reply->readAll());
    if (text.isEmpty()) {
        readUtf8(oldPath, text);
        return text;
    }
    if (text == QLatin1String(unavailableReply))
        text = emptySchedule();
    writeUtf8(copyPath, text);
    return text;
}
