#include "customqwebpage.h"

#include "settings.h"

#include <QAuthenticator>
#include <QDebug>
#include <QLocale>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QWebFrame>
#include <QWebSettings>

#include <sys/utsname.h>

namespace {
const char kioskVersion[] = "16.04.a";
}

CustomQWebPage::CustomQWebPage(QObject *parent)
    : QWebPage(parent)
{
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
    const QString configured
        = Settings::load(false, nullptr)->userAgent();
    return configured.isEmpty() ? builtInUserAgent() : configured;
}

QString CustomQWebPage::builtInUserAgent()
{
    struct utsname system;
    const QString systemName
        = ::uname(&system) == 0 ? QString::fromLocal8Bit(system.sysname) : QString();
    return QStringLiteral("Mozilla/5.0 (X11; %1; %2) AppleWebKit/%3 (KHTML, like Gecko) "
                          "Chrome/36.0.1985.125 Safari/%3 VorsaneKiosk/%4")
        .arg(systemName, QLocale().name(), qWebKitVersion(), QString::fromLatin1(kioskVersion));
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
