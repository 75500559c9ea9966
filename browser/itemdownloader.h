#pragma once

#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkRequest>
#include <QObject>
#include <QString>

#include <memory>

class Cleanser;
class QNetworkReply;
class QTemporaryFile;
class Settings;

// Fetches one address into one cache file unless the cached copy is still valid, and records
// the validation tag "<Last-Modified>:<Content-Length>" beside it.
class ItemDownloader : public QObject
{
    Q_OBJECT

public:
    // How long a revalidation may wait for the server before the cached copy is trusted.
    static constexpr int RevalidationTimeoutMs = 10000;
    // How long a download may go without receiving anything before it counts as failed.
    static constexpr int StallTimeoutMs = 30000;

    ItemDownloader(const QString &url, const QString &dataPath, const QString &tagPath,
                   bool checkOnline, QObject *parent = nullptr);
    ~ItemDownloader() override;

    bool inCache();
    // The server left the revalidation unanswered until the time limit.
    bool revalidationTimedOut() const { return m_revalidationTimedOut; }
    void pauseWhileCheckingSize();

    // Shorter waits for tests; the defaults above apply otherwise.
    static void setTimeouts(int revalidationMs, int stallMs);

public Q_SLOTS:
    void start();
    void checkSizeFileFirst(qint64 received, qint64 total);
    void resumeDownload();
    void notEnoughSpace();
    void onReadyRead();
    void onFinished();
    // Any change of the network accessibility counts as a lost connection, so the new value
    // (a type Qt 5.15 deprecates) is not taken.
    void namChanged();

Q_SIGNALS:
    void finished();
    void sizeIssue();
    void onError();

private:
    bool openBodyFile();
    bool appendToBody(const QByteArray &bytes);
    bool commitBody();
    void writeTag(const QString &tag);
    void failStorage(const QString &reason);
    void failNetwork(const QString &reason);
    void dropReply();
    bool cacheNameFits() const;

    QString m_url;
    QFile m_dataFile;
    QFile m_tagFile;
    QNetworkRequest m_request;
    QNetworkAccessManager *m_nam;
    QNetworkReply *m_reply = nullptr;
    bool m_checkOnline;
    bool m_aborted = false;
    Settings *m_settings;
    Cleanser *m_cleanser;
    // The body goes to a temporary file first: a cut transfer never touches the cached copy.
    std::unique_ptr<QTemporaryFile> m_body;
    // Every outcome is reported exactly once.
    bool m_settled = false;
    bool m_revalidationTimedOut = false;
};
