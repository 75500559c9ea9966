#pragma once

#include <QObject>

class Settings;

// Installed on slideshow content: routes clicks to the viewer, hides the pointer on typing and
// swallows presses while locked (the first second after each content change).
class PlaylistEventFilter : public QObject
{
    Q_OBJECT

public:
    explicit PlaylistEventFilter(Settings *settings, QObject *parent = nullptr);

    bool locked() const { return m_locked; }
    void setLocked(bool locked) { m_locked = locked; }

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    Settings *m_settings;
    bool m_locked = true;
};
