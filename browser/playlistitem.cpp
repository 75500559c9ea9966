#include "playlistitem.h"

#include <QDebug>
#include <QDomNamedNodeMap>
#include <QDomNode>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QMimeDatabase>
#include <QUrl>
#include <QXmlStreamAttributes>

#include <utility>

#include <linux/magic.h>
#include <sys/vfs.h>

namespace {

QMap<PlaylistItem::Type, QString> &typeNames()
{
    static QMap<PlaylistItem::Type, QString> names;
    return names;
}

PlaylistItem::Type guessType(const QString &text)
{
    const QUrl url(text, QUrl::TolerantMode);
    if (url.isLocalFile()) {
        const QFileInfo info(url.toLocalFile());
        if (info.isDir())
            return PlaylistItem::Directory;
        // A FIFO, socket or device, or a file of the kernel's own like /proc/kmsg, would block
        // whoever opens it: never content.
        if (info.exists()
            && (!info.isFile()
                || PlaylistItem::onKernelFileSystem(QFile::encodeName(info.filePath())))) {
            qWarning() << "Not shown:" << info.filePath() << "is not a regular file";
            return PlaylistItem::NotSupported;
        }
    }

    const QString scheme = url.scheme();
    if (scheme == QLatin1String("rtsp") || scheme == QLatin1String("vlc"))
        return PlaylistItem::Video;
    if (scheme == QLatin1String("http") || scheme == QLatin1String("https"))
        return PlaylistItem::Webpage;

    // For local files the database looks at the content as well as the name.
    const QString mime = QMimeDatabase().mimeTypeForUrl(url).name();
    qDebug() << "mime:" << mime;
    if (mime.startsWith(QLatin1String("video/")) || mime.startsWith(QLatin1String("audio/")))
        return PlaylistItem::Video;
    if (mime.startsWith(QLatin1String("image/gif")))
        return PlaylistItem::Gif;
    if (mime.startsWith(QLatin1String("image/")))
        return PlaylistItem::Image;
    if (mime == QLatin1String("text/html") || mime == QLatin1String("text/plain"))
        return PlaylistItem::Webpage;
    if (mime == QLatin1String("application/pdf"))
        return PlaylistItem::PDF;
    if (mime == QLatin1String("application/x-desktop")
        || mime == QLatin1String("application/x-mswinurl"))
        return PlaylistItem::DesktopLink;
    return PlaylistItem::Webpage;
}

QString attribute(const QXmlStreamAttributes &attributes, const QString &name)
{
    return attributes.value(name).toString();
}

} // namespace

PlaylistItem::PlaylistItem(QString url, PlaylistItem::Type type, int duration, bool href,
                           QStringList parameters)
    : url(std::move(url))
    , type(type)
    , duration(duration)
    , href(href)
    , parameters(std::move(parameters))
{
    if (this->type == Guess) {
        qDebug() << "Guessing Type";
        this->type = guessType(this->url);
    }
    if (this->type != DesktopLink)
        return;

    qDebug() << "Converting in Url";
    QFile link(this->url.mid(7));
    // A desktop link is a few lines; anything else (a FIFO, a huge file) is not read.
    if (!QFileInfo(link.fileName()).isFile() || QFileInfo(link.fileName()).size() > MaxLinkBytes) {
        qWarning() << "Desktop link" << link.fileName() << "not read: not a small regular file";
        return;
    }
    if (!link.open(QIODevice::ReadOnly))
        return;
    const QString text = QString::fromUtf8(link.read(MaxLinkBytes));
    if (text.contains(QLatin1String("URL="))) {
        // Kept on purpose: the split is on "L=", not "URL=", so an earlier key ending in "L"
        // decides what is taken.
        QString target = text.split(QLatin1String("L=")).value(1);
        target.remove(QLatin1Char('\n'));
        this->url = target;
    }
    link.close();
    this->type = guessType(this->url);
}

PlaylistItem *PlaylistItem::fromXmlNode(QDomNode *node)
{
    const QDomNamedNodeMap map = node ? node->attributes() : QDomNamedNodeMap();
    QXmlStreamAttributes attributes;
    for (int i = 0; i < map.count(); ++i)
        attributes.append(map.item(i).nodeName(), map.item(i).nodeValue());
    return fromXmlAttributes(attributes);
}

PlaylistItem *PlaylistItem::fromXmlAttributes(const QXmlStreamAttributes &attributes)
{
    const QString url = attribute(attributes, QStringLiteral("uri"));

    QStringList parameters;
    QString parameterType;
    if (attributes.hasAttribute(QStringLiteral("parameters"))) {
        parameters = attribute(attributes, QStringLiteral("parameters")).split(QLatin1Char(';'));
        for (const QString &entry : std::as_const(parameters)) {
            if (entry.contains(QLatin1String("type:")))
                parameterType = entry.split(QLatin1Char(':')).value(1);
        }
    }

    Type type = Guess;
    // A "type:" parameter only overrides a type attribute that exists.
    if (attributes.hasAttribute(QStringLiteral("type"))) {
        const QString name = parameterType.isEmpty() ? attribute(attributes, QStringLiteral("type"))
                                                     : parameterType;
        if (name == QLatin1String("maintenance"))
            return new PlaylistItem(url, Maintenance, 0, false, parameters);
        if (name == QLatin1String("image")) {
            qDebug() << "image!!";
            type = Image;
        } else if (name == QLatin1String("audio") || name == QLatin1String("video")) {
            type = Video;
        } else if (name == QLatin1String("gif")) {
            type = Gif;
        } else if (name == QLatin1String("pdf")) {
            type = PDF;
        } else if (name == QLatin1String("document")) {
            type = Document;
        } else if (name == QLatin1String("url")) {
            type = Webpage;
        }
    }

    int duration = type == Video ? 0 : 5;
    if (attributes.hasAttribute(QStringLiteral("time")))
        duration = attribute(attributes, QStringLiteral("time")).toInt();
    const bool href = attribute(attributes, QStringLiteral("href")) == QLatin1String("1");

    return new PlaylistItem(url, type, duration, href, parameters);
}

PlaylistItem *PlaylistItem::idle()
{
    return new PlaylistItem(QString(), Idle, 60, false, QStringList());
}

bool PlaylistItem::onKernelFileSystem(const QByteArray &path)
{
    struct statfs system = {};
    if (statfs(path.constData(), &system) != 0)
        return false;
    switch (static_cast<unsigned long>(system.f_type)) {
    case PROC_SUPER_MAGIC:
    case SYSFS_MAGIC:
    case DEBUGFS_MAGIC:
    case TRACEFS_MAGIC:
    case SECURITYFS_MAGIC:
    case CGROUP_SUPER_MAGIC:
    case CGROUP2_SUPER_MAGIC:
    case BPF_FS_MAGIC:
    case PSTOREFS_MAGIC:
    case EFIVARFS_MAGIC:
        return true;
    default:
        return false;
    }
}

QString PlaylistItem::typeToStr(PlaylistItem::Type type)
{
    if (typeNames().isEmpty())
        initStrings();
    return typeNames().value(type);
}

void PlaylistItem::initStrings()
{
    QMap<Type, QString> &names = typeNames();
    if (!names.isEmpty())
        return;
    names.insert(Remote, QStringLiteral("Remote"));
    names.insert(Video, QStringLiteral("Video"));
    names.insert(Gif, QStringLiteral("Gif"));
    names.insert(Image, QStringLiteral("Image"));
    names.insert(Webpage, QStringLiteral("Webpage"));
    names.insert(PDF, QStringLiteral("PDF"));
    names.insert(Document, QStringLiteral("Document"));
    names.insert(Idle, QStringLiteral("Idle"));
    names.insert(NotSupported, QStringLiteral("Not Supported"));
}
