#pragma once

#include <QCoreApplication>
#include <QJsonArray>
#include <QString>

// The local playlist file as the remote page sees it: read, checked with the program's own
// parsers, and replaced with the previous version kept beside it.
class PlaylistFile
{
    Q_DECLARE_TR_FUNCTIONS(PlaylistFile)

public:
    explicit PlaylistFile(const QString &path);

    QString path() const { return m_path; }
    // "<name>.previous"
    QString previousPath() const;
    QByteArray read() const;

    enum class Outcome { Saved, Refused, NotWritten };

    // An empty text when the text is a playlist the slideshow can play, otherwise why not.
    static QString check(const QByteArray &text);
    // Checks, keeps the current file as the previous one and writes the new text. Each file is
    // written whole or not at all: a failed write leaves the files as they were.
    Outcome replace(const QByteArray &text, QString *error);

    // The loops of a playlist text with their items, for choosing one to go to:
    // [{"loop": n, "name": "...", "items": [{"index": i, "name": "..."}]}].
    static QJsonArray loops(const QByteArray &text);

private:
    QString m_path;
};
