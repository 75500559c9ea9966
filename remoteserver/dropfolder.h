#pragma once

#include <QList>
#include <QString>

#include <memory>

// The drag-and-drop folder the slideshow plays first: upload names are cleaned, uploads are
// written aside in a staging folder on the same file system and renamed in when complete, so
// the slideshow never sees a partial file.
class DropFolder
{
    struct Ledger;

public:
    // Room held on the disk for an upload in progress: others count it as taken until it ends,
    // less what the upload has written so far, which the disk already counts.
    class Reservation
    {
    public:
        Reservation() = default;
        Reservation(Reservation &&other) noexcept;
        Reservation &operator=(Reservation &&other) noexcept;
        ~Reservation();

        bool isValid() const { return m_ledger != nullptr; }
        // That many more bytes of the upload are on the disk.
        void written(qint64 bytes);

    private:
        friend class DropFolder;
        std::shared_ptr<Ledger> m_ledger;
        quint64 m_id = 0;
    };

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
    // Room for bytes more that still leaves the margin free beside the uploads in progress;
    // invalid when there is none.
    Reservation reserve(qint64 bytes) const;

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
    std::shared_ptr<Ledger> m_ledger;
};
