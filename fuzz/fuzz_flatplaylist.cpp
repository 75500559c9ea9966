// A flat text playlist of any bytes: parsed into its loop and rebuilt.
#include "flatplaylistparser.h"
#include "fuzzsupport.h"

#include <QDateTime>

#include <utility>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::application();
    const QString text = QString::fromUtf8(reinterpret_cast<const char *>(data), int(size));
    // Local files and shares would walk the fuzzing machine's file system.
    if (text.contains(QLatin1String("file:"), Qt::CaseInsensitive)
        || text.contains(QLatin1String("smb:"), Qt::CaseInsensitive))
        return 0;
    FlatPlaylistParser parser(5, text);
    parser.refresh();
    const QDateTime now = QDateTime::currentDateTime();
    if (PlaylistLoopPtr loop = parser.selectLoop(now, now)) {
        for (const PlaylistItemPtr &item : std::as_const(loop->items)) {
            loop->getFromIdle(item->url);
            loop->getToIdle(item->url);
        }
    }
    return 0;
}
