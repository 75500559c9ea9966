#pragma once

#include <QDateTime>
#include <QFile>

class Settings;

// Asks the content server when its playlist was last edited. A set-up trusts the cache without
// asking the server about each item when the edit time is the one stored by the set-up before;
// the periodic poll restarts the show when the server reports a new one.
class LastEditPoller
{
public:
    // A content server that does not answer in time is treated as down.
    static constexpr int LastEditTimeoutMs = 30000;

    explicit LastEditPoller(Settings *settings);

    void setSettings(Settings *settings);
    // Whether the playlist comes from the content server, which answers the question.
    bool serverMode() const;
    // The edit time the server reports now; invalid when it cannot be had.
    QDateTime getLastEdit();
    // At a set-up: fetches the edit time and compares it with the stored one.
    void updateRevalidateFlag();
    // Whether cached items are to be checked with the server.
    bool revalidate() const { return m_revalidate; }
    // The periodic question: has the server been edited since the last set-up?
    bool serverChanged();

private:
    Settings *m_settings;
    QDateTime m_lastEdit;
    QFile m_timestampFile;
    bool m_revalidate = true;
};
