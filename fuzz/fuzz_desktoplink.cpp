// A desktop link file of any content, converted into the address it points to.
#include "fuzzsupport.h"
#include "playlistitem.h"

#include <QFile>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const QString path = fuzz::home() + QStringLiteral("/link.desktop");
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return 0;
    file.write(reinterpret_cast<const char *>(data), qint64(size));
    file.close();
    PlaylistItem item(QStringLiteral("file://") + path, PlaylistItem::DesktopLink, 5, false,
                      QStringList());
    return 0;
}
