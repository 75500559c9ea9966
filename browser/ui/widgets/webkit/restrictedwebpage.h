#pragma once

#include "navigationfilter.h"

#include <QPointer>
#include <QWebPage>

class QAuthenticator;
class QNetworkReply;
class QNetworkRequest;
class SqliteCookieJar;

// The page of every kiosk browser view: each navigation, sub-frames included, is checked by the
// navigation filter; it also sets the user agent, accepts every certificate, runs the page's
// dialogs for the visitor and turns file downloads into RestrictedDownloads.
class RestrictedWebPage : public QWebPage
{
    Q_OBJECT

public:
    explicit RestrictedWebPage(QWidget *parent);

    void setupRegexList();
    bool urlIsAllowed(QUrl &url);

    // Pages built while a jar is set share it: one browsing session, one set of cookies.
    static void setSessionCookieJar(SqliteCookieJar *jar);

Q_SIGNALS:
    void urlDenied(QString &url);
    void downloadStarted();
    void downloadDone(QString &path, QString &mimeType);
    void dialogFinished();
    // A site asks for a name and a password: whoever answers fills in answer (left untouched,
    // nothing is sent).
    void credentialsRequired(const QUrl &url, QAuthenticator *answer);

public Q_SLOTS:
    void onDownloadDone(QString &path, QString &mimeType);

protected:
    bool acceptNavigationRequest(QWebFrame *frame, const QNetworkRequest &request,
                                 QWebPage::NavigationType type) override;
    QString userAgentForUrl(const QUrl &url) const override;
    void javaScriptAlert(QWebFrame *frame, const QString &message) override;
    bool javaScriptConfirm(QWebFrame *frame, const QString &message) override;
    bool javaScriptPrompt(QWebFrame *frame, const QString &message, const QString &defaultValue,
                          QString *result) override;

private:
    void onDownloadRequested(const QNetworkRequest &request);
    void onUnsupportedContent(QNetworkReply *reply);
    void onAuthenticationRequired(QNetworkReply *reply, QAuthenticator *authenticator);
    void startDownload(QNetworkReply *reply);

    NavigationFilter m_filter;

    static QPointer<SqliteCookieJar> s_sessionJar;
};
