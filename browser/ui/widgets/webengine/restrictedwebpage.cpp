#include "restrictedwebpage.h"

#include "pagedialogs.h"
#include "restricteddownload.h"
#include "useragent.h"
#include "webenginesetup.h"
#include "webview.h"

#include <QAuthenticator>
#include <QPointer>
#include <QWebEngineCertificateError>
#include <QWebEngineDownloadRequest>
#include <QWebEngineProfile>

RestrictedWebPage::RestrictedWebPage(QWidget *parent)
    : QWebEnginePage(WebEngineSetup::profile(), parent)
{
    profile()->setHttpUserAgent(UserAgent::forPages(WebView::engineVersion()));
    connect(this, &QWebEnginePage::certificateError, this, &RestrictedWebPage::onCertificateError);
    connect(this, &QWebEnginePage::authenticationRequired, this,
            &RestrictedWebPage::onAuthenticationRequired);
    // Downloads are announced to the whole profile; each page takes its own.
    connect(profile(), &QWebEngineProfile::downloadRequested, this,
            &RestrictedWebPage::onDownloadRequested);
}

void RestrictedWebPage::setupRegexList()
{
    m_filter.setupRegexList();
}

bool RestrictedWebPage::urlIsAllowed(QUrl &url)
{
    return m_filter.urlIsAllowed(url);
}

bool RestrictedWebPage::acceptNavigationRequest(const QUrl &url, NavigationType type,
                                                bool isMainFrame)
{
    Q_UNUSED(type)
    Q_UNUSED(isMainFrame)
    if (m_filter.check(url))
        return true;
    QString text = url.toString();
    emit urlDenied(text);
    return false;
}

void RestrictedWebPage::onDownloadRequested(QWebEngineDownloadRequest *download)
{
    if (download->page() != this)
        return;
    auto *restricted = new RestrictedDownload(download, this);
    emit downloadStarted();
    connect(restricted, &RestrictedDownload::finished, this, &RestrictedWebPage::onDownloadDone);
}

void RestrictedWebPage::onDownloadDone(QString &path, QString &mimeType)
{
    emit downloadDone(path, mimeType);
}

void RestrictedWebPage::onAuthenticationRequired(const QUrl &url, QAuthenticator *authenticator)
{
    QPointer<RestrictedWebPage> self(this);
    QAuthenticator answer;
    emit credentialsRequired(url, &answer);
    // The page, and the authenticator with it, may be gone when the question returns.
    if (!self)
        return;
    if (answer.isNull())
        *authenticator = QAuthenticator();
    else {
        authenticator->setUser(answer.user());
        authenticator->setPassword(answer.password());
    }
}

void RestrictedWebPage::onCertificateError(const QWebEngineCertificateError &error)
{
    QWebEngineCertificateError accepted = error;
    accepted.acceptCertificate();
}

void RestrictedWebPage::setSessionCookieJar(SqliteCookieJar *jar)
{
    Q_UNUSED(jar)
}

QWidget *RestrictedWebPage::dialogParent() const
{
    return QWebEngineView::forPage(this);
}

void RestrictedWebPage::javaScriptAlert(const QUrl &securityOrigin, const QString &message)
{
    Q_UNUSED(securityOrigin)
    PageDialogs::alert(dialogParent(), message);
    emit dialogFinished();
}

bool RestrictedWebPage::javaScriptConfirm(const QUrl &securityOrigin, const QString &message)
{
    Q_UNUSED(securityOrigin)
    const bool yes = PageDialogs::confirm(dialogParent(), message);
    emit dialogFinished();
    return yes;
}

bool RestrictedWebPage::javaScriptPrompt(const QUrl &securityOrigin, const QString &message,
                                         const QString &defaultValue, QString *result)
{
    Q_UNUSED(securityOrigin)
    const bool accepted = PageDialogs::prompt(dialogParent(), message, defaultValue, result);
    emit dialogFinished();
    return accepted;
}
