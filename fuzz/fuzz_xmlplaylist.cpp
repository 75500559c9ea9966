// An XML schedule of any shape: parsed, its loops selected and walked.
#include "fuzzsupport.h"
#include "playlistparser.h"
#include "xmlplaylistparser.h"

#include <QDateTime>

#include <utility>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::application();
    const QString text = QString::fromUtf8(reinterpret_cast<const char *>(data), int(size));
    // Local addresses would make the parser look at the fuzzing machine's files.
    if (text.contains(QLatin1String("file:"), Qt::CaseInsensitive))
        return 0;
    PlaylistParser::isPlaylist(text);
    XmlPlaylistParser parser(5, text, QStringLiteral("http://127.0.0.1:1/playlist"));
    const QDateTime now(QDate(2024, 3, 31), QTime(2, 30));
    if (PlaylistLoopPtr loop = parser.selectLoop(now.addSecs(-60), now)) {
        for (const PlaylistItemPtr &item : std::as_const(loop->items))
            loop->getFromIdle(item->url);
    }
    return 0;
}
