#include "customqwebpage.h"

#include "useragent.h"
#include "webenginesetup.h"
#include "webview.h"

#include <QAuthenticator>
#include <QDebug>
#include <QWebEngineCertificateError>
#include <QWebEngineLoadingInfo>
#include <QWebEngineProfile>
#include <QWebEngineSettings>

CustomQWebPage::CustomQWebPage(QObject *parent)
    : QWebEnginePage(WebEngineSetup::profile(), parent)
{
    profile()->setHttpUserAgent(UserAgent::forPages(WebView::engineVersion()));
    // Videos and sounds in a slideshow page would otherwise wait for a click that never comes.
    settings()->setAttribute(QWebEngineSettings::PlaybackRequiresUserGesture, false);
    connect(this, &QWebEnginePage::loadingChanged, this, &CustomQWebPage::onLoadingChanged);
    connect(this, &QWebEnginePage::certificateError, this, &CustomQWebPage::onCertificateError);
}

void CustomQWebPage::setUnattended(bool unattended)
{
    if (m_unattended == unattended)
        return;
    m_unattended = unattended;
    if (unattended) {
        connect(this, &QWebEnginePage::printRequested, this, &CustomQWebPage::onPrintRequested);
        connect(this, &QWebEnginePage::authenticationRequired, this,
                &CustomQWebPage::onAuthenticationRequired);
        connect(this, &QWebEnginePage::proxyAuthenticationRequired, this,
                &CustomQWebPage::onProxyAuthenticationRequired);
        connect(this, &QWebEnginePage::featurePermissionRequested, this,
                &CustomQWebPage::onFeaturePermissionRequested);
    } else {
        disconnect(this, &QWebEnginePage::printRequested, this, &CustomQWebPage::onPrintRequested);
        disconnect(this, &QWebEnginePage::authenticationRequired, this,
                   &CustomQWebPage::onAuthenticationRequired);
        disconnect(this, &QWebEnginePage::proxyAuthenticationRequired, this,
                   &CustomQWebPage::onProxyAuthenticationRequired);
        disconnect(this, &QWebEnginePage::featurePermissionRequested, this,
                   &CustomQWebPage::onFeaturePermissionRequested);
    }
}

void CustomQWebPage::setCookieJar(SqliteCookieJar *jar)
{
    Q_UNUSED(jar)
}

QString CustomQWebPage::builtInUserAgent()
{
    return UserAgent::builtIn(WebView::engineVersion());
}

void CustomQWebPage::onLoadingChanged(const QWebEngineLoadingInfo &info)
{
    if (m_firstLoadReported)
        return;
    if (info.status() == QWebEngineLoadingInfo::LoadSucceededStatus) {
        m_firstLoadReported = true;
        emit firstResponse(true, QString());
    } else if (info.status() == QWebEngineLoadingInfo::LoadFailedStatus) {
        m_firstLoadReported = true;
        emit firstResponse(false, info.errorString());
    }
}

void CustomQWebPage::onCertificateError(const QWebEngineCertificateError &error)
{
    QWebEngineCertificateError accepted = error;
    accepted.acceptCertificate();
}

void CustomQWebPage::javaScriptAlert(const QUrl &securityOrigin, const QString &message)
{
    if (!m_unattended)
        return QWebEnginePage::javaScriptAlert(securityOrigin, message);
    qDebug() << "Suppressed alert:" << message;
}

bool CustomQWebPage::javaScriptConfirm(const QUrl &securityOrigin, const QString &message)
{
    // The engine asks before-unload questions through this one as well, in a text of its own.
    if (!m_unattended)
        return QWebEnginePage::javaScriptConfirm(securityOrigin, message);
    qDebug() << "Suppressed confirm, answered yes:" << message;
    return true;
}

bool CustomQWebPage::javaScriptPrompt(const QUrl &securityOrigin, const QString &message,
                                      const QString &defaultValue, QString *result)
{
    if (!m_unattended)
        return QWebEnginePage::javaScriptPrompt(securityOrigin, message, defaultValue, result);
    qDebug() << "Suppressed prompt, answered cancel:" << message;
    return false;
}

QStringList CustomQWebPage::chooseFiles(FileSelectionMode mode, const QStringList &oldFiles,
                                        const QStringList &acceptedMimeTypes)
{
    if (!m_unattended)
        return QWebEnginePage::chooseFiles(mode, oldFiles, acceptedMimeTypes);
    qDebug() << "Suppressed file chooser.";
    return QStringList();
}

void CustomQWebPage::onPrintRequested()
{
    qDebug() << "Suppressed print request.";
}

void CustomQWebPage::onAuthenticationRequired(const QUrl &url, QAuthenticator *authenticator)
{
    qDebug() << "Suppressed authentication request for" << url.toString();
    // An empty authenticator cancels the request.
    *authenticator = QAuthenticator();
}

void CustomQWebPage::onProxyAuthenticationRequired(const QUrl &url, QAuthenticator *authenticator,
                                                   const QString &proxyHost)
{
    Q_UNUSED(url)
    Q_UNUSED(proxyHost)
    qDebug() << "Suppressed proxy authentication request.";
    *authenticator = QAuthenticator();
}

void CustomQWebPage::onFeaturePermissionRequested(const QUrl &origin, Feature feature)
{
    qDebug() << "Suppressed permission request:" << feature;
    setFeaturePermission(origin, feature, PermissionDeniedByUser);
}

void CustomQWebPage::javaScriptConsoleMessage(JavaScriptConsoleMessageLevel level,
                                              const QString &message, int lineNumber,
                                              const QString &sourceID)
{
    if (level == ErrorMessageLevel)
        emit scriptError(message, lineNumber);
    QWebEnginePage::javaScriptConsoleMessage(level, message, lineNumber, sourceID);
}
