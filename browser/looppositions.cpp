#include "looppositions.h"

#include "playlistparser.h"

LoopPositions::LoopPositions()
    : m_reference(QDateTime::currentDateTime())
{
}

void LoopPositions::setSingleKey(bool singleKey)
{
    m_singleKey = singleKey;
}

void LoopPositions::restartSchedule()
{
    m_reference = QDateTime::currentDateTime();
}

void LoopPositions::dropForcedLoop()
{
    m_forcedLoop.reset();
}

void LoopPositions::forceLoop(const PlaylistLoopPtr &loop, int item)
{
    m_forcedLoop = loop;
    m_forcedHasOwnPosition = false;
    setPosition(loopKey(loop), qMax(item, 0) - 1);
}

void LoopPositions::forceFile(const QString &path)
{
    // Widgets read the path after "file://": the address needs its third slash whether or not
    // the path came with a leading one.
    QString absolute = path;
    while (absolute.startsWith(QLatin1Char('/')))
        absolute.remove(0, 1);
    const QString text
        = QStringLiteral("#Vorsane playlist\nfile:///") + absolute + QStringLiteral(" 1\n");
    m_forcedLoop = std::make_shared<PlaylistLoop>(1, text, QString());
    m_forcedHasOwnPosition = true;
    m_forcedPosition = -1;
}

LoopPositions::Step LoopPositions::step(PlaylistParser &parser)
{
    if (m_forcedLoop) {
        m_currentLoop = m_forcedLoop;
        const int key = loopKey(m_currentLoop);
        const int position = (m_forcedHasOwnPosition ? m_forcedPosition : positionOf(key)) + 1;
        if (position >= m_currentLoop->items.size()) {
            m_forcedLoop.reset();
            return ForcedLoopOver;
        }
        if (m_forcedHasOwnPosition)
            m_forcedPosition = position;
        else
            setPosition(key, position);
        m_position = position;
        return Item;
    }

    m_currentLoop = parser.selectLoop(m_reference);
    if (!m_currentLoop)
        return NothingToShow;
    const int position = positionOf(loopKey(m_currentLoop)) + 1;
    moveTo(m_currentLoop, position);
    if (position < m_currentLoop->items.size())
        return Item;

    parser.refresh();
    m_reference = QDateTime::currentDateTime();
    m_currentLoop = parser.selectLoop(m_reference);
    if (!m_currentLoop || m_currentLoop->items.isEmpty())
        return NothingToShow;
    moveTo(m_currentLoop, 0);
    return LoopStartedOver;
}

PlaylistItemPtr LoopPositions::item() const
{
    if (!m_currentLoop || m_position < 0 || m_position >= m_currentLoop->items.size())
        return PlaylistItemPtr();
    return m_currentLoop->items.at(m_position);
}

PlaylistItemPtr LoopPositions::upcoming(PlaylistParser &parser, PlaylistLoopPtr *loop) const
{
    if (m_forcedLoop) {
        const int position = (m_forcedHasOwnPosition ? m_forcedPosition
                                                     : positionOf(loopKey(m_forcedLoop)))
                             + 1;
        *loop = m_forcedLoop;
        return position < m_forcedLoop->items.size() ? m_forcedLoop->items.at(position)
                                                     : PlaylistItemPtr();
    }
    *loop = parser.selectLoop(m_reference);
    if (!*loop)
        return PlaylistItemPtr();
    const int position = positionOf(loopKey(*loop)) + 1;
    if (position < (*loop)->items.size())
        return (*loop)->items.at(position);
    *loop = parser.selectLoop(QDateTime::currentDateTime());
    if (!*loop || (*loop)->items.isEmpty())
        return PlaylistItemPtr();
    return (*loop)->items.first();
}

int LoopPositions::positionOf(int key) const
{
    return m_positions.value(key, -1);
}

void LoopPositions::setPosition(int key, int position)
{
    m_positions.insert(key, position);
}

int LoopPositions::loopKey(const PlaylistLoopPtr &loop) const
{
    return m_singleKey ? 0 : loop->id.toInt();
}

void LoopPositions::moveTo(const PlaylistLoopPtr &loop, int position)
{
    setPosition(loopKey(loop), position);
    m_position = position;
}
