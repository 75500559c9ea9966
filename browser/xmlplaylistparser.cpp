#include "xmlplaylistparser.h"

#include <QDebug>
#include <QXmlStreamReader>

namespace {

// Gives the reader the text a piece at a time. A reader made from a whole QString holds it twice
// more while it reads (Qt 5 turns it into UTF-8 and back in one piece): megabytes for a long
// schedule.
class TextFeed
{
public:
    TextFeed(QXmlStreamReader &reader, const QString &text)
        : m_reader(reader)
        , m_text(text)
    {
        feed();
    }

    QXmlStreamReader::TokenType next()
    {
        for (;;) {
            const QXmlStreamReader::TokenType token = m_reader.readNext();
            if (token != QXmlStreamReader::Invalid
                || m_reader.error() != QXmlStreamReader::PrematureEndOfDocumentError
                || m_position >= m_text.size())
                return token;
            feed();
        }
    }

private:
    void feed()
    {
        int size = qMin(pieceSize, int(m_text.size()) - m_position);
        // A surrogate pair is never cut in two.
        if (m_position + size < m_text.size() && m_text.at(m_position + size - 1).isHighSurrogate())
            ++size;
        m_reader.addData(m_text.mid(m_position, size));
        m_position += size;
    }

    static constexpr int pieceSize = 64 * 1024;
    QXmlStreamReader &m_reader;
    const QString &m_text;
    int m_position = 0;
};

// Text that a document tree would keep as a node of its own: character data, unless it is only
// white space between elements.
bool isTextNode(const QXmlStreamReader &reader)
{
    if (reader.isCDATA())
        return true;
    for (const QChar c : reader.text()) {
        if (c != QLatin1Char(' ') && c != QLatin1Char('\t') && c != QLatin1Char('\n')
            && c != QLatin1Char('\r'))
            return true;
    }
    return false;
}

// Every "loop" element at any depth is a loop, in document order, and every node right under
// one is one of its items. Read as a stream: a schedule of a few hundred thousand items costs
// its items, not a document tree besides them.
QList<PlaylistLoopPtr> readLoops(const QString &text, int defaultDuration, const QString &source,
                                 QString *scheduleAttribute)
{
    struct Open
    {
        PlaylistLoopPtr loop;
        int depth;
    };
    QList<PlaylistLoopPtr> loops;
    QList<Open> open;
    bool scheduleSeen = false;
    int depth = 0;
    const QXmlStreamAttributes none;
    QXmlStreamReader reader;
    reader.setNamespaceProcessing(false);
    TextFeed feed(reader, text);
    // A node right under the innermost loop that is open.
    const auto childOfLoop = [&open, &depth] {
        return !open.isEmpty() && open.last().depth == depth;
    };
    while (!reader.atEnd()) {
        switch (feed.next()) {
        case QXmlStreamReader::StartElement: {
            const QXmlStreamAttributes attributes = reader.attributes();
            if (childOfLoop())
                open.last().loop->addXmlChild(attributes);
            ++depth;
            // The stream reader gives attributes in document order, so "first" means first.
            if (!scheduleSeen && reader.name() == QLatin1String("schedule")) {
                scheduleSeen = true;
                if (scheduleAttribute && !attributes.isEmpty())
                    *scheduleAttribute = attributes.first().value().toString();
            }
            if (reader.name() == QLatin1String("loop")) {
                loops.append(std::make_shared<PlaylistLoop>(defaultDuration, attributes, source));
                open.append({loops.last(), depth});
            }
            break;
        }
        case QXmlStreamReader::EndElement:
            if (!open.isEmpty() && open.last().depth == depth) {
                open.last().loop->endXml();
                open.removeLast();
            }
            --depth;
            break;
        case QXmlStreamReader::Characters:
            if (childOfLoop() && isTextNode(reader))
                open.last().loop->addXmlChild(none);
            break;
        case QXmlStreamReader::Comment:
        case QXmlStreamReader::ProcessingInstruction:
            if (childOfLoop())
                open.last().loop->addXmlChild(none);
            break;
        default:
            break;
        }
    }
    return loops;
}

} // namespace

XmlPlaylistParser::Check XmlPlaylistParser::inspect(const QString &text, int *loopCount)
{
    QXmlStreamReader reader;
    reader.setNamespaceProcessing(false);
    TextFeed feed(reader, text);
    int depth = 0;
    int loops = 0;
    while (!reader.atEnd()) {
        switch (feed.next()) {
        case QXmlStreamReader::StartElement:
            if (++depth > MaxDocumentDepth)
                return Check::TooDeep;
            if (reader.name() == QLatin1String("loop"))
                ++loops;
            break;
        case QXmlStreamReader::EndElement:
            --depth;
            break;
        // A schedule has no use for one, and its entities are how a few bytes grow into
        // megabytes or reach for files outside the document.
        case QXmlStreamReader::DTD:
            return Check::Doctype;
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

QString XmlPlaylistParser::refusal(Check check)
{
    switch (check) {
    case Check::TooDeep:
        return QStringLiteral("elements nested deeper than %1 levels").arg(MaxDocumentDepth);
    case Check::Doctype:
        return QStringLiteral("it declares a document type (<!DOCTYPE>), which a playlist has no "
                              "use for");
    case Check::NotXml:
        return QStringLiteral("not a playlist");
    case Check::WellFormed:
        break;
    }
    return QString();
}

XmlPlaylistParser::XmlPlaylistParser(int defaultDuration, const QString &text,
                                     const QString &source, QObject *parent)
    : PlaylistParser(parent)
    , defaultDuration(defaultDuration)
    , source(source)
{
    const Check check = inspect(text);
    if (check == Check::TooDeep || check == Check::Doctype) {
        rejected = true;
        qWarning() << "Playlist" << source
                   << qPrintable(QStringLiteral("rejected: ") + refusal(check));
        return;
    }
    if (check != Check::WellFormed)
        return;
    valid = true;
    loops = readLoops(text, defaultDuration, source, &scheduleAttribute);

    // Selection needs a default loop; the empty schedule is what stands in for "nothing".
    if (loops.isEmpty()) {
        qWarning() << "Playlist" << source << "has no loop, playing an empty one.";
        loops = readLoops(emptySchedule(), defaultDuration, source, nullptr);
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
