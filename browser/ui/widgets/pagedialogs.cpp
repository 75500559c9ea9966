#include "pagedialogs.h"

#include <QCoreApplication>
#include <QInputDialog>
#include <QMessageBox>
#include <QPointer>

namespace {
int s_openDialogs = 0;
} // namespace

namespace PageDialogs {

int openDialogs()
{
    return s_openDialogs;
}

int runDialog(QDialog *dialog)
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

void alert(QWidget *parent, const QString &message)
{
    auto *box
        = new QMessageBox(QMessageBox::Information,
                          QCoreApplication::translate("RestrictedWebPage", "JavaScript Alert"),
                          message.toHtmlEscaped(), QMessageBox::Ok, parent);
    runDialog(box);
}

bool confirm(QWidget *parent, const QString &message)
{
    auto *box
        = new QMessageBox(QMessageBox::Question,
                          QCoreApplication::translate("RestrictedWebPage", "JavaScript Confirm"),
                          message.toHtmlEscaped(), QMessageBox::Yes | QMessageBox::No, parent);
    QPointer<QMessageBox> guard(box);
    const int result = runDialog(box);
    return guard && result != QDialog::Rejected
           && box->clickedButton() == box->button(QMessageBox::Yes);
}

bool prompt(QWidget *parent, const QString &message, const QString &defaultValue, QString *result)
{
    auto *input = new QInputDialog(parent);
    input->setWindowTitle(QCoreApplication::translate("RestrictedWebPage", "JavaScript Prompt"));
    input->setLabelText(message.toHtmlEscaped());
    input->setTextValue(defaultValue);
    QPointer<QInputDialog> guard(input);
    const bool accepted = runDialog(input) == QDialog::Accepted && guard;
    if (accepted && result)
        *result = input->textValue();
    return accepted;
}

} // namespace PageDialogs
