#pragma once

#include <QList>
#include <QStringList>

#include <functional>

// A desktop's own configuration file changed for as long as the show runs. The file as it was
// (or the fact that there was none) is kept in the state folder first, and is put back byte for
// byte by commands that also work from outside the program, after it was killed.
class ConfigFileEdit
{
public:
    // The changed text; empty when the text cannot be understood and is left alone.
    using Edit = std::function<QByteArray(const QByteArray &)>;

    // file: the user's file. defaults: the files the desktop reads when the user has none, the
    // first one found being the base of the change; fallback when none is found.
    ConfigFileEdit(const QString &file, const QStringList &defaults, const QByteArray &fallback,
                   Edit edit);

    QString file() const { return m_file; }
    // Keeps the file as it is now; false when it cannot be kept.
    bool saveBackup();
    // Writes the changed file; false when it is left as it was.
    bool write();
    // Put the file back as it was, and forget the copy.
    QList<QStringList> restoreCommands() const;

private:
    QString m_file;
    QStringList m_defaults;
    QByteArray m_fallback;
    Edit m_edit;
    QString m_backup;
    bool m_existed = false;
};
