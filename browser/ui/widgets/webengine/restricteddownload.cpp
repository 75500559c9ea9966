#include "restricteddownload.h"

#include "downloadfolder.h"

#include <QDebug>
#include <QFile>
#include <QFileInfo>
#include <QWebEngineDownloadRequest>

RestrictedDownload::RestrictedDownload(QWebEngineDownloadRequest *download, QObject *parent)
    : QObject(parent)
    , m_download(download)
{
    m_mimeType = download->mimeType().remove(QLatin1Char(';'));
    if (m_mimeType.contains(QLatin1String("application/force-download")))
        m_mimeType.clear();
    // The engine has read the name from the content disposition, or else from the address.
    QString fileName = download->suggestedFileName();
    if (fileName.isEmpty())
        fileName = QFileInfo(download->url().toString()).fileName();
    m_path = DownloadFolder::target(fileName);
    // The same name again replaces the earlier file rather than getting a number.
    QFile::remove(m_path);
    const QFileInfo target(m_path);
    download->setDownloadDirectory(target.path());
    download->setDownloadFileName(target.fileName());
    connect(download, &QWebEngineDownloadRequest::isFinishedChanged, this,
            &RestrictedDownload::onFinished);
    download->accept();
}

QString RestrictedDownload::workingFolder()
{
    return DownloadFolder::path();
}

void RestrictedDownload::onFinished()
{
    if (!m_download || !m_download->isFinished())
        return;
    if (m_download->state() != QWebEngineDownloadRequest::DownloadCompleted)
        qWarning() << "Cannot write download" << m_path << m_download->interruptReasonString();
    m_download->disconnect(this);
    m_download = nullptr;
    emit finished(m_path, m_mimeType);
    deleteLater();
}
