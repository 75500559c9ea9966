#include "navbar.h"

#include "locationedit.h"
#include "pagedialogs.h"
#include "restrictedwebview.h"
#include "settings.h"

#include <QAction>
#include <QIcon>
#include <QMessageBox>
#include <QPointer>

namespace {
const char searchAddress[] = "https://www.mojeek.com/search?q=%1";
}

NavBar::NavBar(RestrictedWebView *view, QWidget *parent)
    : QToolBar(parent)
    , m_view(view)
    , m_location(new LocationEdit(this))
{
    Settings *settings = Settings::load(false, nullptr);
    QAction *home = addAction(QIcon::fromTheme(QStringLiteral("user-home")), tr("Home"));
    connect(home, &QAction::triggered, this, &NavBar::onGoHome);
    addAction(view->navigationAction(WebView::Action::Back));
    addAction(view->navigationAction(WebView::Action::Forward));
    addAction(view->navigationAction(WebView::Action::Stop));
    m_location->setSizePolicy(QSizePolicy::Expanding, m_location->sizePolicy().verticalPolicy());
    connect(m_location, &QLineEdit::returnPressed, this, &NavBar::onLocationChanged);
    addWidget(m_location);
    QAction *go = addAction(QIcon::fromTheme(QStringLiteral("stock_media-play")), tr("Go"));
    connect(go, &QAction::triggered, this, &NavBar::onLocationChanged);
    addAction(view->navigationAction(WebView::Action::Reload));
    if (settings->get(QStringLiteral("main/can_print")).toBool()) {
        QAction *print = addAction(QIcon::fromTheme(QStringLiteral("gtk-print")), tr("Print"));
        connect(print, &QAction::triggered, this, &NavBar::onPrint);
    }
    if (settings->get(QStringLiteral("main/can_end_session")).toBool()) {
        QAction *clear = addAction(QIcon::fromTheme(QStringLiteral("gtk-clear")), tr("Clear"));
        connect(clear, &QAction::triggered, this, &NavBar::onEnd);
    }

    connect(view, &WebView::loadFinished, this, &NavBar::adjustLocation);
    connect(view, &WebView::titleChanged, this, &NavBar::adjustTitle);
    connect(view, &WebView::loadProgress, this, &NavBar::setProgress);
    connect(view, &WebView::urlChanged, this, &NavBar::setHistoryStatus);
}

QString NavBar::searchTemplate()
{
    return QString::fromLatin1(searchAddress);
}

void NavBar::onLocationChanged()
{
    const QString text = m_location->text().simplified();
    QUrl url;
    if (text.startsWith(QLatin1Char('?')))
        url = QUrl(searchTemplate().arg(text.mid(1).replace(QLatin1Char(' '), QLatin1Char('+'))));
    else
        url = QUrl::fromUserInput(text);
    m_view->load(url);
    m_view->setFocus();
}

void NavBar::onGoHome()
{
    m_view->home();
}

void NavBar::adjustLocation(bool ok)
{
    Q_UNUSED(ok)
    m_location->setText(m_view->url().toString());
    m_location->setProgress(0);
}

void NavBar::adjustTitle(const QString &title)
{
    setWindowTitle(title);
}

void NavBar::setProgress(int progress)
{
    m_location->setProgress(progress);
}

void NavBar::setHistoryStatus()
{
    m_view->navigationAction(WebView::Action::Back)->setEnabled(m_view->canGoBack());
    m_view->navigationAction(WebView::Action::Forward)->setEnabled(m_view->canGoForward());
}

void NavBar::onPrint()
{
    emit printRequested();
}

void NavBar::onEnd()
{
    auto *box
        = new QMessageBox(QMessageBox::Warning, tr("End the web session"),
                          tr("Your session will be terminated.\n\nDo you really want to continue?"),
                          QMessageBox::Yes | QMessageBox::No, this);
    QPointer<NavBar> self(this);
    const int answer = PageDialogs::runDialog(box);
    if (self && answer == QMessageBox::Yes)
        emit end();
}
