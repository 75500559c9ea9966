#include "playlistfile.h"

#include "flatplaylistparser.h"
#include "playlistloop.h"
#include "xmlplaylistparser.h"

#include <QDomDocument>
#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QSaveFile>
#include <QUrl>

#include <memory>

namespace {
const char flatMarker[] = "#Vorsane playlist";

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
    QDomDocument document;
    if (document.setContent(text)) {
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

bool PlaylistFile::replace(const QByteArray &text, QString *error)
{
    const QString problem = check(text);
    if (!problem.isEmpty()) {
        *error = problem;
        return false;
    }
    if (QFile::exists(m_path)) {
        QFile::remove(previousPath());
        if (!QFile::copy(m_path, previousPath())) {
            *error = tr("The current playlist could not be kept as %1.").arg(previousPath());
            return false;
        }
    }
    QSaveFile file(m_path);
    if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size() || !file.commit()) {
        *error = tr("The playlist could not be written to %1.").arg(m_path);
        return false;
    }
    return true;
}

QJsonArray PlaylistFile::loops(const QByteArray &text)
{
    QJsonArray result;
    if (text.trimmed().isEmpty())
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
