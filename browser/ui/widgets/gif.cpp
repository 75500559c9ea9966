#include "gif.h"

#include "playlistitem.h"
#include "settings.h"

#include <QMouseEvent>
#include <QMovie>

Gif::Gif(PlaylistItem *item, QWidget *parent)
    : QLabel(parent)
    , Runnable(item->duration)
    , m_location(item->url)
{
    setBlackBackground();
    setAlignment(Qt::AlignCenter);
    if (Settings::load(false, nullptr)->get(QStringLiteral("slideshow/stretch")).toBool())
        setScaledContents(true);
    displayGif();
}

Gif::~Gif()
{
    delete m_movie.data();
}

void Gif::setBlackBackground()
{
    QPalette palette = this->palette();
    palette.setBrush(QPalette::All, QPalette::Window, QBrush(Qt::black));
    setPalette(palette);
    setAutoFillBackground(true);
}

void Gif::displayGif()
{
    delete m_movie.data();
    m_movie = new QMovie(m_location.mid(7), QByteArray(), nullptr);
    setMovie(m_movie);
}

bool Gif::stopImpl()
{
    if (QMovie *movie = m_movie.data()) {
        // Forgotten at once so that a restart before the deletion builds a fresh movie.
        m_movie.clear();
        movie->stop();
        movie->deleteLater();
    }
    return true;
}

bool Gif::startImpl()
{
    // A movie released by an earlier stop is built anew for a restart.
    if (!m_movie)
        displayGif();
    m_movie->start();
    return true;
}

bool Gif::onTimeoutImpl()
{
    if (m_movie)
        m_movie->stop();
    Q_EMIT end();
    return true;
}

bool Gif::pauseImpl()
{
    return true;
}

bool Gif::resumeImpl()
{
    return true;
}

void Gif::mousePressEvent(QMouseEvent *event)
{
    if (event->button() == Qt::RightButton)
        Q_EMIT rightclick();
    event->accept();
}
