#pragma once

#include <QString>
#include <QStringList>

#include <string>

// Small stateless helpers shared by several subsystems.
class Utils
{
public:
    static bool validateAdminPassword(QString typed);
    static qint64 availableDiskSpace();
    static qint64 totalDiskSpace();
    static char genChar();
    static std::string genString(quint32 length);
    static QString getIconTheme();
    // Runs a child program and waits for it up to 30 s. Returns its exit code, or -1 when it
    // could not start, crashed or did not end in time; its standard output goes to output.
    static int runAndWait(const QString &program, const QStringList &arguments,
                          QByteArray *output = nullptr);
    // Replaces a file whole or not at all, through a temporary file renamed over it: a full
    // disk or a power cut leaves the previous file. False, with a log line naming the file and
    // the reason, when it cannot be written.
    static bool writeWhole(const QString &path, const QByteArray &bytes);
};
