#pragma once

#include <QList>
#include <QString>

// The drag-and-drop folder the slideshow plays first: upload names are cleaned, uploads are
// written aside in a staging folder on the same file system and renamed in when complete, so
// the slideshow never sees a partial file.
class DropFolder
{
public:
    struct Entry
    {
        QString name;
        qint64 size;
    };

    // Kept free on the disk after any upload, for the kiosk's cache and logs.
    static constexpr qint64 SpaceMargin = 64 * 1024 * 1024;

    // The drop folder of the given home directory's state folder.
    explicit DropFolder(const QString &home);

    QString path() const { return m_path; }
    bool ensureExists() const;
    // Removes what an interrupted run left in the staging folder.
    void clearStaging() const;

    // A bare file name: no folders, no "..", no leading dot, no control characters.
    static QString cleanName(const QString &name);
    // Pictures, videos, PDFs and HTML or text documents: what the slideshow can show.
    static bool isAccepted(const QString &name);
    // Whether bytes more can be written and still leave the margin free.
    bool hasRoomFor(qint64 bytes) const;

    QList<Entry> list() const;
    // A staging file path for a new upload.
    QString stagingFile() const;
    // Moves a complete staged file in under the cleaned name, without replacing an existing
    // file ("name (2).ext" instead). Returns the final name, or an empty text on failure.
    QString commit(const QString &stagedFile, const QString &cleanedName) const;
    bool contains(const QString &name) const;

private:
    QString m_path;
    QString m_staging;
};
