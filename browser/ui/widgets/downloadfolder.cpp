#include "downloadfolder.h"

#include <QDir>
#include <QFileInfo>

#include <unistd.h>

namespace DownloadFolder {

QString path()
{
    return QStringLiteral("/tmp/sitedeck-%1").arg(::getuid());
}

QString target(const QString &fileName)
{
    // A name from the server must not leave the working folder.
    QString name = QFileInfo(fileName).fileName();
    if (name.isEmpty() || name == QLatin1String("..") || name == QLatin1String("."))
        name = QStringLiteral("download");
    // Another session may have removed the folder since this one began.
    QDir().mkpath(path());
    return path() + QLatin1Char('/') + name;
}

} // namespace DownloadFolder
