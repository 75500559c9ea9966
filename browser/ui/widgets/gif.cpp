#include "gif.h"

#include "image.h"
#include "playlistitem.h"
#include "settings.h"

#include <QDebug>
#include <QFileInfo>
#include <QImageReader>
#include <QMouseEvent>
#include <QMovie>

Gif::Gif(PlaylistItem *item, QWidget *parent)
    : QLabel(parent)
    , Runnable(item->duration)
    , m_location(item->url)
{
    connect(this, &Gif::end, notifier(), &RunnableNotifier::end);
    setBlackBackground();
    setAlignment(Qt::AlignCenter);
    if (Settings::load(false, nullptr)->stretch())
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
    const QString path = m_location.mid(7);
    // A FIFO or a device would block the show as soon as the movie looks at it.
    if (!path.startsWith(QLatin1Char(':')) && !QFileInfo(path).isFile()) {
        qWarning() << "Cannot show animation" << path << ": not a readable regular file";
        return;
    }
    QImageReader probe(path);
    QString tooLarge;
    if (!Image::fitsDecodeBudget(probe, &tooLarge)) {
        qWarning() << "Cannot show animation" << path << ":" << tooLarge;
        return;
    }
    m_movie = new QMovie(path, QByteArray(), nullptr);
    // A frame that cannot be read (a cut file) stops the animation where it is.
    connect(m_movie.data(), &QMovie::error, this, [this, path](QImageReader::ImageReaderError) {
        qWarning() << "Cannot show animation" << path << ":"
                   << (m_movie ? m_movie->lastErrorString() : QString());
        if (m_movie)
            m_movie->stop();
    });
    setMovie(m_movie);
}

void Gif::prepare()
{
    // A movie that has not started shows nothing: its first frame is read ahead.
    if (m_movie && m_movie->isValid())
        m_movie->jumpToFrame(0);
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
    // An animation that cannot be shown leaves the screen black for its time, as the show
    // expects of it.
    if (!m_movie)
        return true;
    if (!m_movie->isValid()) {
        qWarning() << "Cannot show animation" << m_location.mid(7) << ":"
                   << m_movie->lastErrorString();
        return true;
    }
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
