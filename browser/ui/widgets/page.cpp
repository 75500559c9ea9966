#include "page.h"

#include "navbar.h"
#include "restrictedwebpage.h"
#include "restrictedwebview.h"
#include "settings.h"

#include <QAction>
#include <QVBoxLayout>

namespace kiosk {

Page::Page(QUrl url, QWidget *parent)
    : QWidget(parent)
    , m_settings(Settings::load(false, nullptr))
    , m_view(new RestrictedWebView(url, this))
{
    build();
}

Page::Page(RestrictedWebView *view, QWidget *parent)
    : QWidget(parent)
    , m_settings(Settings::load(false, nullptr))
    , m_view(view)
{
    m_view->setParent(this);
    build();
}

void Page::build()
{
    m_bar = new NavBar(m_view, this);
    m_layout = new QVBoxLayout(this);
    m_layout->setContentsMargins(0, 0, 0, 0);
    m_layout->setSpacing(0);
    RestrictedWebPage *page = m_view->restrictedPage();
    connect(page, &RestrictedWebPage::urlDenied, this, &Page::onUrlDenied);
    connect(page, &RestrictedWebPage::downloadStarted, this, &Page::downloadStarted);
    connect(page, &RestrictedWebPage::downloadDone, this, &Page::downloadDone);
    setup();
    setShortcut();
}

void Page::setup()
{
    const double zoom = m_settings->zoomFactor();
    connect(m_view, &WebView::titleChanged, this, [this](const QString &title) {
        QString text = title;
        adjustTitle(text);
    });
    connect(m_bar, &NavBar::end, this, &Page::onEnd);
    if (!m_settings->hideToolbar())
        m_layout->addWidget(m_bar);
    else
        m_bar->hide();
    m_view->setZoomFactor(zoom);
    m_layout->addWidget(m_view);
    m_view->show();
    show();
}

void Page::setShortcut()
{
    auto *plus = new QAction(this);
    plus->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Plus));
    connect(plus, &QAction::triggered, this, &Page::zoomPlus);
    addAction(plus);
    auto *minus = new QAction(this);
    minus->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Minus));
    connect(minus, &QAction::triggered, this, &Page::zoomMinus);
    addAction(minus);
}

void Page::zoomPlus()
{
    m_view->setZoomFactor(m_view->zoomFactor() + 0.1);
}

void Page::zoomMinus()
{
    m_view->setZoomFactor(m_view->zoomFactor() - 0.1);
}

void Page::adjustTitle(QString &title)
{
    emit titleChanged(title, this);
}

void Page::removeEmbedElements()
{
    m_view->removeEmbedElements();
}

void Page::onEnd()
{
    emit end();
}

void Page::onUrlDenied(QString &url)
{
    emit urlDenied(url);
}

} // namespace kiosk
