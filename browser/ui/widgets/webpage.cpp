#include "webpage.h"

#include "customqwebpage.h"
#include "frozenpages.h"
#include "installpaths.h"
#include "memoryceiling.h"
#include "playlistitem.h"
#include "settings.h"
#include "sqlitecookiejar.h"
#include "statepaths.h"
#include "watchdog.h"

#include <QDebug>
#include <QDir>
#include <QEvent>
#include <QFile>
#include <QFileInfo>
#include <QMouseEvent>
#include <QPointer>

#include <utility>

namespace {
const char templatePath[] = VORSANE_DATA_DIR "/template.html";
const char networkErrorText[] = QT_TRANSLATE_NOOP(
    "Webpage", "Network error: please make sure you are correctly connected to internet.");
const int scrollDelayMs = 5000;
const int scrollTickMs = 50;

// Up to the first NUL byte, like a C string.
QString utf8Text(const QByteArray &data)
{
    return QString::fromUtf8(data.constData());
}

QString withBreaks(const QStringList &lines, int first, int last)
{
    QString paragraph;
    for (int i = first; i <= last; ++i)
        paragraph += lines.at(i) + QLatin1String("<br>");
    return paragraph;
}
} // namespace

Webpage::Webpage(PlaylistItem *item, QWidget *parent)
    : WebView(parent)
    , Runnable(item->duration)
    , m_page(new CustomQWebPage(this))
    , m_settings(Settings::load(false, nullptr))
    , m_url(item->url, QUrl::TolerantMode)
    , m_options(item->parameters)
{
    connect(this, &Webpage::end, notifier(), &RunnableNotifier::end);
    setPage(m_page);
    // Nobody watches a slideshow page to answer its dialogs.
    m_page->setUnattended(true);
    installInputFilter(this);

    m_cookieJar = new SqliteCookieJar(this);
    m_page->setCookieJar(m_cookieJar);
    connect(m_page, &CustomQWebPage::firstResponse, this, &Webpage::errorCheck);
    connect(this, &WebView::rendererGone, this, &Webpage::onRendererGone);
    connect(new MemoryCeiling(this, m_settings->webMemoryLimitMb()), &MemoryCeiling::passed, this,
            [this] {
                // The page had its chance: no reload, the next item.
                m_reloadedAfterRendererLoss = true;
                if (isActive())
                    emit end();
            });

    setScrollBarsVisible(false);

    if (item->url.endsWith(QLatin1String(".txt")))
        displayHTML(item);

    setContextMenuPolicy(Qt::PreventContextMenu);

    setZoomFactor(m_settings->zoomFactor());
    bool autoScrollRequested = false;
    applyOptions(&autoScrollRequested);

    setPageBackground(Qt::black);

    m_autoScroll = m_settings->autoScroll() || autoScrollRequested;
    if (m_autoScroll) {
        connect(&m_delayTimer, &QTimer::timeout, this, &Webpage::startScroll);
        connect(&m_scrollTimer, &QTimer::timeout, this, &Webpage::autoScroll);
        // A coarse timer may fire early; the page must stay still for the whole delay.
        m_delayTimer.setTimerType(Qt::PreciseTimer);
    }
}

Webpage::~Webpage()
{
    // The page goes after this object, with the view; a load it aborts then must no longer reach
    // this half-destroyed object.
    m_page->disconnect(this);
    disconnect(this, nullptr, this, nullptr);
}

void Webpage::applyOptions(bool *autoScrollRequested)
{
    for (const QString &option : std::as_const(m_options)) {
        if (option.contains(QLatin1String("zoom:")))
            setZoomFactor(option.split(QLatin1Char(':')).at(1).toDouble());
        if (option.contains(QLatin1String("x:"))) {
            m_scrollX = option.split(QLatin1Char(':')).at(1).toInt();
            connect(this, &WebView::loadFinished, this, &Webpage::scrollToX, Qt::UniqueConnection);
        }
        if (option.contains(QLatin1String("y:"))) {
            m_scrollY = option.split(QLatin1Char(':')).at(1).toInt();
            connect(this, &WebView::loadFinished, this, &Webpage::scrollToY, Qt::UniqueConnection);
        }
        if (option.contains(QLatin1String("autoscroll")))
            *autoScrollRequested = true;
    }
}

void Webpage::displayHTML(PlaylistItem *item)
{
    QFile textFile(item->url.mid(7));
    QFile templateFile(QString::fromLatin1(templatePath));
    QFile output(StatePaths::renderedTemplate());
    if (!textFile.open(QIODevice::ReadOnly) || !templateFile.open(QIODevice::ReadOnly)
        || !output.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return;

    const QString text = utf8Text(textFile.readAll());
    QString page = utf8Text(templateFile.readAll());
    QString paragraph;
    if (text.startsWith(QLatin1String("title=\""))) {
        const QStringList parts = text.split(QLatin1Char('"'));
        page.replace(QLatin1String("%title"), parts.at(1));
        page.replace(QLatin1String("display:none;"), QString());
        // The rest of the title line and the last piece are not part of the paragraph.
        const QStringList lines = parts.value(2).split(QLatin1Char('\n'));
        if (lines.size() > 2)
            paragraph = withBreaks(lines, 1, lines.size() - 2);
    } else {
        // The piece after the last line feed is dropped, even when it holds text.
        const QStringList lines = text.split(QLatin1Char('\n'));
        if (lines.size() > 1)
            paragraph = withBreaks(lines, 0, lines.size() - 2);
    }
    page.replace(QLatin1String("%paragraph"), paragraph);
    output.write(page.toUtf8());
    output.close();
    textFile.close();
    templateFile.close();

    // A bare path would load as a blank page in this engine; the file URL shows the text.
    m_url = QUrl::fromLocalFile(QFileInfo(output).absoluteFilePath());
}

void Webpage::errorCheck(bool ok, const QString &error)
{
    // Only the first reply that finishes is looked at, whichever resource it belongs to.
    disconnect(m_page, &CustomQWebPage::firstResponse, this, &Webpage::errorCheck);
    if (m_errorChecked)
        return;
    m_errorChecked = true;
    if (ok)
        return;

    qWarning() << "Cannot load page" << m_url.toString() << error;
    if (m_options.contains(QLatin1String("all_webpages"))) {
        setHtml(tr(networkErrorText), QUrl());
        return;
    }
    emit end();
}

void Webpage::startScroll()
{
    m_delayTimer.stop();
    m_scrollTimer.start(scrollTickMs);
    disconnect(&m_delayTimer, &QTimer::timeout, this, &Webpage::startScroll);
}

void Webpage::autoScroll()
{
    QPointer<Webpage> self(this);
    scrollPageBy(0, m_scrollStep, [self](bool moved) {
        if (self && !moved)
            self->m_scrollStep = -self->m_scrollStep;
    });
}

void Webpage::scrollToX()
{
    scrollPageBy(m_scrollX, 0);
    disconnect(this, &WebView::loadFinished, this, &Webpage::scrollToX);
}

void Webpage::scrollToY()
{
    scrollPageBy(0, m_scrollY);
    disconnect(this, &WebView::loadFinished, this, &Webpage::scrollToY);
}

bool Webpage::eventFilter(QObject *watched, QEvent *event)
{
    setMouseTracking(true);
    auto *widget = qobject_cast<QWidget *>(watched);
    switch (event->type()) {
    case QEvent::MouseMove:
    case QEvent::MouseButtonPress:
        mousePressEvent(static_cast<QMouseEvent *>(event));
        if (widget)
            widget->setCursor(Qt::BlankCursor);
        return true;
    case QEvent::KeyPress:
        if (widget)
            widget->setCursor(Qt::BlankCursor);
        return true;
    default:
        return false;
    }
}

void Webpage::mousePressEvent(QMouseEvent *event)
{
    if (event->button() == Qt::RightButton)
        emit rightclick();
}

bool Webpage::stopImpl()
{
    stopWatchingForStalls(m_url);
    // An unfinished load is left to complete on purpose.
    clearEmbedChildren();
    // A script that never ends holds only the page's own renderer; it is ended here, after the
    // page had its time.
    const qint64 pid = renderProcessPid();
    if (pid > 0) {
        const QUrl url = m_url;
        probeRenderer(FrozenPages::AnswerDeadlineMs, [pid, url](bool answered) {
            if (!answered)
                FrozenPages::endSlideshowPage(pid, url);
        });
    }
    return true;
}

void Webpage::prepare()
{
    if (m_prepared)
        return;
    m_prepared = true;
    // Loaded while another item shows: its sound waits for its turn.
    setAudioMuted(true);
    whenShowable([this] {
        m_ready = true;
        emit notifier()->ready();
    });
    startLoad();
}

void Webpage::startLoad()
{
    if (Watchdog::stalledRecently(m_url)) {
        qWarning().noquote() << QStringLiteral("Showing %1 without scripts: they held the "
                                               "program the last time.")
                                    .arg(m_url.toString());
        setScriptsEnabled(false);
    }
    watchForStalls(m_url);
    load(m_url);
}

bool Webpage::startImpl()
{
    // A page prepared ahead is loaded already; any other start loads it afresh.
    if (std::exchange(m_prepared, false))
        setAudioMuted(false);
    else
        startLoad();
    if (m_autoScroll && !m_scrollTimer.isActive())
        m_delayTimer.start(scrollDelayMs);
    return true;
}

void Webpage::onRendererGone()
{
    // Another page's frozen renderer may have been this page's too; one fresh load brings it
    // back.
    if (!isActive() || m_reloadedAfterRendererLoss)
        return;
    m_reloadedAfterRendererLoss = true;
    load(m_url);
}

bool Webpage::onTimeoutImpl()
{
    emit end();
    return true;
}

bool Webpage::pauseImpl()
{
    return true;
}

bool Webpage::resumeImpl()
{
    return true;
}
