#pragma once

#include <QFile>
#include <QObject>
#include <QString>

class QNetworkReply;

// Writes one file that a kiosk page offers into the session's working folder, then reports its
// path and MIME type.
class RestrictedDownload : public QObject
{
    Q_OBJECT

public:
    RestrictedDownload(QNetworkReply *reply, QObject *parent);

    // "/tmp/sitedeck-<uid>", the session's working folder.
    static QString workingFolder();

Q_SIGNALS:
    void finished(QString &path, QString &mimeType);

private:
    void onReadyRead();
    void onFinished();

    QString m_path;
    QString m_mimeType;
    QFile m_file;
    QNetworkReply *m_reply;
};
