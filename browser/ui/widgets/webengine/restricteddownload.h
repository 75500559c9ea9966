#pragma once

#include <QObject>
#include <QPointer>
#include <QString>

class QWebEngineDownloadRequest;

// Writes one file that a kiosk page offers into the session's working folder, then reports its
// path and MIME type.
class RestrictedDownload : public QObject
{
    Q_OBJECT

public:
    RestrictedDownload(QWebEngineDownloadRequest *download, QObject *parent);

    // "/tmp/sitedeck-<uid>", the session's working folder.
    static QString workingFolder();

Q_SIGNALS:
    void finished(QString &path, QString &mimeType);

private:
    void onFinished();

    QString m_path;
    QString m_mimeType;
    QPointer<QWebEngineDownloadRequest> m_download;
};
