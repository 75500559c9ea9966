#pragma once

#include <QList>
#include <QPointer>
#include <QSslError>
#include <QWebPage>

#include <memory>

class QDialog;
class QNetworkCookieJar;
class QNetworkReply;
class QNetworkRequest;
class Settings;
class UrlPatternMatcher;

// The page of every kiosk browser view: each navigation is checked against the restriction file
// and the list mode; it also sets the user agent, ignores certificate errors and turns file
// downloads into RestrictedDownloads.
class RestrictedWebPage : public QWebPage
{
    Q_OBJECT

public:
    explicit RestrictedWebPage(QWidget *parent);

    void setupRegexList();
    bool urlIsAllowed(QUrl &url);

    // Pages built while a jar is set share it: one browsing session, one set of cookies.
    static void setSessionCookieJar(QNetworkCookieJar *jar);
    // Modal dialogs (alert, confirm, prompt, authentication) running right now, in any page.
    static int openDialogs();
    // Runs a dialog modally; it may be rejected from outside (end of session) at any time.
    static int runDialog(QDialog *dialog);

Q_SIGNALS:
    void urlDenied(QString &url);
    void downloadStarted();
    void downloadDone(QString &path, QString &mimeType);
    void dialogFinished();

public Q_SLOTS:
    void sslErrorHandler(QNetworkReply *reply, const QList<QSslError> &errors);
    void onDownloadRequested(const QNetworkRequest &request);
    void onUnsupportedContent(QNetworkReply *reply);
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
    void startDownload(QNetworkReply *reply);

    Settings *m_settings;
    std::shared_ptr<const UrlPatternMatcher> m_patterns;

    static QPointer<QNetworkCookieJar> s_sessionJar;
    static int s_openDialogs;
};
