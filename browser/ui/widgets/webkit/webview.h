#pragma once

#include <QColor>
#include <QUrl>
#include <QVariant>
#include <QWebView>

#include <functional>

class QAction;
class QPrinter;

// The base of every web view of the player, on QtWebKit. Besides the view's own members
// (load, url, title, setHtml, zoom, back, forward, reload, stop and their signals) it offers
// what the rest of the program needs from a page without naming the engine. Scripts run on the
// GUI thread here, so every answer below comes at once.
class WebView : public QWebView
{
    Q_OBJECT

public:
    enum class Action { Back, Forward, Stop, Reload };

    explicit WebView(QWidget *parent);
    ~WebView() override;

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
    // Runs a script of the program's own in the page; done gets its result.
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
    // Prints the page; printFinished() follows.
    void print(QPrinter *printer);

    // Events that reach the page (mouse, keys, touch) go through this filter first, also on
    // widgets the engine puts inside the view.
    void installInputFilter(QObject *filter);

    // The process that runs the page's scripts: 0, they run in the program itself.
    qint64 renderProcessPid() const;
    // Asks the page's scripts for an answer; done(false) after deadlineMs without one. Safe to
    // call on a view that is about to go.
    void probeRenderer(int deadlineMs, const std::function<void(bool answered)> &done);

    // The page now shown to the watchdog, which ends the program when a script holds the GUI
    // thread for good.
    static void watchForStalls(const QUrl &url);
    static void stopWatchingForStalls(const QUrl &url);
    // "webkit" or "webengine".
    static QString engineName();
    static QString engineVersion();

Q_SIGNALS:
    void printFinished(bool ok);
    // The page's renderer process has gone (killed or crashed); never on this engine.
    void rendererGone();

protected:
    // A page asks for a window of its own: the view to load it in, or nullptr to refuse.
    virtual WebView *newWindow();
    QWebView *createWindow(QWebPage::WebWindowType type) override;
    void changeEvent(QEvent *event) override;

private:
    void applyAudioMuted();

    QColor m_pageBackground;
    bool m_audioMuted = false;
};
