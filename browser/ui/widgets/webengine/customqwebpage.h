#pragma once

#include <QWebEnginePage>

class QAuthenticator;
class QWebEngineCertificateError;
class QWebEngineLoadingInfo;
class SqliteCookieJar;

// The page of every slideshow web view: it answers with the kiosk's user agent, accepts every
// certificate and plays media without waiting for a click. Unattended (the slideshow), it never
// opens a dialog and grants no request: nobody is there to answer.
class CustomQWebPage : public QWebEnginePage
{
    Q_OBJECT

public:
    explicit CustomQWebPage(QObject *parent = nullptr);

    void setUnattended(bool unattended);
    bool unattended() const { return m_unattended; }
    // The cookies this page sends and keeps: those of the program's profile, which the jar has
    // filled.
    void setCookieJar(SqliteCookieJar *jar);
    // The user-agent text when the preferences give none.
    static QString builtInUserAgent();

Q_SIGNALS:
    // Once, for the first load that ends after construction.
    void firstResponse(bool ok, const QString &error);
    // A script of the page failed.
    void scriptError(const QString &message, int line);

protected:
    void javaScriptAlert(const QUrl &securityOrigin, const QString &message) override;
    bool javaScriptConfirm(const QUrl &securityOrigin, const QString &message) override;
    bool javaScriptPrompt(const QUrl &securityOrigin, const QString &message,
                          const QString &defaultValue, QString *result) override;
    QStringList chooseFiles(FileSelectionMode mode, const QStringList &oldFiles,
                            const QStringList &acceptedMimeTypes) override;
    void javaScriptConsoleMessage(JavaScriptConsoleMessageLevel level, const QString &message,
                                  int lineNumber, const QString &sourceID) override;

private:
    void onLoadingChanged(const QWebEngineLoadingInfo &info);
    void onCertificateError(const QWebEngineCertificateError &error);
    void onPrintRequested();
    void onAuthenticationRequired(const QUrl &url, QAuthenticator *authenticator);
    void onProxyAuthenticationRequired(const QUrl &url, QAuthenticator *authenticator,
                                       const QString &proxyHost);
    void onFeaturePermissionRequested(const QUrl &origin, Feature feature);

    bool m_unattended = false;
    bool m_firstLoadReported = false;
};
