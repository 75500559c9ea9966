#include "thunartakeover.h"

ThunarTakeover::ThunarTakeover()
    : m_edit(QStringLiteral("thunar-volman"))
{
    takeOver();
}

ThunarTakeover::~ThunarTakeover()
{
    giveBack();
}

bool ThunarTakeover::disableImpl()
{
    QList<XfconfEdit::Change> changes;
    for (const char *property : {"/autobrowse/enabled", "/autoopen/enabled", "/autorun/enabled"})
        changes << XfconfEdit::Change{QString::fromLatin1(property), QStringLiteral("bool"),
                                      QStringLiteral("false")};
    m_edit.saveBackup(changes);
    registerGiveBack();
    return m_edit.write(changes);
}

QList<QStringList> ThunarTakeover::giveBackCommands() const
{
    return m_edit.restoreCommands();
}
