#include "customqwebpage.h"

#include "sqlitecookiejar.h"
#include "useragent.h"
#include "webview.h"

#include <QAuthenticator>
#include <QDebug>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QWebFrame>
#include <QWebSettings>

CustomQWebPage::CustomQWebPage(QObject *parent)
    : QWebPage(parent)
{
    QNetworkAccessManager *manager = networkAccessManager();
    connect(manager, &QNetworkAccessManager::finished, this, &CustomQWebPage::onReplyFinished);
    connect(manager, &QNetworkAccessManager::sslErrors, this,
            [](QNetworkReply *reply, const QList<QSslError> &) { reply->ignoreSslErrors(); });
}

void CustomQWebPage::setCookieJar(SqliteCookieJar *jar)
{
    networkAccessManager()->setCookieJar(jar);
}

void CustomQWebPage::onReplyFinished(QNetworkReply *reply)
{
    disconnect(networkAccessManager(), &QNetworkAccessManager::finished, this,
               &CustomQWebPage::onReplyFinished);
    emit firstResponse(reply->error() == QNetworkReply::NoError, reply->errorString());
}

void CustomQWebPage::setUnattended(bool unattended)
{
    if (m_unattended == unattended)
        return;
    m_unattended = unattended;
    QNetworkAccessManager *manager = networkAccessManager();
    if (unattended) {
        connect(this, &QWebPage::printRequested, this, &CustomQWebPage::onPrintRequested);
        // Connected before the engine's own handlers, which ask for a name and password, so an
        // abort here leaves them nothing to ask about.
        connect(manager, &QNetworkAccessManager::authenticationRequired, this,
                &CustomQWebPage::onAuthenticationRequired);
        connect(manager, &QNetworkAccessManager::proxyAuthenticationRequired, this,
                &CustomQWebPage::onProxyAuthenticationRequired);
    } else {
        disconnect(this, &QWebPage::printRequested, this, &CustomQWebPage::onPrintRequested);
        disconnect(manager, &QNetworkAccessManager::authenticationRequired, this,
                   &CustomQWebPage::onAuthenticationRequired);
        disconnect(manager, &QNetworkAccessManager::proxyAuthenticationRequired, this,
                   &CustomQWebPage::onProxyAuthenticationRequired);
    }
}

QString CustomQWebPage::userAgentForUrl(const QUrl &url) const
{
    Q_UNUSED(url)
    return UserAgent::forPages(WebView::engineVersion());
}

QString CustomQWebPage::builtInUserAgent()
{
    return UserAgent::builtIn(WebView::engineVersion());
}

void CustomQWebPage::javaScriptAlert(QWebFrame *frame, const QString &message)
{
    if (!m_unattended)
        return QWebPage::javaScriptAlert(frame, message);
    qDebug() << "Suppressed alert:" << message;
}

bool CustomQWebPage::javaScriptConfirm(QWebFrame *frame, const QString &message)
{
    // The engine asks before-unload questions through this one as well.
    if (!m_unattended)
        return QWebPage::javaScriptConfirm(frame, message);
    qDebug() << "Suppressed confirm, answered yes:" << message;
    return true;
}

bool CustomQWebPage::javaScriptPrompt(QWebFrame *frame, const QString &message,
                                      const QString &defaultValue, QString *result)
{
    if (!m_unattended)
        return QWebPage::javaScriptPrompt(frame, message, defaultValue, result);
    qDebug() << "Suppressed prompt, answered cancel:" << message;
    return false;
}

QString CustomQWebPage::chooseFile(QWebFrame *frame, const QString &suggestedFile)
{
    if (!m_unattended)
        return QWebPage::chooseFile(frame, suggestedFile);
    qDebug() << "Suppressed file chooser.";
    return QString();
}

bool CustomQWebPage::supportsExtension(Extension extension) const
{
    // Without the extension the engine falls back to chooseFile(), which answers silently.
    if (m_unattended && extension == ChooseMultipleFilesExtension)
        return false;
    return QWebPage::supportsExtension(extension);
}

bool CustomQWebPage::extension(Extension extension, const ExtensionOption *option,
                               ExtensionReturn *output)
{
    if (m_unattended && extension == ChooseMultipleFilesExtension) {
        qDebug() << "Suppressed file chooser.";
        return false;
    }
    return QWebPage::extension(extension, option, output);
}

bool CustomQWebPage::shouldInterruptJavaScript()
{
    if (!m_unattended)
        return QWebPage::shouldInterruptJavaScript();
    qDebug() << "Suppressed long-running script question; script interrupted.";
    return true;
}

void CustomQWebPage::onPrintRequested()
{
    qDebug() << "Suppressed print request.";
}

void CustomQWebPage::onAuthenticationRequired(QNetworkReply *reply, QAuthenticator *authenticator)
{
    Q_UNUSED(authenticator)
    qDebug() << "Suppressed authentication request for" << reply->url().toString();
    reply->abort();
}

void CustomQWebPage::onProxyAuthenticationRequired(const QNetworkProxy &proxy,
                                                   QAuthenticator *authenticator)
{
    Q_UNUSED(proxy)
    Q_UNUSED(authenticator)
    qDebug() << "Suppressed proxy authentication request.";
}

void CustomQWebPage::javaScriptConsoleMessage(const QString &message, int lineNumber,
                                              const QString &sourceID)
{
    // This engine reports a script's errors among its console messages, without a level.
    emit scriptError(message, lineNumber);
    QWebPage::javaScriptConsoleMessage(message, lineNumber, sourceID);
}
