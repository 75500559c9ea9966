#include "webview.h"

#include "watchdog.h"

#include <QAction>
#include <QColor>
#include <QEvent>
#include <QCoreApplication>
#include <QPalette>
#include <QTimer>
#include <QWebElement>
#include <QWebFrame>
#include <QWebHistory>
#include <QWebSettings>

#include <memory>

namespace {
QWebPage::WebAction webAction(WebView::Action action)
{
    switch (action) {
    case WebView::Action::Back:
        return QWebPage::Back;
    case WebView::Action::Forward:
        return QWebPage::Forward;
    case WebView::Action::Stop:
        return QWebPage::Stop;
    case WebView::Action::Reload:
        break;
    }
    return QWebPage::Reload;
}
} // namespace

WebView::WebView(QWidget *parent)
    : QWebView(parent)
{
    connect(this, &QWebView::loadFinished, this, [this] {
        if (m_audioMuted)
            applyAudioMuted();
    });
}

WebView::~WebView() = default;

QAction *WebView::navigationAction(Action action) const
{
    return pageAction(webAction(action));
}

bool WebView::canGoBack() const
{
    return history()->canGoBack();
}

bool WebView::canGoForward() const
{
    return history()->canGoForward();
}

QUrl WebView::requestedUrl() const
{
    return page()->mainFrame()->requestedUrl();
}

void WebView::scrollPageBy(int dx, int dy, const std::function<void(bool)> &done)
{
    QWebFrame *frame = page()->mainFrame();
    const QPoint before = frame->scrollPosition();
    frame->scroll(dx, dy);
    if (done)
        done(frame->scrollPosition() != before);
}

void WebView::clearEmbedChildren()
{
    const QWebElementCollection embeds
        = page()->mainFrame()->findAllElements(QStringLiteral("embed"));
    for (QWebElement embed : embeds)
        embed.removeAllChildren();
}

void WebView::removeEmbedElements()
{
    const QWebElementCollection embeds
        = page()->mainFrame()->findAllElements(QStringLiteral("embed"));
    for (QWebElement embed : embeds)
        embed.removeFromDocument();
}

void WebView::setElementText(const QString &id, const QString &text)
{
    QWebElement element = page()->mainFrame()->findFirstElement(QLatin1Char('#') + id);
    element.setPlainText(text);
}

void WebView::runScript(const QString &source, const std::function<void(const QVariant &)> &done)
{
    const QVariant result = page()->mainFrame()->evaluateJavaScript(source);
    if (done)
        done(result);
}

void WebView::whenShowable(const std::function<void()> &done)
{
    // The page is painted in this process, from its layout, whenever the view is.
    auto connection = std::make_shared<QMetaObject::Connection>();
    *connection = connect(this, &QWebView::loadFinished, this, [connection, done] {
        QObject::disconnect(*connection);
        done();
    });
}

void WebView::setAudioMuted(bool muted)
{
    m_audioMuted = muted;
    applyAudioMuted();
}

void WebView::applyAudioMuted()
{
    // The engine has no switch for a page's sound: its media elements are muted one by one, and
    // only those muted here are given their sound back.
    page()->mainFrame()->evaluateJavaScript(
        QStringLiteral("Array.prototype.forEach.call(document.querySelectorAll('audio, video'),"
                       " function(e) {"
                       " if (%1) { if (!e.muted) { e.muted = true; e.vorsaneMuted = true; } }"
                       " else if (e.vorsaneMuted) { e.muted = false; e.vorsaneMuted = false; } });")
            .arg(m_audioMuted ? QStringLiteral("true") : QStringLiteral("false")));
}

void WebView::setScriptsEnabled(bool enabled)
{
    page()->settings()->setAttribute(QWebSettings::JavascriptEnabled, enabled);
}

void WebView::setScrollBarsVisible(bool visible)
{
    const Qt::ScrollBarPolicy policy = visible ? Qt::ScrollBarAsNeeded : Qt::ScrollBarAlwaysOff;
    page()->mainFrame()->setScrollBarPolicy(Qt::Vertical, policy);
    page()->mainFrame()->setScrollBarPolicy(Qt::Horizontal, policy);
}

void WebView::setPageBackground(const QColor &colour)
{
    m_pageBackground = colour;
    QPalette palette = this->palette();
    palette.setBrush(QPalette::Base, colour);
    page()->setPalette(palette);
}

void WebView::changeEvent(QEvent *event)
{
    // The view hands its own palette on to the page whenever it changes (the viewer sets one on
    // all content), which would bring the page's white background back.
    QWebView::changeEvent(event);
    if (event->type() == QEvent::PaletteChange && m_pageBackground.isValid()
        && page()->palette().color(QPalette::Base) != m_pageBackground)
        setPageBackground(m_pageBackground);
}

void WebView::print(QPrinter *printer)
{
    QWebView::print(printer);
    emit printFinished(true);
}

void WebView::installInputFilter(QObject *filter)
{
    installEventFilter(filter);
}

qint64 WebView::renderProcessPid() const
{
    return 0;
}

void WebView::probeRenderer(int deadlineMs, const std::function<void(bool)> &done)
{
    Q_UNUSED(deadlineMs)
    // Had a script held the GUI thread, nothing would run here; the watchdog deals with that.
    QTimer::singleShot(0, QCoreApplication::instance(), [done] { done(true); });
}

void WebView::watchForStalls(const QUrl &url)
{
    Watchdog::setWebPage(url);
}

void WebView::stopWatchingForStalls(const QUrl &url)
{
    Watchdog::leaveWebPage(url);
}

QString WebView::engineName()
{
    return QStringLiteral("webkit");
}

QString WebView::engineVersion()
{
    return qWebKitVersion();
}

WebView *WebView::newWindow()
{
    return nullptr;
}

QWebView *WebView::createWindow(QWebPage::WebWindowType type)
{
    Q_UNUSED(type)
    return newWindow();
}
