#include "flatplaylistparser.h"

FlatPlaylistParser::FlatPlaylistParser(int defaultDuration, const QString &text, QObject *parent)
    : PlaylistParser(parent)
    , defaultDuration(defaultDuration)
    , loop(std::make_shared<PlaylistLoop>(defaultDuration, text, QString()))
    , text(text)
{
}

PlaylistLoopPtr FlatPlaylistParser::selectLoop(const QDateTime &reference)
{
    return selectLoop(reference, QDateTime::currentDateTime());
}

PlaylistLoopPtr FlatPlaylistParser::selectLoop(const QDateTime &, const QDateTime &)
{
    return loop;
}

void FlatPlaylistParser::refresh()
{
    // Directories, the drag-and-drop and the USB folders are read afresh. The old loop goes
    // away as soon as nobody else still holds it.
    loop.reset();
    loop = std::make_shared<PlaylistLoop>(defaultDuration, text, QString());
}

QList<PlaylistLoopPtr> FlatPlaylistParser::getLoops()
{
    return {loop};
}
