#include "exitpassworddialog.h"

#include <QEvent>
#include <QInputEvent>
#include <QLineEdit>
#include <QPointer>

namespace {
const int inactivityTimeoutMs = 10000;
}

ExitPasswordDialog::ExitPasswordDialog(QWidget *parent)
    : QInputDialog(parent)
    , m_timer(this)
{
    setWindowTitle(tr("Password Required"));
    setLabelText(tr("Administrator password:"));
    setTextEchoMode(QLineEdit::Password);
    setMouseTracking(true);
    m_eventFilter = new ExitPasswordDialogEventFilter(this);
    installEventFilter(m_eventFilter);
    connect(&m_timer, &QTimer::timeout, this, &ExitPasswordDialog::onTimeout);
}

QString ExitPasswordDialog::run()
{
    m_timer.start(inactivityTimeoutMs);
    QPointer<ExitPasswordDialog> guard(this);
    const int result = exec();
    // The time-out's deferred deletion may already have run inside the modal loop.
    if (!guard)
        return QString();
    m_timer.stop();
    if (result == QDialog::Rejected)
        return QString();
    return textValue();
}

void ExitPasswordDialog::onTimeout()
{
    m_timer.stop();
    close();
    deleteLater();
}

void ExitPasswordDialog::resetTimer()
{
    // Only while the prompt is running: input after it ended must not arm a late time-out.
    if (m_timer.isActive())
        m_timer.start(inactivityTimeoutMs);
}

void ExitPasswordDialog::showEvent(QShowEvent *event)
{
    QInputDialog::showEvent(event);
    // Typing goes to the password field and is taken there, so the dialog alone would not see it.
    const QList<QWidget *> children = findChildren<QWidget *>();
    for (QWidget *child : children)
        child->installEventFilter(m_eventFilter);
}

ExitPasswordDialogEventFilter::ExitPasswordDialogEventFilter(ExitPasswordDialog *dialog)
    : QObject(dialog)
{
}

bool ExitPasswordDialogEventFilter::eventFilter(QObject *watched, QEvent *event)
{
    Q_UNUSED(watched)
    if (dynamic_cast<QInputEvent *>(event)) {
        if (auto *dialog = qobject_cast<ExitPasswordDialog *>(parent()))
            dialog->resetTimer();
    }
    return false;
}
