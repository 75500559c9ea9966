#include "lasteditpoller.h"

#include "settings.h"
#include "statepaths.h"
#include "utils.h"

#include <QDebug>
#include <QEventLoop>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QRegularExpression>
#include <QTimer>
#include <QUrl>

namespace {
const char lastEditFormat[] = "yyyy;MM;dd;hh;mm;ss;";
} // namespace

LastEditPoller::LastEditPoller(Settings *settings)
    : m_settings(settings)
{
}

void LastEditPoller::setSettings(Settings *settings)
{
    m_settings = settings;
}

bool LastEditPoller::serverMode() const
{
    return m_settings->serverMode();
}

void LastEditPoller::updateRevalidateFlag()
{
    m_lastEdit = getLastEdit();
    m_timestampFile.setFileName(StatePaths::lastEditStamp());
    if (!m_timestampFile.open(QIODevice::ReadWrite))
        return;
    const QString stamp = m_lastEdit.toString();
    const bool same = QString::fromUtf8(m_timestampFile.readAll()) == stamp;
    m_timestampFile.close();
    m_revalidate = !same;
    if (!same)
        Utils::writeWhole(m_timestampFile.fileName(), stamp.toUtf8());
}

bool LastEditPoller::serverChanged()
{
    const QDateTime edit = getLastEdit();
    return edit.isValid() && edit != m_lastEdit;
}

QDateTime LastEditPoller::getLastEdit()
{
    const QString pages = m_settings->playlistPages();
    const QUrl pagesUrl(pages);
    const QRegularExpressionMatch match
        = QRegularExpression(QStringLiteral(".*/p(/[\\w-]+)/.*")).match(pages);
    if (!match.hasMatch() || !pagesUrl.isValid())
        return QDateTime();
    const bool isPrivate
        = m_settings->playlistUpdateMode() == Settings::UpdateMode::ServerPrivate;
    QUrl request(pagesUrl);
    request.setPath(QStringLiteral("/webapp/db/")
                    + (isPrivate ? QStringLiteral("lastEdit") : QStringLiteral("getEdit"))
                    + match.captured(1) + QStringLiteral("/playlist/"));
    request.setQuery(QString());

    QNetworkAccessManager manager;
    QNetworkReply *reply = manager.get(QNetworkRequest(request));
    QEventLoop wait;
    QObject::connect(reply, &QNetworkReply::finished, &wait, &QEventLoop::quit);
    bool tooLong = false;
    QObject::connect(reply, &QNetworkReply::downloadProgress, reply,
                     [reply, &tooLong](qint64 received, qint64 total) {
                         if (!tooLong && (received > MaxAnswerBytes || total > MaxAnswerBytes)) {
                             tooLong = true;
                             reply->abort();
                         }
                     });
    QTimer::singleShot(LastEditTimeoutMs, &wait, &QEventLoop::quit);
    wait.exec();
    QDateTime edit;
    if (tooLong)
        qWarning() << "Last edit answer from" << request.toString() << "longer than"
                   << MaxAnswerBytes << "bytes; ignored";
    else if (reply->isFinished() && reply->error() == QNetworkReply::NoError)
        edit = QDateTime::fromString(QString::fromUtf8(reply->readAll()).trimmed(),
                                     QString::fromLatin1(lastEditFormat));
    else
        reply->abort();
    reply->deleteLater();
    return edit;
}
