#pragma once

#include <QString>

// Locations of the configuration files, derived from one base path unless given one by one.
class CommandLineParser
{
public:
    CommandLineParser(int argc, char **argv);

    QString getPreferenceFilename() const;
    QString getPlaylistFilename() const;
    QString getWhiteListFilename() const;
    QString getCookieFilename() const;
    QString getHookDirname() const;

    bool helpRequested() const { return m_help; }
    void displayHelp() const;

private:
    QString orDefault(const QString &explicitPath, const char *suffix) const;

    QString m_preference;
    QString m_playlist;
    QString m_whiteList;
    QString m_cookie;
    QString m_hooks;
    QString m_basePath;
    QString m_programName;
    bool m_help = false;
};
