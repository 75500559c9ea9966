#include "restrictedwebview.h"

#include "authdialog.h"
#include "pagedialogs.h"
#include "restrictedwebpage.h"
#include "settings.h"

#include <QAuthenticator>
#include <QLineEdit>
#include <QMouseEvent>
#include <QPointer>

RestrictedWebView::RestrictedWebView(QUrl url, QWidget *parent)
    : WebView(parent)
    , m_page(new RestrictedWebPage(this))
    , m_home(Settings::load(false, nullptr)->defaultUrl())
{
    setPage(m_page);
    connect(m_page, &RestrictedWebPage::urlDenied, this, &RestrictedWebView::onUrlDenied);
    if (url.isValid())
        load(url);
    connect(m_page, &RestrictedWebPage::credentialsRequired, this,
            &RestrictedWebView::onAuthRequired);
    setContextMenuPolicy(Qt::NoContextMenu);
    setMouseTracking(true);
    installInputFilter(this);
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
    return WebView::eventFilter(watched, event);
}

WebView *RestrictedWebView::newWindow()
{
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

void RestrictedWebView::onAuthRequired(const QUrl &url, QAuthenticator *authenticator)
{
    Q_UNUSED(url)
    QPointer<RestrictedWebView> self(this);
    auto *dialog = new AuthDialog(this);
    QPointer<AuthDialog> dialogGuard(dialog);
    dialog->setModal(true);
    PageDialogs::runDialog(dialog);
    // The session may have ended while the dialog was open.
    if (!self)
        return;
    if (dialogGuard) {
        authenticator->setUser(dialog->usernameEdit->text());
        authenticator->setPassword(dialog->passwordEdit->text());
    }
    emit m_page->dialogFinished();
}

void RestrictedWebView::onUrlDenied(QString &url)
{
    Q_UNUSED(url)
}
