#pragma once

#include <QList>
#include <QMap>
#include <QNetworkCookie>
#include <QObject>
#include <QStringList>
#include <QVariant>

class CommandLineParser;

// The process-wide preference store: built-in defaults overlaid by the INI preference file.
class Settings : public QObject
{
    Q_OBJECT

public:
    static Settings *load(bool reload, const CommandLineParser *parser);

    QVariant get(const QString &key) const;
    void set(const QString &key, int value);
    void set(const QString &key, QString value);
    void set(const QString &key, bool value);
    void set(const QString &key, double value);
    // Without this a string literal would silently pick the bool overload.
    void set(const QString &key, const char *value);

    QString preferencesFilename() const;
    QString playlistFilename() const;
    QString whileListFilename() const;
    QString cookiesFilename() const;
    QString hookDirname() const;

    void populateDefaults();
    void readAutostarted();
    bool autostarted() const { return m_autostarted; }
    void setAutostarted(bool autostarted) { m_autostarted = autostarted; }
    bool versionMissing() const { return m_versionMissing; }
    void dump() const;

    // The data handed over for a complete save.
    void setPlaylistEntries(const QStringList &entries) { m_playlist = entries; }
    void setRestrictionEntries(const QStringList &entries) { m_restrictions = entries; }
    void setCookies(const QList<QNetworkCookie> &cookies) { m_cookies = cookies; }

    bool writePreferences(const QString &path);
    bool writePlaylist(const QString &path);
    bool writeRestrictions(const QString &path);
    bool writeCookies(const QString &path);
    void writeAutostarted();
    void save(bool autostart, const QString &preferences, const QString &playlist,
              const QString &restrictions, const QString &cookies);
    void save(bool autostart, const QString &basePath);
    void save(bool autostart);
    static void enableScreenSaver(bool enable);

    static Settings *m_settings;

private:
    explicit Settings(const CommandLineParser *parser);
    void applyVersionReset();

    QStringList m_playlist;
    QStringList m_restrictions;
    QList<QNetworkCookie> m_cookies;
    const CommandLineParser *m_parser;
    QMap<QString, QVariant> m_values;
    bool m_autostarted = false;
    bool m_versionMissing = false;
};
