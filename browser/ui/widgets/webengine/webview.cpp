#include "webview.h"

#include "webenginesetup.h"

#include <QAction>
#include <QChildEvent>
#include <QColor>
#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTimer>
#include <QWebEngineHistory>
#include <QWebEnginePage>
#include <QWebEngineProfile>
#include <QWebEngineScript>
#include <QWebEngineSettings>

namespace {
// A page's frame is drawn once two animation frames have run in it; the compositor takes a
// little longer to put it on the screen.
const int paintPollMs = 16;
const int paintPolls = 120;
const int compositorMarginMs = 50;

QWebEnginePage::WebAction webAction(WebView::Action action)
{
    switch (action) {
    case WebView::Action::Back:
        return QWebEnginePage::Back;
    case WebView::Action::Forward:
        return QWebEnginePage::Forward;
    case WebView::Action::Stop:
        return QWebEnginePage::Stop;
    case WebView::Action::Reload:
        break;
    }
    return QWebEnginePage::Reload;
}

// A text as a JavaScript string literal.
QString scriptString(const QString &text)
{
    const QByteArray array = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(array.mid(1, array.size() - 2));
}
} // namespace

// One question to a page's renderer at a time; later askers wait for the same answer.
struct WebView::Probe
{
    std::vector<std::function<void(bool)>> callbacks;
    // The page, held past its view until the answer is in.
    QPointer<QWebEnginePage> keptPage;
    bool decided = false;

    void decide(bool answered)
    {
        if (decided)
            return;
        decided = true;
        if (keptPage)
            keptPage->deleteLater();
        for (const auto &callback : callbacks)
            callback(answered);
    }
};

WebView::WebView(QWidget *parent)
    : QWebEngineView(WebEngineSetup::profile(), parent)
{
    connect(this, &QWebEngineView::renderProcessTerminated, this, &WebView::rendererGone);
}

WebView::~WebView()
{
    const std::shared_ptr<Probe> probe = m_probe.lock();
    if (!probe || probe->decided)
        return;
    // Deleted with the view, the page would take its unanswered question along, and a healthy
    // page could not be told from a frozen one.
    QWebEnginePage *current = page();
    if (current->parent() == this)
        current->setParent(nullptr);
    probe->keptPage = current;
}

void WebView::setPage(QWebEnginePage *page)
{
    QWebEngineView::setPage(page);
}

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
    return page()->requestedUrl();
}

void WebView::scrollPageBy(int dx, int dy, const std::function<void(bool)> &done)
{
    // Instant whatever the page's own scroll-behavior says, so the position can be read back.
    const QString script = QStringLiteral("(function(){var s=document.documentElement.style,"
                                          "b=s.scrollBehavior,x=window.scrollX,y=window.scrollY;"
                                          "s.scrollBehavior='auto';window.scrollBy(%1,%2);"
                                          "var moved=window.scrollX!==x||window.scrollY!==y;"
                                          "s.scrollBehavior=b;return moved;})()")
                               .arg(dx)
                               .arg(dy);
    if (!done) {
        runScript(script);
        return;
    }
    runScript(script, [done](const QVariant &moved) { done(moved.toBool()); });
}

void WebView::clearEmbedChildren()
{
    runScript(QStringLiteral("document.querySelectorAll('embed').forEach(function(e){"
                             "while(e.firstChild)e.removeChild(e.firstChild);})"));
}

void WebView::removeEmbedElements()
{
    runScript(
        QStringLiteral("document.querySelectorAll('embed').forEach(function(e){e.remove();})"));
}

void WebView::setElementText(const QString &id, const QString &text)
{
    runScript(QStringLiteral("(function(){var e=document.getElementById(%1);"
                             "if(e)e.innerText=%2;})()")
                  .arg(scriptString(id), scriptString(text)));
}

void WebView::runScript(const QString &source, const std::function<void(const QVariant &)> &done)
{
    if (done)
        page()->runJavaScript(source, QWebEngineScript::ApplicationWorld, done);
    else
        page()->runJavaScript(source, QWebEngineScript::ApplicationWorld);
}

void WebView::whenShowable(const std::function<void()> &done)
{
    auto connection = std::make_shared<QMetaObject::Connection>();
    *connection = connect(this, &QWebEngineView::loadFinished, this, [this, connection, done] {
        disconnect(*connection);
        runScript(QStringLiteral("window.vorsanePainted = false; requestAnimationFrame(function() {"
                                 " requestAnimationFrame(function() { window.vorsanePainted = true; });"
                                 " });"));
        pollPainted(paintPolls, done);
    });
}

void WebView::pollPainted(int pollsLeft, const std::function<void()> &done)
{
    QPointer<WebView> self(this);
    runScript(QStringLiteral("window.vorsanePainted === true"),
              [self, pollsLeft, done](const QVariant &painted) {
                  if (!self)
                      return;
                  // A page that never gets a frame drawn is not waited for forever.
                  if (painted.toBool() || pollsLeft <= 0) {
                      QTimer::singleShot(compositorMarginMs, self, done);
                      return;
                  }
                  QTimer::singleShot(paintPollMs, self, [self, pollsLeft, done] {
                      if (self)
                          self->pollPainted(pollsLeft - 1, done);
                  });
              });
}

void WebView::setAudioMuted(bool muted)
{
    page()->setAudioMuted(muted);
}

void WebView::setScriptsEnabled(bool enabled)
{
    page()->settings()->setAttribute(QWebEngineSettings::JavascriptEnabled, enabled);
}

void WebView::setScrollBarsVisible(bool visible)
{
    page()->settings()->setAttribute(QWebEngineSettings::ShowScrollBars, visible);
}

void WebView::setPageBackground(const QColor &colour)
{
    page()->setBackgroundColor(colour);
}

void WebView::installInputFilter(QObject *filter)
{
    m_inputFilters.append(filter);
    installEventFilter(filter);
    for (const QPointer<QObject> &child : std::as_const(m_filteredChildren)) {
        if (child)
            child->installEventFilter(filter);
    }
}

bool WebView::event(QEvent *event)
{
    // The engine paints into a widget of its own inside the view, which gets the input; it may
    // be replaced by a new one when the page moves to another renderer.
    if (event->type() == QEvent::ChildAdded || event->type() == QEvent::ChildPolished)
        filterChild(static_cast<QChildEvent *>(event)->child());
    return QWebEngineView::event(event);
}

void WebView::filterChild(QObject *child)
{
    if (!child || !child->isWidgetType() || m_filteredChildren.contains(child))
        return;
    m_filteredChildren.removeAll(nullptr);
    m_filteredChildren.append(child);
    for (const QPointer<QObject> &filter : std::as_const(m_inputFilters)) {
        if (filter)
            child->installEventFilter(filter);
    }
}

qint64 WebView::renderProcessPid() const
{
    return page()->renderProcessPid();
}

void WebView::probeRenderer(int deadlineMs, const std::function<void(bool)> &done)
{
    std::shared_ptr<Probe> probe = m_probe.lock();
    if (probe && !probe->decided) {
        probe->callbacks.push_back(done);
        return;
    }
    probe = std::make_shared<Probe>();
    probe->callbacks.push_back(done);
    m_probe = probe;
    // An empty answer comes when the page goes before its renderer answered: no answer.
    page()->runJavaScript(QStringLiteral("true"), QWebEngineScript::ApplicationWorld,
                          [probe](const QVariant &answer) {
                              if (answer.toBool())
                                  probe->decide(true);
                          });
    QTimer::singleShot(deadlineMs, QCoreApplication::instance(), [probe] { probe->decide(false); });
}

void WebView::watchForStalls(const QUrl &url)
{
    Q_UNUSED(url)
}

void WebView::stopWatchingForStalls(const QUrl &url)
{
    Q_UNUSED(url)
}

QString WebView::engineName()
{
    return QStringLiteral("webengine");
}

QString WebView::engineVersion()
{
    return WebEngineSetup::webKitVersion();
}

WebView *WebView::newWindow()
{
    return nullptr;
}

QWebEngineView *WebView::createWindow(QWebEnginePage::WebWindowType type)
{
    Q_UNUSED(type)
    return newWindow();
}
