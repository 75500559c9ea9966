#pragma once

#include "webview.h"

#include <QUrl>

class QAuthenticator;
class RestrictedWebPage;

// A kiosk browser view: its page is filtered, the right button does nothing, mouse movement is
// reported, windows that pages open become new tabs, and sites can ask for a password.
class RestrictedWebView : public WebView
{
    Q_OBJECT

public:
    RestrictedWebView(QUrl url, QWidget *parent);

    RestrictedWebPage *restrictedPage() const { return m_page; }
    // Where home() goes; main/default_url unless the browser sets another.
    void setHomeUrl(const QUrl &url) { m_home = url; }
    bool eventFilter(QObject *watched, QEvent *event) override;

Q_SIGNALS:
    void mouseMoved();
    void webViewCreated(RestrictedWebView *view);

public Q_SLOTS:
    void home();
    void onAuthRequired(const QUrl &url, QAuthenticator *authenticator);
    void onUrlDenied(QString &url);

protected:
    WebView *newWindow() override;

private:
    RestrictedWebPage *m_page;
    QUrl m_home;
};
