#include "playlistfile.h"

#include "flatplaylistparser.h"
#include "playlistloop.h"
#include "xmlplaylistparser.h"

#include <QDebug>
#include <QDomDocument>
#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QSaveFile>
#include <QUrl>
#include <QXmlStreamReader>

#include <memory>

namespace {
const char flatMarker[] = "#Vorsane playlist";

enum class Shape { NotXml, Xml, TooLarge, Doctype, TooDeep };

// A pass over the text that builds nothing, so that no parser ever sees a document too large,
// too deep for its recursion or with a document type that could declare entities. Only what
// passes whole as XML is parsed as XML.
Shape shape(const QByteArray &text)
{
    if (text.size() > PlaylistParser::maxDocumentBytes())
        return Shape::TooLarge;
    QXmlStreamReader reader(text);
    reader.setNamespaceProcessing(false);
    int depth = 0;
    while (!reader.atEnd()) {
        switch (reader.readNext()) {
        case QXmlStreamReader::DTD:
            return Shape::Doctype;
        case QXmlStreamReader::StartElement:
            if (++depth > PlaylistParser::MaxDocumentDepth)
                return Shape::TooDeep;
            break;
        case QXmlStreamReader::EndElement:
            --depth;
            break;
        default:
            break;
        }
    }
    return reader.hasError() ? Shape::NotXml : Shape::Xml;
}

// Why a playlist of that shape is refused, logged; empty for one that may be parsed.
QString refusal(Shape shape, const QString &source)
{
    switch (shape) {
    case Shape::TooLarge:
        qWarning().noquote() << "Remote server: playlist" << source << "refused: larger than"
                             << PlaylistParser::maxDocumentBytes() << "bytes";
        return PlaylistFile::tr("The playlist is refused: it is larger than %1 MiB.")
            .arg(PlaylistParser::maxDocumentBytes() / (1024 * 1024));
    case Shape::Doctype:
        qWarning().noquote() << "Remote server: playlist" << source
                             << "refused: it has a document type declaration (DOCTYPE)";
        return PlaylistFile::tr("The playlist is refused: it has a document type declaration "
                                "(<!DOCTYPE ...>), which could declare entities; playlists "
                                "must not have one.");
    case Shape::TooDeep:
        qWarning().noquote() << "Remote server: playlist" << source
                             << "refused: elements nested deeper than"
                             << PlaylistParser::MaxDocumentDepth << "levels";
        return PlaylistFile::tr("The playlist is refused: its elements are nested deeper than "
                                "%1 levels.")
            .arg(PlaylistParser::MaxDocumentDepth);
    case Shape::NotXml:
    case Shape::Xml:
        break;
    }
    return QString();
}

bool writeWhole(const QString &path, const QByteArray &content)
{
    QSaveFile file(path);
    // The explicit flush is needed: Qt 5.15's commit() does not see a write that fails in the
    // flush it does itself, and would put an empty file in place on a full disk.
    if (file.open(QIODevice::WriteOnly) && file.write(content) == content.size() && file.flush()
        && file.commit())
        return true;
    qWarning().noquote() << "Remote server: could not write" << path
                         << "(" + file.errorString() + "); the file is left as it was";
    return false;
}

std::unique_ptr<PlaylistParser> parse(const QByteArray &text)
{
    const QString content = QString::fromUtf8(text);
    auto xml = std::make_unique<XmlPlaylistParser>(5, content, QString());
    if (xml->valid)
        return xml;
    return std::make_unique<FlatPlaylistParser>(5, content);
}

QString itemName(const PlaylistItemPtr &item)
{
    const QUrl url(item->url);
    if (url.isLocalFile() || url.scheme() == QLatin1String("file")) {
        const QString name = QFileInfo(url.path()).fileName();
        if (!name.isEmpty())
            return name;
    }
    return item->url;
}
} // namespace

PlaylistFile::PlaylistFile(const QString &path)
    : m_path(path)
{
}

QString PlaylistFile::previousPath() const
{
    return m_path + QLatin1String(".previous");
}

QByteArray PlaylistFile::read() const
{
    QFile file(m_path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    return file.readAll();
}

QString PlaylistFile::check(const QByteArray &text)
{
    if (text.trimmed().isEmpty())
        return tr("The playlist is empty.");
    const Shape kind = shape(text);
    const QString refused = refusal(kind, QStringLiteral("sent to the remote"));
    if (!refused.isEmpty())
        return refused;
    QDomDocument document;
    if (kind == Shape::Xml && document.setContent(text)) {
        if (document.documentElement().tagName() != QLatin1String("schedule"))
            return tr("Not a playlist: the XML document has no \"schedule\" root element.");
        if (document.elementsByTagName(QStringLiteral("loop")).isEmpty())
            return tr("The schedule has no loop.");
        XmlPlaylistParser parser(5, QString::fromUtf8(text), QString());
        if (!parser.valid || parser.getLoops().isEmpty())
            return tr("The schedule has no loop.");
        return QString();
    }
    if (!text.startsWith(flatMarker))
        return tr("Not a playlist: neither an XML schedule nor a text list beginning with "
                  "\"%1\".")
            .arg(QLatin1String(flatMarker));
    bool hasEntry = false;
    const QList<QByteArray> lines = text.split('\n');
    for (const QByteArray &line : lines) {
        if (!line.startsWith('#') && line.trimmed().contains(' '))
            hasEntry = true;
    }
    if (!hasEntry)
        return tr("The playlist has no entry: each line needs an address, a blank and a "
                  "duration.");
    return QString();
}

PlaylistFile::Outcome PlaylistFile::replace(const QByteArray &text, QString *error)
{
    const QString problem = check(text);
    if (!problem.isEmpty()) {
        *error = problem;
        return Outcome::Refused;
    }
    QFile current(m_path);
    if (current.exists()) {
        if (!current.open(QIODevice::ReadOnly) || !writeWhole(previousPath(), current.readAll())) {
            *error = tr("The current playlist could not be kept as %1.").arg(previousPath());
            return Outcome::NotWritten;
        }
    }
    if (!writeWhole(m_path, text)) {
        *error = tr("The playlist could not be written to %1.").arg(m_path);
        return Outcome::NotWritten;
    }
    return Outcome::Saved;
}

QJsonArray PlaylistFile::loops(const QByteArray &text)
{
    QJsonArray result;
    if (text.trimmed().isEmpty()
        || !refusal(shape(text), QStringLiteral("listed for the remote")).isEmpty())
        return result;
    const std::unique_ptr<PlaylistParser> parser = parse(text);
    const QList<PlaylistLoopPtr> loops = parser->getLoops();
    for (int n = 0; n < loops.size(); ++n) {
        const PlaylistLoopPtr &loop = loops.at(n);
        QString name = loop->id.isEmpty() ? tr("Loop %1").arg(n) : tr("Loop %1").arg(loop->id);
        if (!loop->startTime.isEmpty() || !loop->endTime.isEmpty())
            name += QStringLiteral(" (%1-%2)").arg(loop->startTime, loop->endTime);
        if (loop->idle)
            name += QLatin1Char(' ') + tr("idle");
        QJsonArray items;
        for (int i = 0; i < loop->items.size(); ++i)
            items.append(QJsonObject{{QStringLiteral("index"), i},
                                     {QStringLiteral("name"), itemName(loop->items.at(i))}});
        result.append(QJsonObject{{QStringLiteral("loop"), n},
                                  {QStringLiteral("name"), name},
                                  {QStringLiteral("items"), items}});
    }
    return result;
}
