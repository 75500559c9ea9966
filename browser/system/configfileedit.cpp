#include "configfileedit.h"

#include "statepaths.h"
#include "utils.h"

#include <QCryptographicHash>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {
QByteArray readAll(const QString &path, bool *ok = nullptr)
{
    QFile file(path);
    const bool opened = file.open(QIODevice::ReadOnly);
    if (ok)
        *ok = opened;
    return opened ? file.readAll() : QByteArray();
}
} // namespace

ConfigFileEdit::ConfigFileEdit(const QString &file, const QStringList &defaults,
                               const QByteArray &fallback, Edit edit)
    : m_file(file)
    , m_defaults(defaults)
    , m_fallback(fallback)
    , m_edit(std::move(edit))
{
    // One copy per file, whatever its name: several desktops name theirs alike.
    const QByteArray id = QCryptographicHash::hash(file.toUtf8(), QCryptographicHash::Sha1).toHex();
    m_backup = StatePaths::desktopBackupDir() + QLatin1Char('/') + QString::fromLatin1(id.left(12))
               + QLatin1Char('-') + QFileInfo(file).fileName();
}

bool ConfigFileEdit::saveBackup()
{
    m_existed = QFileInfo::exists(m_file);
    if (!m_existed)
        return true;
    QDir().mkpath(StatePaths::desktopBackupDir());
    QFile::remove(m_backup);
    if (!QFile::copy(m_file, m_backup)) {
        qDebug() << "Unable to keep a copy of" << m_file;
        return false;
    }
    return true;
}

bool ConfigFileEdit::write()
{
    QByteArray base;
    bool found = m_existed;
    if (m_existed)
        base = readAll(m_file);
    for (int i = 0; !found && i < m_defaults.size(); ++i)
        base = readAll(m_defaults.at(i), &found);
    if (!found)
        base = m_fallback;
    const QByteArray changed = m_edit(base);
    if (changed.isEmpty()) {
        qDebug() << "Unable to understand" << m_file << "; it is left as it is.";
        return false;
    }
    QDir().mkpath(QFileInfo(m_file).absolutePath());
    if (!Utils::writeWhole(m_file, changed)) {
        qDebug() << "Unable to write" << m_file;
        return false;
    }
    return true;
}

QList<QStringList> ConfigFileEdit::restoreCommands() const
{
    if (!m_existed)
        return {{QStringLiteral("rm"), QStringLiteral("-f"), QStringLiteral("--"), m_file}};
    // The copy goes only once the file is back.
    return {{QStringLiteral("sh"), QStringLiteral("-c"),
             QStringLiteral("cp -p -- \"$1\" \"$2\" && rm -f -- \"$1\""), QStringLiteral("sh"),
             m_backup, m_file}};
}
