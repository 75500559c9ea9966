#include "restrictedwebpage.h"

#include "pagedialogs.h"
#include "restricteddownload.h"
#include "sqlitecookiejar.h"
#include "useragent.h"
#include "webview.h"

#include <QAuthenticator>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QWebFrame>

QPointer<SqliteCookieJar> RestrictedWebPage::s_sessionJar;

RestrictedWebPage::RestrictedWebPage(QWidget *parent)
    : QWebPage(parent)
{
    setLinkDelegationPolicy(QWebPage::DelegateAllLinks);
    setForwardUnsupportedContent(true);

    QNetworkAccessManager *manager = networkAccessManager();
    if (SqliteCookieJar *jar = s_sessionJar.data()) {
        // The manager adopts the jar; it stays with its owner, the browser.
        QObject *owner = jar->parent();
        manager->setCookieJar(jar);
        jar->setParent(owner);
    }
    connect(manager, &QNetworkAccessManager::sslErrors, this,
            [](QNetworkReply *reply, const QList<QSslError> &) { reply->ignoreSslErrors(); });
    connect(manager, &QNetworkAccessManager::authenticationRequired, this,
            &RestrictedWebPage::onAuthenticationRequired);
    connect(this, &QWebPage::downloadRequested, this, &RestrictedWebPage::onDownloadRequested);
    connect(this, &QWebPage::unsupportedContent, this, &RestrictedWebPage::onUnsupportedContent);
}

void RestrictedWebPage::setupRegexList()
{
    m_filter.setupRegexList();
}

bool RestrictedWebPage::urlIsAllowed(QUrl &url)
{
    return m_filter.urlIsAllowed(url);
}

bool RestrictedWebPage::acceptNavigationRequest(QWebFrame *frame, const QNetworkRequest &request,
                                                QWebPage::NavigationType type)
{
    Q_UNUSED(frame)
    Q_UNUSED(type)
    if (m_filter.check(request.url()))
        return true;
    QString text = request.url().toString();
    emit urlDenied(text);
    return false;
}

QString RestrictedWebPage::userAgentForUrl(const QUrl &url) const
{
    Q_UNUSED(url)
    return UserAgent::forPages(WebView::engineVersion());
}

void RestrictedWebPage::onDownloadRequested(const QNetworkRequest &request)
{
    QNetworkRequest copy(request);
    startDownload(networkAccessManager()->get(copy));
}

void RestrictedWebPage::onUnsupportedContent(QNetworkReply *reply)
{
    startDownload(reply);
}

void RestrictedWebPage::startDownload(QNetworkReply *reply)
{
    auto *download = new RestrictedDownload(reply, this);
    emit downloadStarted();
    connect(download, &RestrictedDownload::finished, this, &RestrictedWebPage::onDownloadDone);
}

void RestrictedWebPage::onDownloadDone(QString &path, QString &mimeType)
{
    emit downloadDone(path, mimeType);
}

void RestrictedWebPage::onAuthenticationRequired(QNetworkReply *reply,
                                                 QAuthenticator *authenticator)
{
    // The reply, and the authenticator with it, may be gone when the question returns.
    QPointer<QNetworkReply> guard(reply);
    QAuthenticator answer;
    emit credentialsRequired(reply->url(), &answer);
    if (guard && !answer.isNull()) {
        authenticator->setUser(answer.user());
        authenticator->setPassword(answer.password());
    }
}

void RestrictedWebPage::setSessionCookieJar(SqliteCookieJar *jar)
{
    s_sessionJar = jar;
}

void RestrictedWebPage::javaScriptAlert(QWebFrame *frame, const QString &message)
{
    Q_UNUSED(frame)
    PageDialogs::alert(view(), message);
    emit dialogFinished();
}

bool RestrictedWebPage::javaScriptConfirm(QWebFrame *frame, const QString &message)
{
    Q_UNUSED(frame)
    const bool yes = PageDialogs::confirm(view(), message);
    emit dialogFinished();
    return yes;
}

bool RestrictedWebPage::javaScriptPrompt(QWebFrame *frame, const QString &message,
                                         const QString &defaultValue, QString *result)
{
    Q_UNUSED(frame)
    const bool accepted = PageDialogs::prompt(view(), message, defaultValue, result);
    emit dialogFinished();
    return accepted;
}
