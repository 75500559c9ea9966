#pragma once

#include <QDialog>

class QDialogButtonBox;
class QGridLayout;
class QLabel;
class QLineEdit;

// The form of the authentication dialog, built in code.
class Ui_AuthDialog
{
public:
    QGridLayout *gridLayout;
    QLabel *label;
    QLabel *usernameLabel;
    QLineEdit *usernameEdit;
    QLabel *passwordLabel;
    QLineEdit *passwordEdit;
    QDialogButtonBox *buttonBox;

    void setupUi(QDialog *dialog);
    void retranslateUi(QDialog *dialog);
};

// Asks for a user name and password when a site requires authentication.
class AuthDialog : public QDialog, public Ui_AuthDialog
{
    Q_OBJECT

public:
    explicit AuthDialog(QWidget *parent = nullptr);
};
