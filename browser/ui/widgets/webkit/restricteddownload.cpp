#include "restricteddownload.h"

#include "downloadfolder.h"

#include <QDebug>
#include <QFileInfo>
#include <QNetworkReply>

RestrictedDownload::RestrictedDownload(QNetworkReply *reply, QObject *parent)
    : QObject(parent)
    , m_reply(reply)
{
    QString fileName;
    const QList<QNetworkReply::RawHeaderPair> headers = reply->rawHeaderPairs();
    for (const QNetworkReply::RawHeaderPair &header : headers) {
        const QByteArray name = header.first.toLower();
        if (name == "content-type") {
            m_mimeType = QString::fromLatin1(header.second).remove(QLatin1Char(';'));
            if (m_mimeType.contains(QLatin1String("application/force-download")))
                m_mimeType.clear();
        } else if (name == "content-disposition") {
            const QStringList parts = QString::fromUtf8(header.second).split(QLatin1Char(';'));
            for (QString part : parts) {
                part = part.trimmed();
                if (part.startsWith(QLatin1String("filename=")))
                    fileName = part.remove(QLatin1String("filename="))
                                   .remove(QLatin1Char('\''))
                                   .remove(QLatin1Char('"'));
            }
        }
    }
    if (fileName.isEmpty())
        fileName = QFileInfo(reply->url().toString()).fileName();
    m_path = DownloadFolder::target(fileName);
    m_file.setFileName(m_path);
    if (!m_file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        qWarning() << "Cannot write download" << m_path << m_file.errorString();

    connect(reply, &QNetworkReply::finished, this, &RestrictedDownload::onFinished);
    connect(reply, &QNetworkReply::readyRead, this, &RestrictedDownload::onReadyRead);
    // The page may hand over a reply that already holds data or has even finished.
    if (reply->bytesAvailable() > 0)
        onReadyRead();
    if (reply->isFinished())
        QMetaObject::invokeMethod(this, &RestrictedDownload::onFinished, Qt::QueuedConnection);
}

QString RestrictedDownload::workingFolder()
{
    return DownloadFolder::path();
}

void RestrictedDownload::onReadyRead()
{
    if (m_reply && m_file.isOpen())
        m_file.write(m_reply->readAll());
}

void RestrictedDownload::onFinished()
{
    if (!m_reply)
        return;
    onReadyRead();
    m_file.close();
    m_reply->disconnect(this);
    m_reply->deleteLater();
    m_reply = nullptr;
    emit finished(m_path, m_mimeType);
    deleteLater();
}
