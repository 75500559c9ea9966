#include "video.h"

#include "externalvideoimpl.h"
#include "playlistitem.h"
#include "settings.h"
#include "vlcvideoimpl.h"

#include <QDebug>
#include <QGuiApplication>
#include <QMouseEvent>
#include <QPalette>
#include <QScreen>
#include <QStandardPaths>

Video::Video(PlaylistItem *item, QWidget *parent)
    : QWidget(parent)
    , Runnable(item->duration)
{
    connect(this, &Video::end, notifier(), &RunnableNotifier::end);
    Settings *settings = Settings::load(false, nullptr);
    if (!settings->get(QStringLiteral("slideshow/external_player")).toBool()) {
        m_impl = std::make_unique<VLCVideoImpl>(this, item);
        return;
    }
    // Current Raspberry Pi OS no longer ships omxplayer: a player that is not there would skip
    // every video, so the built-in one plays it instead.
    if (playsInProcess()) {
        m_missingPlayer = externalProgram();
        m_impl = std::make_unique<VLCVideoImpl>(this, item);
        return;
    }
    const QString cmd = settings->get(QStringLiteral("slideshow/external_player_cmd")).toString();
    QStringList command;
    if (cmd.isEmpty()) {
        command = defaultPlayerCommand();
    } else {
        qDebug() << "Using external command:" << cmd;
        command = cmd.split(QLatin1Char(' '));
    }
    m_impl = std::make_unique<ExternalVideoImpl>(this, command, item);
}

Video::~Video() = default;

QString Video::externalProgram()
{
    const QString cmd = Settings::load(false, nullptr)
                            ->get(QStringLiteral("slideshow/external_player_cmd"))
                            .toString();
    return cmd.isEmpty() ? QStringLiteral("omxplayer") : cmd.section(QLatin1Char(' '), 0, 0);
}

bool Video::playsInProcess()
{
    return !Settings::load(false, nullptr)
                ->get(QStringLiteral("slideshow/external_player"))
                .toBool()
           || QStandardPaths::findExecutable(externalProgram()).isEmpty();
}

QStringList Video::defaultPlayerCommand() const
{
    Settings *settings = Settings::load(false, nullptr);
    QStringList command{QStringLiteral("omxplayer")};
    if (settings->mute())
        command << QStringLiteral("--vol") << QStringLiteral("-10000");

    const bool fullscreen = settings->fullscreen();
    if (fullscreen && settings->stretch()) {
        const QScreen *screen = QGuiApplication::primaryScreen();
        const QRect geometry = screen ? screen->geometry() : QRect();
        command << QStringLiteral("--win")
                << QStringLiteral("0 0 %1 %2").arg(geometry.width()).arg(geometry.height());
    } else if (fullscreen) {
        command << QStringLiteral("-b");
    } else if (settings->fixedScreen()) {
        command
            << QStringLiteral("--win")
            << QStringLiteral("0 0 %1 %2").arg(settings->fixedWidth()).arg(settings->fixedHeight());
    } else {
        const QRect area = rect();
        command << QStringLiteral("--win")
                << QStringLiteral("%1 %2 %3 %4")
                       .arg(area.left())
                       .arg(area.top())
                       .arg(area.right() + 1)
                       .arg(area.bottom() + 1);
    }
    command << QStringLiteral("%f");
    return command;
}

void Video::setBlackBackground()
{
    QPalette black = palette();
    black.setBrush(QPalette::All, QPalette::Window, QBrush(Qt::black, Qt::SolidPattern));
    setPalette(black);
    setAutoFillBackground(true);
}

void Video::prepare()
{
    m_impl->prepare();
}

bool Video::isReady() const
{
    return m_impl->isReady();
}

void Video::hideOutput()
{
    m_impl->hideOutput();
}

void Video::mousePressEvent(QMouseEvent *event)
{
    if (event->button() == Qt::RightButton)
        emit rightclick();
}

bool Video::stopImpl()
{
    return m_impl->stop();
}

bool Video::startImpl()
{
    // Said when the video plays, not when it is built: one opened ahead and built again at its
    // turn says it once.
    if (!m_missingPlayer.isEmpty())
        qWarning() << "Video player not installed, playing with the built-in player:"
                   << m_missingPlayer;
    return m_impl->start();
}

bool Video::onTimeoutImpl()
{
    return m_impl->onTimeout();
}

bool Video::pauseImpl()
{
    m_impl->pause();
    return true;
}

bool Video::resumeImpl()
{
    m_impl->resume();
    return true;
}
