#pragma once

#include "navigationfilter.h"

#include <QWebEnginePage>

class QAuthenticator;
class QWebEngineCertificateError;
class QWebEngineDownloadRequest;
class SqliteCookieJar;

// The page of every kiosk browser view: each navigation, sub-frames included, is checked by the
// navigation filter; it also sets the user agent, accepts every certificate, runs the page's
// dialogs for the visitor and turns file downloads into RestrictedDownloads.
class RestrictedWebPage : public QWebEnginePage
{
    Q_OBJECT

public:
    explicit RestrictedWebPage(QWidget *parent);

    void setupRegexList();
    bool urlIsAllowed(QUrl &url);

    // The browsing session's cookies: every page shares the engine's store, which the jar has
    // filled; nothing to hand on here.
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
    bool acceptNavigationRequest(const QUrl &url, NavigationType type, bool isMainFrame) override;
    void javaScriptAlert(const QUrl &securityOrigin, const QString &message) override;
    bool javaScriptConfirm(const QUrl &securityOrigin, const QString &message) override;
    bool javaScriptPrompt(const QUrl &securityOrigin, const QString &message,
                          const QString &defaultValue, QString *result) override;

private:
    void onDownloadRequested(QWebEngineDownloadRequest *download);
    void onAuthenticationRequired(const QUrl &url, QAuthenticator *authenticator);
    void onCertificateError(const QWebEngineCertificateError &error);
    QWidget *dialogParent() const;

    NavigationFilter m_filter;
};
