#pragma once

#include "desktoptakeover.h"

// Sets the sound channels as the show wants them. Only a mute is taken from the desktop: it
// is given back by unmuting, which is what a desktop expects anyway.
class SoundMute final : public DesktopTakeover
{
public:
    explicit SoundMute(bool mute);
    ~SoundMute() override;

protected:
    bool takeOverImpl() override;
    void giveBackImpl() override;
    QList<QStringList> giveBackCommands() const override;

private:
    bool m_mute;
};
