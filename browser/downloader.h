#pragma once

#include <QObject>
#include <QString>

#include <memory>

class ItemDownloader;
class PlaylistLoop;

// Walks the items of one loop strictly one after another, fetches every remote item into the
// cache and points the item at its cache file. Deletes itself once the walk has ended.
class Downloader : public QObject
{
    Q_OBJECT

public:
    Downloader(PlaylistLoop *loop, bool checkOnline, QObject *parent = nullptr);
    // Keeps the loop alive for the whole walk, even if its owner drops it meanwhile.
    Downloader(const std::shared_ptr<PlaylistLoop> &loop, bool checkOnline,
               QObject *parent = nullptr);
    ~Downloader() override;

    // The loop comes from the kept offline copy: a walk that succeeds leaves "playlist-old".
    void setKeepPrevious(bool keep) { m_keepPrevious = keep; }

    // The cache file name of an address: base64 of its UTF-8 bytes, "/" turned into "-".
    static QString cacheName(const QString &address);
    // The address a cache file was fetched from; the url itself when it is no cache file.
    static QString originalAddress(const QString &url);

public Q_SLOTS:
    void start();
    void downloadNext();
    void replaceFile();
    void addError();

Q_SIGNALS:
    void downloadDone();
    void downloadNotDone();

private:
    bool startItem();
    void putNothingToDisplay();
    void endWalk();
    void restorePreviousPlaylist();

    PlaylistLoop *m_loop;
    std::shared_ptr<PlaylistLoop> m_sharedLoop;
    QString m_baseUrl;
    QString m_root;
    QString m_dataDir;
    QString m_tagDir;
    bool m_checkOnline;
    ItemDownloader *m_itemDownloader = nullptr;
    int m_index = -1;
    int m_errors = 0;
    bool m_ended = false;
    bool m_keepPrevious = false;
};
