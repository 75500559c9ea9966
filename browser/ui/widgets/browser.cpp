#include "browser.h"

#include "frozenpages.h"
#include "locationedit.h"
#include "navbar.h"
#include "page.h"
#include "pagedialogs.h"
#include "restricteddownload.h"
#include "restrictedwebpage.h"
#include "restrictedwebview.h"
#include "settings.h"
#include "sqlitecookiejar.h"
#include "utils.h"

#include <QAction>
#include <QCoreApplication>
#include <QDebug>
#include <QDialog>
#include <QDir>
#include <QEvent>
#include <QIcon>
#include <QLabel>
#include <QPointer>
#include <QPrintDialog>
#include <QPrinter>
#include <QStatusBar>
#include <QTabBar>
#include <QTabWidget>
#include <QTimer>
#include <QToolButton>
#include <QVBoxLayout>

namespace {
const char makerHomePage[] = "https://www.vorsane.com/";
const int deniedMessageMs = 5000;
// How often the tabs' renderers are asked whether they still answer.
const int probeIntervalMs = 5000;
} // namespace

Browser::Browser(QWidget *parent, const QUrl &remoteControl)
    : QWidget(parent)
    , Runnable(0)
    , m_settings(Settings::load(false, nullptr))
    , m_tabs(new QTabWidget(this))
    , m_downloadIcon(new QLabel(this))
    , m_statusBar(new QStatusBar(this))
    , m_cookieJar(new SqliteCookieJar(this))
    , m_hideToolbar(m_settings->hideToolbar())
    , m_remoteControl(remoteControl.isValid())
{
    connect(this, &Browser::end, notifier(), &RunnableNotifier::end);
    QDir().mkpath(RestrictedDownload::workingFolder());
    RestrictedWebPage::setSessionCookieJar(m_cookieJar);

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(m_tabs);
    layout->addWidget(m_statusBar);
    m_tabs->setTabsClosable(true);
    m_tabs->setMovable(true);
    connect(m_tabs, &QTabWidget::tabCloseRequested, this, &Browser::onTabCloseRequested);

    if (!m_hideToolbar) {
        auto *add = new QToolButton(m_tabs);
        add->setIcon(QIcon::fromTheme(QStringLiteral("list-add")));
        add->setToolTip(tr("New tab"));
        add->setAutoRaise(true);
        connect(add, &QToolButton::clicked, this, QOverload<>::of(&Browser::newPage));
        m_tabs->setCornerWidget(add, Qt::TopRightCorner);
    }

    m_downloadIcon->setPixmap(QIcon::fromTheme(QStringLiteral("download")).pixmap(16, 16));
    m_downloadIcon->hide();
    m_statusBar->addPermanentWidget(m_downloadIcon);

    if (!remoteControl.isValid() && m_settings->get(QStringLiteral("main/with_timer")).toBool()) {
        m_remaining = m_settings->get(QStringLiteral("main/default_timer")).toInt();
        setTimeout(1);
        m_timeLabel = new QLabel(this);
        m_statusBar->addPermanentWidget(m_timeLabel);
    }

    setContextMenuPolicy(Qt::CustomContextMenu);
    setShortcuts();
    setHome(remoteControl.isValid() ? remoteControl.toString() : m_settings->defaultUrl());
    m_newTabUrl = QUrl(m_settings->get(QStringLiteral("main/new_tab_url")).toString());
    if (m_newTabUrl.isEmpty() || remoteControl.isValid())
        m_newTabUrl = m_home;
    WebView::watchForStalls(m_home);

    m_probeTimer.setInterval(probeIntervalMs);
    connect(&m_probeTimer, &QTimer::timeout, this, &Browser::probeTabs);
}

// The pages' jar pointer clears itself with the jar; a newer session's jar is left alone.
Browser::~Browser()
{
    WebView::stopWatchingForStalls(m_home);
}

void Browser::setShortcuts()
{
    if (m_hideToolbar)
        return;
    const struct
    {
        QKeySequence keys;
        void (Browser::*slot)();
    } shortcuts[] = {
        {QKeySequence(Qt::CTRL | Qt::Key_L), &Browser::selectAddressBar},
        {QKeySequence(Qt::CTRL | Qt::Key_K), &Browser::selectAddressBarAndBeginSearch},
        {QKeySequence(Qt::CTRL | Qt::Key_T), QOverload<>::of(&Browser::newPage)},
        {QKeySequence(Qt::CTRL | Qt::Key_W), &Browser::closeCurrentTab},
        // Up goes to the next tab and down to the previous one, as users of this kiosk know it.
        {QKeySequence(Qt::CTRL | Qt::Key_PageUp), &Browser::nextTab},
        {QKeySequence(Qt::CTRL | Qt::Key_PageDown), &Browser::prevTab},
    };
    for (const auto &shortcut : shortcuts) {
        auto *action = new QAction(this);
        action->setShortcut(shortcut.keys);
        connect(action, &QAction::triggered, this, shortcut.slot);
        addAction(action);
    }
}

Page *Browser::currentPage() const
{
    return qobject_cast<Page *>(m_tabs->currentWidget());
}

void Browser::setHome(QString text)
{
    if (text.isEmpty())
        text = QString::fromLatin1(makerHomePage);
    m_home = QUrl(text);
}

void Browser::newPage()
{
    newPage(QUrl());
}

void Browser::newPage(QUrl url)
{
    if (url.isEmpty())
        url = m_newTabUrl;
    setupPage(new Page(url, this));
}

void Browser::newPage(RestrictedWebView *view)
{
    setupPage(new Page(view, this));
}

void Browser::onWebViewCreated(RestrictedWebView *view)
{
    newPage(view);
}

void Browser::setupPage(Page *page)
{
    const QUrl url
        = page->view()->url().isEmpty() ? page->view()->requestedUrl() : page->view()->url();
    page->view()->setHomeUrl(m_home);
    const QString title = url.isValid() && !url.isEmpty() ? url.toString() : tr("New Page");
    m_pages.append(page);
    m_tabs->setCurrentIndex(m_tabs->addTab(page, title));
    connect(page, &Page::titleChanged, this, &Browser::onTitleChanged);
    connect(page->view(), &RestrictedWebView::mouseMoved, this, &Browser::onMouseMove);
    connect(page, &Page::end, this, &Browser::onEnd);
    connect(page->view(), &RestrictedWebView::webViewCreated, this, &Browser::onWebViewCreated);
    connect(page, &Page::downloadStarted, this, &Browser::onDownloadStarted);
    connect(page, &Page::downloadDone, this, &Browser::onDownloadDone);
    connect(page, &Page::urlDenied, this, &Browser::onUrlDenied);
    connect(page->navBar(), &NavBar::printRequested, this, &Browser::onPrintRequested);
    connect(page->view()->restrictedPage(), &RestrictedWebPage::dialogFinished, this,
            &Browser::onDialogFinished);
    refreshTabBar();
}

void Browser::closeCurrentTab()
{
    onTabCloseRequested(m_tabs->currentIndex());
}

void Browser::onTabCloseRequested(int index)
{
    if (m_tabs->count() < 2 || index < 0 || index >= m_tabs->count())
        return;
    auto *page = qobject_cast<Page *>(m_tabs->widget(index));
    m_tabs->removeTab(index);
    m_pages.removeAll(page);
    if (page) {
        // Plug-in content would go on playing until the page is really gone.
        page->removeEmbedElements();
        page->deleteLater();
    }
    refreshTabBar();
}

void Browser::nextTab()
{
    if (m_tabs->count() > 0)
        m_tabs->setCurrentIndex((m_tabs->currentIndex() + 1) % m_tabs->count());
}

void Browser::prevTab()
{
    if (m_tabs->count() > 0)
        m_tabs->setCurrentIndex((m_tabs->currentIndex() + m_tabs->count() - 1) % m_tabs->count());
}

void Browser::selectAddressBar()
{
    if (Page *page = currentPage()) {
        page->navBar()->locationEdit()->selectAll();
        page->navBar()->locationEdit()->setFocus();
    }
}

void Browser::selectAddressBarAndBeginSearch()
{
    if (Page *page = currentPage()) {
        LocationEdit *edit = page->navBar()->locationEdit();
        edit->setText(QStringLiteral("?"));
        edit->setCursorPosition(1);
        edit->setFocus();
    }
}

void Browser::addTime(int seconds)
{
    m_remaining += seconds;
}

void Browser::refreshTabBar()
{
    if (m_hideToolbar)
        m_tabs->tabBar()->setVisible(m_tabs->count() >= 2);
}

void Browser::hideToolbar()
{
    for (Page *page : std::as_const(m_pages))
        page->navBar()->hide();
    refreshTabBar();
}

void Browser::onTitleChanged(QString &title, Page *page)
{
    const int index = m_tabs->indexOf(page);
    if (index >= 0 && !title.isEmpty())
        m_tabs->setTabText(index, title);
}

void Browser::onUrlDenied(QString &url)
{
    m_statusBar->showMessage(tr("DENIED: %1").arg(url), deniedMessageMs);
}

void Browser::onDownloadStarted()
{
    ++m_downloads;
    m_downloadIcon->show();
}

void Browser::onDownloadDone(QString &path, QString &mimeType)
{
    m_downloads = qMax(0, m_downloads - 1);
    if (m_downloads == 0)
        m_downloadIcon->hide();
    m_subprocesses.open(path, mimeType);
}

void Browser::onPrintRequested()
{
    Page *page = currentPage();
    if (!page)
        return;
    // The page may print after this returns; the printer goes when it has.
    auto *printer = new QPrinter(QPrinter::ScreenResolution);
    const QString name = m_settings->get(QStringLiteral("main/printer_name")).toString();
    if (!name.isEmpty())
        printer->setPrinterName(name);
    {
        // Built and dropped unopened: printing goes straight to the configured printer.
        QPrintDialog dialog(printer, this);
    }
    RestrictedWebView *view = page->view();
    // Goes when printing has finished, or with the tab; the printer with it.
    auto *job = new QObject(view);
    connect(job, &QObject::destroyed, QCoreApplication::instance(), [printer] { delete printer; });
    connect(view, &WebView::printFinished, job, [job](bool ok) {
        if (!ok)
            qWarning() << "Printing failed.";
        job->deleteLater();
    });
    view->print(printer);
}

void Browser::onEnd()
{
    emit end();
}

void Browser::onMouseMove()
{
    emit mouseMoved();
}

void Browser::showRemaining()
{
    if (!m_timeLabel)
        return;
    const int left = qMax(0, m_remaining);
    m_timeLabel->setText(QString::asprintf(qPrintable(tr("remaining: %02d:%02d:%02d")), left / 3600,
                                           left / 60 % 60, left % 60));
}

void Browser::closeDialogs()
{
    // Alerts, prompts and the password question run their own event loops; they are closed
    // before the browser goes, so no loop returns into a page that is gone.
    const QList<QDialog *> dialogs = findChildren<QDialog *>();
    for (QDialog *dialog : dialogs) {
        if (dialog->isVisible())
            dialog->reject();
    }
}

void Browser::onDialogFinished()
{
    if (m_deleteWhenIdle && PageDialogs::openDialogs() == 0) {
        m_deleteWhenIdle = false;
        deleteLater();
    }
}

bool Browser::event(QEvent *event)
{
    if (event->type() == QEvent::DeferredDelete && PageDialogs::openDialogs() > 0) {
        closeDialogs();
        m_deleteWhenIdle = true;
        return true;
    }
    return QWidget::event(event);
}

bool Browser::stopImpl()
{
    if (m_stopped)
        return true;
    m_stopped = true;
    m_probeTimer.stop();
    closeDialogs();
    for (Page *page : std::as_const(m_pages)) {
        page->view()->stop();
        page->removeEmbedElements();
    }
    m_subprocesses.empty();
    Utils::runAndWait(QStringLiteral("sh"),
                      {QStringLiteral("-c"),
                       QStringLiteral("rm -rf %1").arg(RestrictedDownload::workingFolder())});
    return true;
}

bool Browser::startImpl()
{
    m_stopped = false;
    if (m_pages.isEmpty())
        newPage(m_home);
    showRemaining();
    m_probeTimer.start();
    return true;
}

void Browser::probeTabs()
{
    for (Page *page : std::as_const(m_pages)) {
        RestrictedWebView *view = page->view();
        const qint64 pid = view->renderProcessPid();
        // Probed once at a time; the engine that runs scripts in this program answers at once.
        if (pid <= 0 || view->property("probing").toBool())
            continue;
        view->setProperty("probing", true);
        QPointer<Page> guard(page);
        view->probeRenderer(FrozenPages::AnswerDeadlineMs, [this, guard, pid](bool answered) {
            if (!guard)
                return;
            guard->view()->setProperty("probing", false);
            if (!answered)
                closeFrozenTab(guard, pid);
        });
    }
}

void Browser::closeFrozenTab(Page *page, qint64 pid)
{
    const QUrl url = page->view()->url();
    if (!FrozenPages::endTab(pid, url))
        return;
    m_statusBar->showMessage(
        tr("The page %1 stopped answering and was closed.").arg(url.toString()), deniedMessageMs);
    // The session goes on: the last tab makes way for the home page.
    if (m_tabs->count() < 2)
        newPage(m_home);
    onTabCloseRequested(m_tabs->indexOf(page));
}

bool Browser::onTimeoutImpl()
{
    --m_remaining;
    showRemaining();
    if (m_remaining > 0)
        return false;
    emit end();
    return true;
}

bool Browser::pauseImpl()
{
    return true;
}

bool Browser::resumeImpl()
{
    return true;
}
