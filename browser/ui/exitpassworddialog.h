#pragma once

#include <QInputDialog>
#include <QTimer>

class ExitPasswordDialogEventFilter;

// Asks for the administrator password before the application may end. Left without input for
// 10 s it closes as cancelled and schedules its own deletion, so whoever holds it keeps it in a
// QPointer and deletes it through that (a pending deletion is dropped when it is deleted first).
class ExitPasswordDialog : public QInputDialog
{
    Q_OBJECT

public:
    explicit ExitPasswordDialog(QWidget *parent);

    // The typed text, or an empty string when cancelled or timed out.
    QString run();

public Q_SLOTS:
    void onTimeout();
    void resetTimer();

protected:
    void showEvent(QShowEvent *event) override;

private:
    QTimer m_timer;
    ExitPasswordDialogEventFilter *m_eventFilter;
};

// Gives the user another full time-out on every key press, click or mouse movement.
class ExitPasswordDialogEventFilter : public QObject
{
    Q_OBJECT

public:
    explicit ExitPasswordDialogEventFilter(ExitPasswordDialog *dialog);

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;
};
