#pragma once

#include "runnable.h"
#include "subprocessmanager.h"

#include <QList>
#include <QTimer>
#include <QUrl>
#include <QWidget>

namespace kiosk {
class Page;
}
using kiosk::Page;
class QLabel;
class QStatusBar;
class QTabWidget;
class RestrictedWebView;
class Settings;
class SqliteCookieJar;

// The kiosk web browser: filtered tabs with optional navigation bars, an optional session
// countdown, printing and downloads. It is content like any slideshow item: the session ends
// through end().
class Browser : public QWidget, public Runnable
{
    Q_OBJECT

public:
    // A browser for the remote-control page gets that page as home and never runs a countdown.
    explicit Browser(QWidget *parent, const QUrl &remoteControl = QUrl());
    ~Browser() override;

    QUrl getHome() const { return m_home; }
    // The remote-control page, opened over the show: no countdown, no session limit.
    bool isRemoteControl() const { return m_remoteControl; }
    QList<Page *> pages() const { return m_pages; }
    Page *currentPage() const;
    QTabWidget *tabs() const { return m_tabs; }
    QStatusBar *statusBar() const { return m_statusBar; }
    int downloads() const { return m_downloads; }

Q_SIGNALS:
    void end();
    void mouseMoved();

public Q_SLOTS:
    void newPage();
    void newPage(QUrl url);
    void newPage(RestrictedWebView *view);
    void closeCurrentTab();
    void onTabCloseRequested(int index);
    void nextTab();
    void prevTab();
    void selectAddressBar();
    void selectAddressBarAndBeginSearch();
    void addTime(int seconds);
    void setHome(QString text);
    void refreshTabBar();
    void hideToolbar();
    void onTitleChanged(QString &title, Page *page);
    void onUrlDenied(QString &url);
    void onDownloadStarted();
    void onDownloadDone(QString &path, QString &mimeType);
    void onPrintRequested();
    void onEnd();
    void onMouseMove();
    void onWebViewCreated(RestrictedWebView *view);

protected:
    bool event(QEvent *event) override;

    bool stopImpl() override;
    bool startImpl() override;
    bool onTimeoutImpl() override;
    bool pauseImpl() override;
    bool resumeImpl() override;

private:
    void setShortcuts();
    void setupPage(Page *page);
    void showRemaining();
    void closeDialogs();
    void onDialogFinished();
    // Tabs whose renderer no longer answers (a script that never ends) are closed.
    void probeTabs();
    void closeFrozenTab(Page *page, qint64 pid);

    Settings *m_settings;
    QTabWidget *m_tabs;
    QList<Page *> m_pages;
    QUrl m_home;
    QUrl m_newTabUrl;
    int m_downloads = 0;
    QLabel *m_downloadIcon;
    int m_remaining = 0;
    QLabel *m_timeLabel = nullptr;
    QStatusBar *m_statusBar;
    SubprocessManager m_subprocesses;
    SqliteCookieJar *m_cookieJar;
    bool m_hideToolbar;
    bool m_remoteControl;
    bool m_stopped = false;
    QTimer m_probeTimer;
    // A deletion asked for while a dialog of this browser still runs its own event loop waits
    // until that loop has returned.
    bool m_deleteWhenIdle = false;
};
