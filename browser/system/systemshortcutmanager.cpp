#include "systemshortcutmanager.h"

#include "watchdog.h"

#include "utils.h"

#include <QDebug>
#include <QFile>
#include <QProcess>

namespace {

bool runXmodmap(const QStringList &arguments, QByteArray *output = nullptr)
{
    return Utils::runAndWait(QStringLiteral("xmodmap"), arguments, output) == 0;
}
} // namespace

SystemShortcutManager::SystemShortcutManager(bool fullscreen, bool passwordSet)
    : m_backup(QString::fromLocal8Bit(qgetenv("HOME"))
               + QLatin1String("/.vorsane-kiosk/xmodmap-backup"))
{
    if (!fullscreen || !passwordSet)
        return;
    // Keep the current key map so the exact layout comes back, whatever it was.
    QByteArray keymap;
    if (!runXmodmap({QStringLiteral("-pke")}, &keymap) || keymap.isEmpty()) {
        qDebug() << "Unable to read the key map; system shortcuts stay enabled.";
        return;
    }
    QFile backup(m_backup);
    if (!backup.open(QIODevice::WriteOnly | QIODevice::Truncate) || backup.write(keymap) < 0) {
        qDebug() << "Unable to save the key map to" << m_backup;
        return;
    }
    backup.close();
    // From here on the map may be changed, so the destructor always restores it.
    m_disabled = true;
    runXmodmap({QStringLiteral("-e"), QStringLiteral("clear mod4")});
    runXmodmap({QStringLiteral("-e"), QStringLiteral("keysym Super_L =")});
    runXmodmap({QStringLiteral("-e"), QStringLiteral("keysym Super_R =")});
    qDebug() << "System shortcuts disabled.";
    Watchdog::setGiveBack(QStringLiteral("System shortcuts"),
                          {{QStringLiteral("xmodmap"), m_backup},
                           {QStringLiteral("xmodmap"), QStringLiteral("-e"),
                            QStringLiteral("add mod4 = Super_L Super_R")}});
}

SystemShortcutManager::~SystemShortcutManager()
{
    if (!m_disabled)
        return;
    runXmodmap({m_backup});
    runXmodmap({QStringLiteral("-e"), QStringLiteral("add mod4 = Super_L Super_R")});
    QFile::remove(m_backup);
    Watchdog::setGiveBack(QStringLiteral("System shortcuts"), {});
    qDebug() << "System shortcuts restored.";
}
