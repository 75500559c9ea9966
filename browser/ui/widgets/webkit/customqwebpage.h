#pragma once

#include <QWebPage>

class QAuthenticator;
class QNetworkProxy;
class QNetworkReply;
class SqliteCookieJar;

// The page of every slideshow web view: it answers with the kiosk's user agent and accepts every
// certificate. Unattended (the slideshow), it never opens a dialog: a dialog runs a nested event
// loop that the show would advance under, and nobody is there to answer it.
class CustomQWebPage : public QWebPage
{
    Q_OBJECT

public:
    explicit CustomQWebPage(QObject *parent = nullptr);

    void setUnattended(bool unattended);
    bool unattended() const { return m_unattended; }
    // The cookies this page sends and keeps; the page's network access takes the jar over.
    void setCookieJar(SqliteCookieJar *jar);
    // The user-agent text when the preferences give none.
    static QString builtInUserAgent();

Q_SIGNALS:
    // Once, for the first network reply that finishes after construction, whichever resource it
    // belongs to.
    void firstResponse(bool ok, const QString &error);
    // A script of the page failed.
    void scriptError(const QString &message, int line);

protected:
    bool extension(Extension extension, const ExtensionOption *option = nullptr,
                   ExtensionReturn *output = nullptr) override;
    bool supportsExtension(Extension extension) const override;
    bool shouldInterruptJavaScript() override;
    QString userAgentForUrl(const QUrl &url) const override;
    void javaScriptAlert(QWebFrame *frame, const QString &message) override;
    bool javaScriptConfirm(QWebFrame *frame, const QString &message) override;
    bool javaScriptPrompt(QWebFrame *frame, const QString &message, const QString &defaultValue,
                          QString *result) override;
    QString chooseFile(QWebFrame *frame, const QString &suggestedFile) override;
    void javaScriptConsoleMessage(const QString &message, int lineNumber,
                                  const QString &sourceID) override;

private:
    void onReplyFinished(QNetworkReply *reply);
    void onPrintRequested();
    void onAuthenticationRequired(QNetworkReply *reply, QAuthenticator *authenticator);
    void onProxyAuthenticationRequired(const QNetworkProxy &proxy, QAuthenticator *authenticator);

    bool m_unattended = false;
};
