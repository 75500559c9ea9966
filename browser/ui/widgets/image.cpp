#include "image.h"

#include "playlistitem.h"
#include "settings.h"

#include <QDebug>
#include <QFileInfo>
#include <QGuiApplication>
#include <QImageReader>
#include <QMouseEvent>
#include <QPainter>
#include <QScreen>
#include <QScrollBar>

#include <algorithm>

namespace {
const int scrollDelayMs = 500;
const int scrollTickMs = 50;

QRect defaultScreenGeometry()
{
    const QScreen *screen = QGuiApplication::primaryScreen();
    return screen ? screen->geometry() : QRect();
}

// Where the picture starts along one axis: centred when it fits, else moved back by the offset.
int placement(int pixmapExtent, int widgetExtent, int offset)
{
    if (pixmapExtent <= widgetExtent)
        return (widgetExtent - pixmapExtent) / 2;
    return -std::min(offset, pixmapExtent - widgetExtent);
}
} // namespace

bool Image::fitsDecodeBudget(QImageReader &reader, QString *why)
{
    const QSize size = reader.size();
    if (!size.isValid())
        return true;
    // JPEG decodes straight to a fraction of its size; every other reader holds the whole
    // picture once, at the depth it decodes to.
    if (reader.supportsOption(QImageIOHandler::ScaledSize) && reader.format() == "jpeg")
        return true;
    int depth = QImage::toPixelFormat(reader.imageFormat()).bitsPerPixel();
    if (reader.imageFormat() == QImage::Format_Invalid || depth <= 0)
        depth = 32;
    const qint64 bytes = qint64(size.width()) * size.height() * depth / 8;
    if (bytes <= qint64(MaxDecodeMegabytes) * 1024 * 1024)
        return true;
    if (why)
        *why = QStringLiteral("%1x%2 pixels would take %3 MB to decode, more than %4 MB")
                   .arg(size.width())
                   .arg(size.height())
                   .arg(bytes / (1024 * 1024))
                   .arg(MaxDecodeMegabytes);
    return false;
}

QImage Image::readPicture(const QString &path, const QSize &area)
{
    // Qt resources are not files; anything else must be a regular file: a FIFO or a device
    // would block the show.
    if (!path.startsWith(QLatin1Char(':')) && !QFileInfo(path).isFile()) {
        qWarning() << "Cannot show picture" << path << ": not a readable regular file";
        return QImage();
    }
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    // Qt 6 refuses decodes above a limit of its own, lower than this player's budget, which
    // fitsDecodeBudget() keeps.
    QImageReader::setAllocationLimit(MaxDecodeMegabytes);
#endif
    QImageReader reader(path);
    QString tooLarge;
    if (!fitsDecodeBudget(reader, &tooLarge)) {
        qWarning() << "Cannot show picture" << path << ":" << tooLarge;
        return QImage();
    }
    // Decoded no larger than it can be shown: large enough to cover the area whatever the
    // fitting mode, so the fitting below loses nothing. Readers that decode at a smaller scale
    // (JPEG) never hold the full picture; the others are held to the decode budget.
    const QSize size = reader.size();
    if (size.isValid() && area.isValid() && !area.isEmpty()
        && (size.width() > area.width() || size.height() > area.height())) {
        reader.setScaledSize(size.scaled(area, Qt::KeepAspectRatioByExpanding));
    }
    const QImage image = reader.read();
    if (image.isNull())
        qWarning() << "Cannot show picture" << path << ":" << reader.errorString();
    return image;
}

Image::Image(PlaylistItem *item, QWidget *parent)
    : QLabel(parent)
    , Runnable(item->duration)
    , m_location(item->url)
    , m_scrollArea(this)
{
    connect(this, &Image::end, notifier(), &RunnableNotifier::end);
    setAlignment(Qt::AlignCenter);
    setBlackBackground();
    m_scrollArea.hide();

    // Without a parent (or with an empty one) there is no area to fit; the screen is the best
    // guess.
    QRect area = parent ? parent->geometry() : QRect();
    if (area.isEmpty())
        area = defaultScreenGeometry();
    m_areaWidth = area.width();
    m_areaHeight = area.height();

    m_forward = true;
    buildPixmap();
}

void Image::setBlackBackground()
{
    QPalette palette = this->palette();
    palette.setBrush(QPalette::All, QPalette::Window, QBrush(Qt::black));
    setPalette(palette);
    setAutoFillBackground(true);
}

void Image::buildPixmap()
{
    QPixmap picture = QPixmap::fromImage(readPicture(m_location.mid(7), QSize(m_areaWidth, m_areaHeight)));
    if (picture.isNull()) {
        setPixmap(picture);
        return;
    }

    const float areaWidth = m_areaWidth;
    const float areaHeight = m_areaHeight;
    const int width = picture.width();
    const int height = picture.height();
    const QSize area(static_cast<int>(areaWidth), static_cast<int>(areaHeight));
    qDebug() << areaWidth << areaHeight << width << height;

    Settings *settings = Settings::load(false, nullptr);
    const bool resize = settings->resize();
    const bool autoScroll = settings->autoScroll();
    const bool fits = width <= areaWidth && height <= areaHeight;

    if (resize && !autoScroll) {
        picture = picture.scaled(area, Qt::KeepAspectRatio, Qt::SmoothTransformation);
    } else if (!autoScroll) {
        if (settings->stretch())
            picture = picture.scaled(area, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
        else if (!fits)
            picture = picture.scaled(area, Qt::KeepAspectRatio, Qt::SmoothTransformation);
    } else if (!fits) {
        connect(&m_delayTimer, &QTimer::timeout, this, &Image::startScroll);
        m_delayTimer.start(scrollDelayMs);

        const float pictureRatio = float(width) / float(height);
        const float areaRatio = areaWidth / areaHeight;
        qDebug() << pictureRatio << areaRatio;
        const QRect screen = defaultScreenGeometry();
        QScrollBar *bar;
        int extent;
        int areaExtent;
        if (areaRatio <= pictureRatio) {
            picture = picture.scaledToHeight(int(areaHeight), Qt::SmoothTransformation);
            m_screenExtent = screen.width();
            connect(&m_scrollTimer, &QTimer::timeout, this, &Image::autoScrollRight);
            bar = m_scrollArea.horizontalScrollBar();
            extent = picture.width();
            areaExtent = int(areaWidth);
        } else {
            picture = picture.scaledToWidth(int(areaWidth), Qt::SmoothTransformation);
            m_screenExtent = screen.height();
            connect(&m_scrollTimer, &QTimer::timeout, this, &Image::autoScrollDown);
            bar = m_scrollArea.verticalScrollBar();
            extent = picture.height();
            areaExtent = int(areaHeight);
        }
        // The viewer stacks this label itself, so the label cannot sit inside the scroll area:
        // the area only keeps the scroll position and paintEvent() shows the part it selects.
        // The bar must be able to reach the turning point, which is measured on the screen.
        bar->setRange(0, std::max(0, extent - std::min(areaExtent, m_screenExtent)));
        connect(bar, &QScrollBar::valueChanged, this, qOverload<>(&QWidget::update));
        m_pixmap = picture;
        m_scrolls = true;
        // A label holding a picture larger than the screen would make the window grow with it.
        return;
    }

    m_pixmap = picture;
    setPixmap(m_pixmap);
}

void Image::startScroll()
{
    m_delayTimer.stop();
    m_scrollTimer.start(scrollTickMs);
}

void Image::autoScrollDown()
{
    scrollStep(m_scrollArea.verticalScrollBar(), m_pixmap.height());
}

void Image::autoScrollRight()
{
    scrollStep(m_scrollArea.horizontalScrollBar(), m_pixmap.width());
}

void Image::scrollStep(QScrollBar *bar, int pixmapExtent)
{
    const int position = m_forward ? bar->value() + 1 : bar->value() - 1;
    bar->setValue(position);
    if (position >= pixmapExtent - m_screenExtent)
        m_forward = false;
    else if (position <= 0)
        m_forward = true;
}

bool Image::stopImpl()
{
    // The delay timer too: a picture stopped within its first half second must not start moving.
    m_delayTimer.stop();
    m_scrollTimer.stop();
    return true;
}

bool Image::startImpl()
{
    if (m_pixmap.isNull()) {
        m_delayTimer.stop();
        Q_EMIT end();
        return false;
    }
    if (m_scrolls && !m_delayTimer.isActive() && !m_scrollTimer.isActive())
        m_delayTimer.start(scrollDelayMs);
    return true;
}

bool Image::onTimeoutImpl()
{
    qDebug() << "onTimeoutImpl";
    m_delayTimer.stop();
    m_scrollTimer.stop();
    Q_EMIT end();
    return true;
}

bool Image::pauseImpl()
{
    return true;
}

bool Image::resumeImpl()
{
    return true;
}

void Image::mousePressEvent(QMouseEvent *event)
{
    if (event->button() == Qt::RightButton)
        Q_EMIT rightclick();
    event->accept();
}

void Image::paintEvent(QPaintEvent *event)
{
    if (!m_scrolls) {
        QLabel::paintEvent(event);
        return;
    }
    QPainter painter(this);
    const int x = placement(m_pixmap.width(), width(), m_scrollArea.horizontalScrollBar()->value());
    const int y = placement(m_pixmap.height(), height(), m_scrollArea.verticalScrollBar()->value());
    painter.drawPixmap(x, y, m_pixmap);
}
