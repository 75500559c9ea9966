#include "xmodmapshortcutmanager.h"

#include "statepaths.h"
#include "utils.h"

#include <QDebug>
#include <QFile>

namespace {

bool runXmodmap(const QStringList &arguments, QByteArray *output = nullptr)
{
    return Utils::runAndWait(QStringLiteral("xmodmap"), arguments, output) == 0;
}

QStringList superKeysBack()
{
    return {QStringLiteral("-e"), QStringLiteral("add mod4 = Super_L Super_R")};
}
} // namespace

XmodmapShortcutManager::XmodmapShortcutManager()
    : m_backup(StatePaths::shortcutBackup())
{
    takeOver();
}

XmodmapShortcutManager::~XmodmapShortcutManager()
{
    giveBack();
}

bool XmodmapShortcutManager::disableImpl()
{
    QByteArray keymap;
    if (!runXmodmap({QStringLiteral("-pke")}, &keymap) || keymap.isEmpty()) {
        qDebug() << "Unable to read the key map; system shortcuts stay enabled.";
        return false;
    }
    if (!Utils::writeWhole(m_backup, keymap)) {
        qDebug() << "Unable to save the key map to" << m_backup;
        return false;
    }
    // From here on the map may be changed, so it is always restored.
    runXmodmap({QStringLiteral("-e"), QStringLiteral("clear mod4")});
    runXmodmap({QStringLiteral("-e"), QStringLiteral("keysym Super_L =")});
    runXmodmap({QStringLiteral("-e"), QStringLiteral("keysym Super_R =")});
    return true;
}

void XmodmapShortcutManager::restoreImpl()
{
    runXmodmap({m_backup});
    runXmodmap(superKeysBack());
    QFile::remove(m_backup);
}

QList<QStringList> XmodmapShortcutManager::giveBackCommands() const
{
    return {{QStringLiteral("xmodmap"), m_backup},
            QStringList(QStringLiteral("xmodmap")) + superKeysBack()};
}
