#include "restrictedwebview.h"

#include "authdialog.h"
#include "restrictedwebpage.h"
#include "settings.h"

#include <QAuthenticator>
#include <QLineEdit>
#include <QMouseEvent>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPointer>

RestrictedWebView::RestrictedWebView(QUrl url, QWidget *parent)
    : QWebView(parent)
    , m_page(new RestrictedWebPage(this))
    , m_home(Settings::load(false, nullptr)->defaultUrl())
{
    setPage(m_page);
    connect(m_page, &RestrictedWebPage::urlDenied, this, &RestrictedWebView::onUrlDenied);
    if (url.isValid())
        load(url);
    connect(m_page->networkAccessManager(), &QNetworkAccessManager::authenticationRequired, this,
            &RestrictedWebView::onAuthRequired);
    setContextMenuPolicy(Qt::NoContextMenu);
    setMouseTracking(true);
    installEventFilter(this);
}

void RestrictedWebView::home()
{
    if (!m_home.isEmpty())
        load(m_home);
}

bool RestrictedWebView::eventFilter(QObject *watched, QEvent *event)
{
    if (event->type() == QEvent::MouseMove)
        emit mouseMoved();
    else if (event->type() == QEvent::MouseButtonPress
             && static_cast<QMouseEvent *>(event)->button() == Qt::RightButton)
        return true;
    return QWebView::eventFilter(watched, event);
}

QWebView *RestrictedWebView::createWindow(QWebPage::WebWindowType type)
{
    Q_UNUSED(type)
    auto *view = new RestrictedWebView(QUrl(), this);
    view->setHomeUrl(m_home);
    emit webViewCreated(view);
    // Nobody took it into a tab: the window is refused.
    if (view->parentWidget() == this) {
        view->deleteLater();
        return nullptr;
    }
    view->show();
    return view;
}

void RestrictedWebView::onAuthRequired(QNetworkReply *reply, QAuthenticator *authenticator)
{
    QPointer<QNetworkReply> replyGuard(reply);
    QPointer<RestrictedWebView> self(this);
    auto *dialog = new AuthDialog(this);
    QPointer<AuthDialog> dialogGuard(dialog);
    dialog->setModal(true);
    RestrictedWebPage::runDialog(dialog);
    // The session may have ended while the dialog was open.
    if (!self)
        return;
    if (replyGuard && dialogGuard) {
        authenticator->setUser(dialog->usernameEdit->text());
        authenticator->setPassword(dialog->passwordEdit->text());
    }
    emit m_page->dialogFinished();
}

void RestrictedWebView::onUrlDenied(QString &url)
{
    Q_UNUSED(url)
}
