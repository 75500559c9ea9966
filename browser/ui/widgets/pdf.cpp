#include "pdf.h"

#include "playlistitem.h"
#include "settings.h"

#include <QDebug>
#include <QFileInfo>
#include <QImage>
#include <QMouseEvent>
#include <QPalette>

#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
#include <poppler-qt6.h>
#else
#include <poppler-qt5.h>
#endif

#include <cmath>
#include <memory>
#include <utility>

namespace {
const double renderDpi = 100.0;
const double maxPagePixels = 4096.0 * 4096.0;

// Poppler's Qt 5 binding hands out plain pointers, its Qt 6 binding unique_ptrs: owned either way.
template<typename T>
std::unique_ptr<T> owned(T *object)
{
    return std::unique_ptr<T>(object);
}

template<typename T>
std::unique_ptr<T> owned(std::unique_ptr<T> object)
{
    return object;
}
} // namespace

PDF::PDF(PlaylistItem *item, QWidget *parent)
    : QLabel(parent)
    , Runnable(item->duration)
    , m_path(item->url.mid(7))
{
    connect(this, &PDF::end, notifier(), &RunnableNotifier::end);
    connect(this, &PDF::pageChanged, notifier(), &RunnableNotifier::pageChanged);
    // A FIFO or a device would block the show in the loader.
    if (QFileInfo(m_path).isFile())
        m_document = owned(Poppler::Document::load(m_path));
    if (!m_document || m_document->isLocked()) {
        qWarning() << "Cannot load PDF" << m_path;
        m_document.reset();
        // Nobody listens yet; the failure shows again when the first page is asked for.
        emit end();
    }
}

PDF::~PDF() = default;

bool PDF::nextPage()
{
    ++m_page;
    if (m_document)
        m_document->setRenderHint(Poppler::Document::TextAntialiasing, true);

    const std::unique_ptr<Poppler::Page> page
        = m_document ? owned(m_document->page(m_page)) : std::unique_ptr<Poppler::Page>();
    if (!page) {
        emit end();
        return false;
    }

    // A page of any size is rendered within a fixed pixel budget.
    const QSizeF points = page->pageSizeF();
    double dpi = renderDpi;
    const double pixels = points.width() * points.height() * (dpi / 72.0) * (dpi / 72.0);
    if (pixels > maxPagePixels)
        dpi *= std::sqrt(maxPagePixels / pixels);
    m_pixmap = QPixmap::fromImage(page->renderToImage(dpi, dpi));
    if (m_pixmap.isNull())
        qWarning() << "Cannot render page" << m_page + 1 << "of" << m_path;

    const QRect area = parentWidget() ? parentWidget()->rect() : rect();
    m_areaWidth = area.width();
    m_areaHeight = area.height();
    m_pageWidth = m_pixmap.width();
    m_pageHeight = m_pixmap.height();

    Settings *settings = Settings::load(false, nullptr);
    QPixmap shown;
    if (m_pixmap.isNull() || m_areaWidth <= 0 || m_areaHeight <= 0) {
        shown = m_pixmap;
    } else if (settings->stretch()) {
        shown = m_pixmap.scaled(area.size(), Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    } else if (settings->resize()) {
        if (m_pageWidth / m_areaWidth <= m_pageHeight / m_areaHeight)
            shown = m_pixmap.scaledToHeight(area.height(), Qt::SmoothTransformation);
        else
            shown = m_pixmap.scaledToWidth(area.width(), Qt::SmoothTransformation);
    } else if (m_pageWidth <= m_areaWidth && m_pageHeight <= m_areaHeight) {
        shown = m_pixmap;
    }
    // Otherwise the page stays empty on purpose: oversized pages are not shrunk, the screen
    // shows black for that page's time.

    setAlignment(Qt::AlignCenter);
    setPixmap(shown);
    setBlackBackground();
    emit pageChanged();
    return true;
}

void PDF::setBlackBackground()
{
    QPalette black = palette();
    black.setBrush(QPalette::All, QPalette::Window, QBrush(Qt::black, Qt::SolidPattern));
    setPalette(black);
    setAutoFillBackground(true);
}

void PDF::mousePressEvent(QMouseEvent *event)
{
    if (event->button() == Qt::RightButton)
        emit rightclick();
}

bool PDF::stopImpl()
{
    return true;
}

void PDF::prepare()
{
    if (m_page < 0)
        m_firstPageReady = nextPage();
}

bool PDF::startImpl()
{
    if (std::exchange(m_firstPageReady, false))
        return true;
    return nextPage();
}

bool PDF::onTimeoutImpl()
{
    // Starting again without a stop shows the following page; the timer keeps running.
    restart(false);
    return false;
}

bool PDF::pauseImpl()
{
    return true;
}

bool PDF::resumeImpl()
{
    return true;
}
