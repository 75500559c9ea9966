#include "restrictedwebpage.h"

#include "customqwebpage.h"
#include "logger.h"
#include "playlistparser.h"
#include "restricteddownload.h"
#include "settings.h"
#include "urlpatternmatcher.h"

#include <QDateTime>
#include <QDebug>
#include <QFile>
#include <QFileInfo>
#include <QInputDialog>
#include <QMessageBox>
#include <QNetworkAccessManager>
#include <QNetworkCookieJar>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QWebFrame>
#include <QWebSettings>

QPointer<QNetworkCookieJar> RestrictedWebPage::s_sessionJar;
int RestrictedWebPage::s_openDialogs = 0;

namespace {
struct LoadedPatterns
{
    QString path;
    QDateTime modified;
    qint64 size = -1;
    std::shared_ptr<const UrlPatternMatcher> matcher;
};
} // namespace

RestrictedWebPage::RestrictedWebPage(QWidget *parent)
    : QWebPage(parent)
    , m_settings(Settings::load(false, nullptr))
{
    setLinkDelegationPolicy(QWebPage::DelegateAllLinks);
    setForwardUnsupportedContent(true);
    setupRegexList();

    QNetworkAccessManager *manager = networkAccessManager();
    if (QNetworkCookieJar *jar = s_sessionJar.data()) {
        // The manager adopts the jar; it stays with its owner, the browser.
        QObject *owner = jar->parent();
        manager->setCookieJar(jar);
        jar->setParent(owner);
    }
    connect(manager, &QNetworkAccessManager::sslErrors, this, &RestrictedWebPage::sslErrorHandler);
    connect(this, &QWebPage::downloadRequested, this, &RestrictedWebPage::onDownloadRequested);
    connect(this, &QWebPage::unsupportedContent, this, &RestrictedWebPage::onUnsupportedContent);
}

void RestrictedWebPage::setupRegexList()
{
    // Every tab builds a page; a large file is compiled once for all of them until it changes.
    static LoadedPatterns loaded;
    QFile file(m_settings->whileListFilename());
    const QFileInfo info(file);
    m_settings->get(QStringLiteral("main/list_use_regex"));
    // Opening a FIFO would wait for a writer; a huge file would take minutes to compile. Either
    // way the browser goes on with the patterns it had.
    const bool irregular = info.exists() && !info.isFile();
    if (irregular || info.size() > PlaylistParser::MaxDocumentBytes) {
        qWarning().noquote() << QStringLiteral("Restriction file %1 rejected: %2.")
                                    .arg(file.fileName(),
                                         irregular
                                             ? QStringLiteral("not a regular file")
                                             : QStringLiteral("larger than %1 MB")
                                                   .arg(PlaylistParser::MaxDocumentBytes >> 20));
        m_patterns = loaded.matcher && loaded.path == info.absoluteFilePath()
                         ? loaded.matcher
                         : std::make_shared<const UrlPatternMatcher>();
        return;
    }
    if (!file.open(QIODevice::ReadOnly)) {
        m_patterns = std::make_shared<const UrlPatternMatcher>();
        return;
    }
    if (loaded.matcher && loaded.path == info.absoluteFilePath()
        && loaded.modified == info.lastModified() && loaded.size == info.size()) {
        m_patterns = loaded.matcher;
        return;
    }
    m_patterns = UrlPatternMatcher::fromRestrictionFile(file, file.fileName());
    file.close();
    loaded = {info.absoluteFilePath(), info.lastModified(), info.size(), m_patterns};
}

bool RestrictedWebPage::urlIsAllowed(QUrl &url)
{
    const QString mode = m_settings->get(QStringLiteral("main/list_mode")).toString();
    if (url.scheme() == QLatin1String("file")
        && !m_settings->get(QStringLiteral("main/can_access_fs")).toBool())
        return false;
    if (mode == QLatin1String("blacklist"))
        return !m_patterns->contains(url.toString());
    if (mode == QLatin1String("whitelist"))
        return m_patterns->contains(url.toString());
    return true;
}

bool RestrictedWebPage::acceptNavigationRequest(QWebFrame *frame, const QNetworkRequest &request,
                                                QWebPage::NavigationType type)
{
    Q_UNUSED(frame)
    Q_UNUSED(type)
    QUrl url = request.url();
    QString text = url.toString();
    if (!urlIsAllowed(url)) {
        emit urlDenied(text);
        Logger::logInfo(QStringLiteral("DENIED: %1").arg(text));
        return false;
    }
    Logger::logInfo(QStringLiteral("ALLOWED: %1").arg(text));
    return true;
}

QString RestrictedWebPage::userAgentForUrl(const QUrl &url) const
{
    Q_UNUSED(url)
    const QString configured = m_settings->userAgent();
    return configured.isEmpty() ? CustomQWebPage::builtInUserAgent() : configured;
}

void RestrictedWebPage::sslErrorHandler(QNetworkReply *reply, const QList<QSslError> &errors)
{
    Q_UNUSED(errors)
    reply->ignoreSslErrors();
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

void RestrictedWebPage::setSessionCookieJar(QNetworkCookieJar *jar)
{
    s_sessionJar = jar;
}

int RestrictedWebPage::openDialogs()
{
    return s_openDialogs;
}

int RestrictedWebPage::runDialog(QDialog *dialog)
{
    // The dialog lives on the heap: whoever ends the session may reject it or delete its
    // parent while it runs, and nothing on this stack must be destroyed twice.
    QPointer<QDialog> guard(dialog);
    ++s_openDialogs;
    const int result = dialog->exec();
    --s_openDialogs;
    if (guard)
        guard->deleteLater();
    return result;
}

void RestrictedWebPage::javaScriptAlert(QWebFrame *frame, const QString &message)
{
    Q_UNUSED(frame)
    auto *box = new QMessageBox(QMessageBox::Information, tr("JavaScript Alert"),
                                message.toHtmlEscaped(), QMessageBox::Ok, view());
    runDialog(box);
    emit dialogFinished();
}

bool RestrictedWebPage::javaScriptConfirm(QWebFrame *frame, const QString &message)
{
    Q_UNUSED(frame)
    auto *box
        = new QMessageBox(QMessageBox::Question, tr("JavaScript Confirm"), message.toHtmlEscaped(),
                          QMessageBox::Yes | QMessageBox::No, view());
    QPointer<QMessageBox> guard(box);
    const int result = runDialog(box);
    const bool yes = guard && result != QDialog::Rejected
                     && box->clickedButton() == box->button(QMessageBox::Yes);
    emit dialogFinished();
    return yes;
}

bool RestrictedWebPage::javaScriptPrompt(QWebFrame *frame, const QString &message,
                                         const QString &defaultValue, QString *result)
{
    Q_UNUSED(frame)
    auto *input = new QInputDialog(view());
    input->setWindowTitle(tr("JavaScript Prompt"));
    input->setLabelText(message.toHtmlEscaped());
    input->setTextValue(defaultValue);
    QPointer<QInputDialog> guard(input);
    const bool accepted = runDialog(input) == QDialog::Accepted && guard;
    if (accepted && result)
        *result = input->textValue();
    emit dialogFinished();
    return accepted;
}
