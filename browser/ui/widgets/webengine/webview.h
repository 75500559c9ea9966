#pragma once

#include <QList>
#include <QPointer>
#include <QUrl>
#include <QVariant>
#include <QWebEngineView>

#include <functional>
#include <memory>
#include <vector>

class QAction;
class QColor;
class QPrinter;

// The base of every web view of the player, on QtWebEngine. Besides the view's own members
// (load, url, title, setHtml, zoom, back, forward, reload, stop, print and their signals) it
// offers what the rest of the program needs from a page without naming the engine. Pages run in
// renderer processes of their own: every answer from a page comes later, through a callback.
class WebView : public QWebEngineView
{
    Q_OBJECT

public:
    enum class Action { Back, Forward, Stop, Reload };

    explicit WebView(QWidget *parent);
    ~WebView() override;

    // Pages are made on the program's profile; the view keeps no page of its own beside them.
    void setPage(QWebEnginePage *page);

    QAction *navigationAction(Action action) const;
    bool canGoBack() const;
    bool canGoForward() const;
    // The address being loaded, before url() knows it.
    QUrl requestedUrl() const;

    // Scrolls the page; moved tells whether it moved (false at an end).
    void scrollPageBy(int dx, int dy, const std::function<void(bool moved)> &done = {});
    // Empties every "embed" element (their players fall silent), or removes them altogether.
    void clearEmbedChildren();
    void removeEmbedElements();
    // Sets the plain text of the element with that id.
    void setElementText(const QString &id, const QString &text);
    // Runs a script of the program's own in the page, beside the page's scripts (also when those
    // are off); done gets its result.
    void runScript(const QString &source, const std::function<void(const QVariant &)> &done = {});
    void setScriptsEnabled(bool enabled);
    void setScrollBarsVisible(bool visible);
    // The colour of a page that paints no background of its own.
    void setPageBackground(const QColor &colour);
    // done() once the load under way has finished and its first frames are on the screen (the
    // view shown, possibly under other widgets); not at all once the view is gone.
    void whenShowable(const std::function<void()> &done);
    // Silences the page's sound (a page made ready before its turn), or gives it back.
    void setAudioMuted(bool muted);

    // Events that reach the page (mouse, keys, touch) go through this filter first, also on
    // widgets the engine puts inside the view.
    void installInputFilter(QObject *filter);

    // The process that runs the page's scripts; 0 while there is none.
    qint64 renderProcessPid() const;
    // Asks the page's renderer for an answer; done(false) after deadlineMs without one. The page
    // is kept until then even if the view goes, so that a healthy page always gets to answer.
    void probeRenderer(int deadlineMs, const std::function<void(bool answered)> &done);

    // Scripts run outside the program here: nothing for the watchdog to watch.
    static void watchForStalls(const QUrl &url);
    static void stopWatchingForStalls(const QUrl &url);
    // "webkit" or "webengine".
    static QString engineName();
    static QString engineVersion();

Q_SIGNALS:
    // The page's renderer process has gone (killed or crashed).
    void rendererGone();

protected:
    // A page asks for a window of its own: the view to load it in, or nullptr to refuse.
    virtual WebView *newWindow();
    QWebEngineView *createWindow(QWebEnginePage::WebWindowType type) override;
    bool event(QEvent *event) override;

private:
    struct Probe;

    void filterChild(QObject *child);
    void pollPainted(int pollsLeft, const std::function<void()> &done);

    QList<QPointer<QObject>> m_inputFilters;
    QList<QPointer<QObject>> m_filteredChildren;
    std::weak_ptr<Probe> m_probe;
};
