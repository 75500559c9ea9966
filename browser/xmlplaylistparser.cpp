#include "xmlplaylistparser.h"

#include <QDebug>
#include <QDomDocument>
#include <QXmlStreamReader>

namespace {

// QDom keeps attributes in a hash; the stream reader gives them in document order.
QString firstScheduleAttribute(const QString &text)
{
    QXmlStreamReader reader(text);
    reader.setNamespaceProcessing(false);
    while (!reader.atEnd()) {
        if (reader.readNext() == QXmlStreamReader::StartElement
            && reader.name() == QLatin1String("schedule")) {
            const QXmlStreamAttributes attributes = reader.attributes();
            return attributes.isEmpty() ? QString() : attributes.first().value().toString();
        }
    }
    return QString();
}

} // namespace

XmlPlaylistParser::Check XmlPlaylistParser::inspect(const QString &text, int *loopCount)
{
    QXmlStreamReader reader(text);
    reader.setNamespaceProcessing(false);
    int depth = 0;
    int loops = 0;
    while (!reader.atEnd()) {
        switch (reader.readNext()) {
        case QXmlStreamReader::StartElement:
            if (++depth > MaxDocumentDepth)
                return Check::TooDeep;
            if (reader.name() == QLatin1String("loop"))
                ++loops;
            break;
        case QXmlStreamReader::EndElement:
            --depth;
            break;
        default:
            break;
        }
    }
    if (reader.hasError())
        return Check::NotXml;
    if (loopCount)
        *loopCount = loops;
    return Check::WellFormed;
}

XmlPlaylistParser::XmlPlaylistParser(int defaultDuration, const QString &text,
                                     const QString &source, QObject *parent)
    : PlaylistParser(parent)
    , defaultDuration(defaultDuration)
    , source(source)
{
    const Check check = inspect(text);
    if (check == Check::TooDeep) {
        rejected = true;
        qWarning() << "Playlist" << source << "rejected: elements nested deeper than"
                   << MaxDocumentDepth << "levels";
        return;
    }
    QDomDocument document;
    if (check != Check::WellFormed || !document.setContent(text))
        return;
    valid = true;
    scheduleAttribute = firstScheduleAttribute(text);

    const QDomNodeList loopElements = document.elementsByTagName(QStringLiteral("loop"));
    for (int i = 0; i < loopElements.count(); ++i)
        loops.append(std::make_shared<PlaylistLoop>(defaultDuration, loopElements.at(i), source));

    // Selection needs a default loop; the empty schedule is what stands in for "nothing".
    if (loops.isEmpty()) {
        qWarning() << "Playlist" << source << "has no loop, playing an empty one.";
        QDomDocument empty;
        empty.setContent(emptySchedule());
        loops.append(std::make_shared<PlaylistLoop>(
            defaultDuration, empty.elementsByTagName(QStringLiteral("loop")).at(0), source));
    }
}

PlaylistLoopPtr XmlPlaylistParser::selectLoop(const QDateTime &reference)
{
    return selectLoop(reference, QDateTime::currentDateTime());
}

PlaylistLoopPtr XmlPlaylistParser::selectLoop(const QDateTime &reference, const QDateTime &now)
{
    if (loops.isEmpty())
        return PlaylistLoopPtr();
    // The first loop is the default; its own schedule is never tested. Among loops applying now
    // the one whose period began last wins, the earlier one on equal starts.
    PlaylistLoopPtr candidate = loops.first();
    QDateTime best;
    for (int i = 1; i < loops.size(); ++i) {
        const QDateTime start = loops.at(i)->nowOk(reference, now);
        if (start.isValid() && (!best.isValid() || start > best)) {
            candidate = loops.at(i);
            best = start;
        }
    }
    return candidate;
}

void XmlPlaylistParser::refresh() {}

QList<PlaylistLoopPtr> XmlPlaylistParser::getLoops()
{
    return loops;
}
