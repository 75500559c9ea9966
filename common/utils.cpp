#include "utils.h"

#include "childprocess.h"
#include "settings.h"
#include "watchdog.h"

#include <QDebug>
#include <QProcess>
#include <QSaveFile>

#include <crypt.h>
#include <cstdlib>
#include <sys/statfs.h>

namespace {
const char alphabet[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ1234567890";
const int alphabetSize = 62;
} // namespace

bool Utils::validateAdminPassword(QString typed)
{
    const QString stored
        = Settings::load(false, nullptr)->adminPassword();
    if (stored.isEmpty())
        return true;
    const QByteArray setting = stored.toUtf8();
    crypt_data data = {};
    const char *hashed = crypt_r(typed.toUtf8().constData(), setting.constData(), &data);
    // libxcrypt answers failures with a "*" marker rather than null; neither can match a hash.
    const QString result = hashed ? QString::fromLatin1(hashed) : QString();
    return result == stored;
}

qint64 Utils::availableDiskSpace()
{
    struct statfs stats = {};
    if (statfs("/", &stats) != 0)
        return 0;
    return static_cast<qint64>(stats.f_bavail) * static_cast<qint64>(stats.f_bsize);
}

qint64 Utils::totalDiskSpace()
{
    struct statfs stats = {};
    if (statfs("/", &stats) != 0)
        return 0;
    return static_cast<qint64>(stats.f_blocks) * static_cast<qint64>(stats.f_bsize);
}

char Utils::genChar()
{
    return alphabet[std::rand() % alphabetSize];
}

std::string Utils::genString(quint32 length)
{
    std::string text;
    text.reserve(length);
    for (quint32 i = 0; i < length; ++i)
        text.push_back(genChar());
    return text;
}

int Utils::runAndWait(const QString &program, const QStringList &arguments, QByteArray *output)
{
    ChildProcess process;
    process.start(program, arguments);
    const Watchdog::OwnWait wait;
    const bool finished = process.waitForFinished(30000);
    if (output)
        *output = process.readAllStandardOutput();
    if (!finished || process.exitStatus() != QProcess::NormalExit)
        return -1;
    return process.exitCode();
}

QString Utils::getIconTheme()
{
    QByteArray output;
    runAndWait(QStringLiteral("gksu"),
               QProcess::splitCommand(
                   QStringLiteral("--u pi \"xfconf-query -c xsettings -p /Net/IconThemeName\"")),
               &output);
    const int nul = output.indexOf('\0');
    if (nul >= 0)
        output.truncate(nul);
    const QString theme = QString::fromLatin1(output).simplified();
    return theme.isEmpty() ? QStringLiteral("elementary-xfce") : theme;
}

bool Utils::writeWhole(const QString &path, const QByteArray &bytes)
{
    QSaveFile file(path);
    // The flush of its own: commit() in Qt 5.15 does not see a write that fails in the flush it
    // does itself, and puts an empty or cut file in place on a full disk.
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() || !file.flush()
        || !file.commit()) {
        qWarning() << "Cannot write" << path << file.errorString();
        return false;
    }
    return true;
}
