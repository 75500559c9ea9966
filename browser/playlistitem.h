#pragma once

#include <QString>
#include <QStringList>

#include <memory>

class QDomNode;
class QXmlStreamAttributes;

// One entry of a slideshow loop. Loops share their items through PlaylistItemPtr, so an item
// lives exactly as long as something still refers to it.
class PlaylistItem
{
public:
    // The numbers are stored and compared: they are fixed.
    enum Type {
        Guess = -1,
        Remote = 0,
        Video = 1,
        Gif = 2,
        Image = 3,
        PDF = 4,
        DesktopLink = 5,
        Webpage = 6,
        Document = 7,
        Directory = 8,
        Idle = 9,
        Maintenance = 10,
        NotSupported = 11,
    };

    // Desktop link files larger than this are not read.
    static constexpr qint64 MaxLinkBytes = 64 * 1024;

    PlaylistItem(QString url, PlaylistItem::Type type, int duration, bool href,
                 QStringList parameters);

    static PlaylistItem *fromXmlNode(QDomNode *node);
    // The same from the attributes of the item's element, as a stream reader gives them.
    static PlaylistItem *fromXmlAttributes(const QXmlStreamAttributes &attributes);
    static PlaylistItem *idle();
    static QString typeToStr(PlaylistItem::Type type);
    // Whether a path lies on one of the kernel's own file systems (/proc, /sys...): no content,
    // and some of their files block whoever reads them (/proc/kmsg).
    static bool onKernelFileSystem(const QByteArray &path);
    static void initStrings();

    QString url;
    Type type;
    int duration;
    bool href;
    QStringList parameters;
};

using PlaylistItemPtr = std::shared_ptr<PlaylistItem>;
