#pragma once

#include <QString>

class QDialog;
class QWidget;

// The dialogs a kiosk page may open for its visitor (alert, confirm, prompt, the password
// question), whichever web engine asks for them. Each runs its own event loop.
namespace PageDialogs {

// Modal dialogs running right now, in any page.
int openDialogs();
// Runs a dialog modally; it may be rejected from outside (end of session) at any time.
int runDialog(QDialog *dialog);

void alert(QWidget *parent, const QString &message);
bool confirm(QWidget *parent, const QString &message);
// False when the visitor cancelled; then *result is left alone.
bool prompt(QWidget *parent, const QString &message, const QString &defaultValue, QString *result);

} // namespace PageDialogs
