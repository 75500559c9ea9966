#pragma once

#include <QString>

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
};
