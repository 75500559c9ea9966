#pragma once

#include "runnable.h"
#include "webview.h"

#include <QStringList>
#include <QTimer>
#include <QUrl>

class CustomQWebPage;
class PlaylistItem;
class Settings;
class SqliteCookieJar;

// One web page, or a plain-text file laid into the HTML template, shown for the item's duration:
// optionally zoomed, pre-scrolled or slowly scrolled up and down. It cannot be clicked or typed
// into.
class Webpage : public WebView, public Runnable
{
    Q_OBJECT

public:
    Webpage(PlaylistItem *item, QWidget *parent);
    ~Webpage() override;

    void displayHTML(PlaylistItem *item);
    bool eventFilter(QObject *watched, QEvent *event) override;
    void prepare() override;
    bool isReady() const override { return m_ready; }

Q_SIGNALS:
    void end();
    void rightclick();

public Q_SLOTS:
    void errorCheck(bool ok, const QString &error);
    void startScroll();
    void autoScroll();
    void scrollToX();
    void scrollToY();

protected:
    void mousePressEvent(QMouseEvent *event) override;

    bool stopImpl() override;
    bool startImpl() override;
    bool onTimeoutImpl() override;
    bool pauseImpl() override;
    bool resumeImpl() override;

private:
    void applyOptions(bool *autoScrollRequested);
    void onRendererGone();
    void startLoad();

    CustomQWebPage *m_page;
    Settings *m_settings;
    QUrl m_url;
    SqliteCookieJar *m_cookieJar;
    // Set once the first finished reply has been examined.
    bool m_errorChecked = false;
    QTimer m_delayTimer;
    QTimer m_scrollTimer;
    int m_scrollStep = 1;
    QStringList m_options;
    int m_scrollY = 0;
    int m_scrollX = 0;
    bool m_reloadedAfterRendererLoss = false;
    bool m_autoScroll = false;
    bool m_prepared = false;
    bool m_ready = false;
};
