#include "xfwmshortcutmanager.h"

#include <QDebug>

namespace {
const QStringList sets{QStringLiteral("/xfwm4/custom/"), QStringLiteral("/commands/custom/")};
}

XfwmShortcutManager::XfwmShortcutManager()
    : m_edit(QStringLiteral("xfce4-keyboard-shortcuts"))
{
    takeOver();
}

XfwmShortcutManager::~XfwmShortcutManager()
{
    giveBack();
}

bool XfwmShortcutManager::disableImpl()
{
    QMap<QString, QString> shortcuts;
    if (!m_edit.list(QStringLiteral("/"), &shortcuts)) {
        qDebug() << "Unable to read the XFCE shortcuts; system shortcuts stay enabled.";
        return false;
    }
    QList<XfconfEdit::Change> changes;
    for (auto it = shortcuts.cbegin(); it != shortcuts.cend(); ++it) {
        for (const QString &set : sets) {
            if (it.key().startsWith(set) && !it.key().endsWith(QLatin1String("/override")))
                changes << XfconfEdit::Change{it.key(), QString(), QString()};
        }
    }
    // An empty custom set in force means no shortcut at all; the defaults stay unused.
    for (const QString &set : sets)
        changes << XfconfEdit::Change{set + QLatin1String("override"), QStringLiteral("bool"),
                                      QStringLiteral("true")};
    m_edit.saveBackup(changes, shortcuts);
    registerGiveBack();
    return m_edit.write(changes);
}

void XfwmShortcutManager::restoreImpl()
{
    runGiveBackCommands();
}

QList<QStringList> XfwmShortcutManager::giveBackCommands() const
{
    return m_edit.restoreCommands();
}
