#include "soundmute.h"

#include "utils.h"

#include <QDebug>

namespace {
const QStringList channels{QStringLiteral("PCM")};

QStringList amixerArguments(const QString &channel, bool mute)
{
    return {QStringLiteral("set"), channel,
            mute ? QStringLiteral("mute") : QStringLiteral("unmute")};
}
} // namespace

SoundMute::SoundMute(bool mute)
    : DesktopTakeover(QStringLiteral("Sound"))
    , m_mute(mute)
{
    takeOver();
}

SoundMute::~SoundMute()
{
    giveBack();
}

bool SoundMute::takeOverImpl()
{
    for (const QString &channel : channels) {
        if (m_mute)
            qDebug() << "Disabling sound on channel:" << channel;
        else
            qDebug() << "Enabling sound on channel:" << channel;
        Utils::runAndWait(QStringLiteral("amixer"), amixerArguments(channel, m_mute));
    }
    return m_mute;
}

void SoundMute::giveBackImpl()
{
    for (const QString &channel : channels) {
        Utils::runAndWait(QStringLiteral("amixer"), amixerArguments(channel, false));
        qDebug() << "Sound restored on channel:" << channel;
    }
}

QList<QStringList> SoundMute::giveBackCommands() const
{
    QList<QStringList> commands;
    for (const QString &channel : channels)
        commands << QStringList(QStringLiteral("amixer")) + amixerArguments(channel, false);
    return commands;
}
