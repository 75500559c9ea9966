#pragma once

#include <QDir>
#include <QObject>
#include <QSet>
#include <QStringList>

class Settings;

// Keeps the download cache within the free disk space. A cache entry is the pair of files of one
// name in the tag folder and the data folder.
class Cleanser : public QObject
{
    Q_OBJECT

public:
    // Free space the periodic check keeps for the system, in bytes.
    static constexpr qint64 MinimumFreeSpace = 100LL * 1024 * 1024;
    // Nothing stored within this many seconds is ever deleted by the cleanser.
    static constexpr qint64 ProtectedAgeSecs = 24 * 60 * 60;

    Cleanser(Settings *settings, QObject *parent = nullptr);

    void cleanUntilFree(qint64 available, qint64 needed);

public Q_SLOTS:
    void checkThat(qint64 size);
    void check();
    void clean();

Q_SIGNALS:
    void ok();
    void notOk();

private:
    bool isProtected(const QString &path) const;
    bool removeEntry(const QString &name);
    void listEntries();
    QSet<QString> namesInUse() const;

    Settings *m_settings;
    QDir m_tagDir;
    QDir m_dataDir;
    QStringList m_entries;
};
