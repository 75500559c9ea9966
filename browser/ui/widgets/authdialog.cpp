#include "authdialog.h"

#include <QCoreApplication>
#include <QDialogButtonBox>
#include <QGridLayout>
#include <QLabel>
#include <QLineEdit>

void Ui_AuthDialog::setupUi(QDialog *dialog)
{
    dialog->setObjectName(QStringLiteral("AuthDialog"));
    gridLayout = new QGridLayout(dialog);
    label = new QLabel(dialog);
    gridLayout->addWidget(label, 0, 0, 1, 2);
    usernameLabel = new QLabel(dialog);
    gridLayout->addWidget(usernameLabel, 1, 0);
    usernameEdit = new QLineEdit(dialog);
    usernameEdit->setObjectName(QStringLiteral("usernameEdit"));
    gridLayout->addWidget(usernameEdit, 1, 1);
    passwordLabel = new QLabel(dialog);
    gridLayout->addWidget(passwordLabel, 2, 0);
    passwordEdit = new QLineEdit(dialog);
    passwordEdit->setObjectName(QStringLiteral("passwordEdit"));
    passwordEdit->setEchoMode(QLineEdit::Password);
    gridLayout->addWidget(passwordEdit, 2, 1);
    buttonBox = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, dialog);
    gridLayout->addWidget(buttonBox, 3, 0, 1, 2);
    retranslateUi(dialog);
    QObject::connect(buttonBox, &QDialogButtonBox::accepted, dialog, &QDialog::accept);
    QObject::connect(buttonBox, &QDialogButtonBox::rejected, dialog, &QDialog::reject);
}

void Ui_AuthDialog::retranslateUi(QDialog *dialog)
{
    dialog->setWindowTitle(QCoreApplication::translate("AuthDialog", "Authentication"));
    label->setText(
        QCoreApplication::translate("AuthDialog", "This website requires authentication:"));
    usernameLabel->setText(QCoreApplication::translate("AuthDialog", "Username:"));
    passwordLabel->setText(QCoreApplication::translate("AuthDialog", "Password:"));
}

AuthDialog::AuthDialog(QWidget *parent)
    : QDialog(parent)
{
    setupUi(this);
}
