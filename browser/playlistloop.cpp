#include "playlistloop.h"

#include "childprocess.h"
#include "settings.h"
#include "statepaths.h"
#include "watchdog.h"

#include <QDebug>
#include <QDir>
#include <QDomNode>
#include <QFileInfo>
#include <QProcess>
#include <QCryptographicHash>
#include <QUrl>
#include <QXmlStreamAttributes>

#include <algorithm>
#include <cstdlib>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

const char dateFormat[] = "yyyy/MM/dd";
const char demoUrl[] = "file://:/demo/demo.jpg";
const char usbWarningUrl[] = "file://:/image/usb_auto_insert_warning.png";
const int demoDuration = 3;
const int demoSpacing = 4;
const int mountWaitMs = 30000;

// A wall-clock time skipped by a daylight-saving change does not exist; rather than losing the
// loop for that day, such a time is carried forward by the length of the gap.
QDateTime localDateTime(const QDate &date, const QTime &time)
{
    QDateTime result(date, time);
    if (!result.isValid() && date.isValid() && time.isValid())
        result = date.startOfDay().addMSecs(time.msecsSinceStartOfDay());
    return result;
}

QDate parseDate(const QString &text)
{
    const QStringList pieces = text.split(QLatin1Char('/'));
    if (pieces.size() != 3)
        return QDate();
    return QDate(pieces.at(0).toInt(), pieces.at(1).toInt(), pieces.at(2).toInt());
}

// Hour and minute from "hh:mm"; out-of-range values give the fallback, a text that is not two
// pieces gives the fallback and costs a point of score.
QTime parseClock(const QString &text, const QTime &fallback, int &score)
{
    const QStringList pieces = text.split(QLatin1Char(':'));
    if (pieces.size() != 2) {
        --score;
        return fallback;
    }
    const int hour = pieces.at(0).toInt();
    const int minute = pieces.at(1).toInt();
    if (hour < 0 || hour > 23 || minute < 0 || minute > 59)
        return fallback;
    return QTime(hour, minute);
}

PlaylistItemPtr makeItem(const QString &url, PlaylistItem::Type type, int duration,
                         const QStringList &parameters = QStringList())
{
    return std::make_shared<PlaylistItem>(url, type, duration, false, parameters);
}

} // namespace

bool detail::PlaylistItemCompare::operator()(const PlaylistItemPtr &left,
                                             const PlaylistItemPtr &right) const
{
    const QString leftLower = left->url.toLower();
    const QString rightLower = right->url.toLower();
    if (leftLower != rightLower)
        return leftLower < rightLower;
    return left->url < right->url;
}

PlaylistLoop::PlaylistLoop(int defaultDuration, const QDomNode &node, const QString &tag)
    : tag(tag)
    , weekdays(7)
    , defaultDuration(defaultDuration)
{
    fromXmlNode(node);
    addDemoItems();
}

PlaylistLoop::PlaylistLoop(int defaultDuration, const QString &text, const QString &tag)
    : tag(tag)
    , weekdays(7)
    , defaultDuration(defaultDuration)
{
    fromString(text);
    addDemoItems();
}

PlaylistLoop::PlaylistLoop(int defaultDuration, const QXmlStreamAttributes &attributes,
                           const QString &tag)
    : tag(tag)
    , weekdays(7)
    , defaultDuration(defaultDuration)
{
    readXmlAttributes(attributes);
}

void PlaylistLoop::endXml()
{
    endXmlChildren();
    addDemoItems();
}

void PlaylistLoop::fromXmlNode(const QDomNode &node)
{
    const QDomNamedNodeMap map = node.attributes();
    QXmlStreamAttributes attributes;
    for (int i = 0; i < map.count(); ++i)
        attributes.append(map.item(i).nodeName(), map.item(i).nodeValue());
    readXmlAttributes(attributes);
    const QDomNodeList children = node.childNodes();
    for (int i = 0; i < children.count(); ++i) {
        attributes.clear();
        const QDomNamedNodeMap childMap = children.at(i).attributes();
        for (int j = 0; j < childMap.count(); ++j)
            attributes.append(childMap.item(j).nodeName(), childMap.item(j).nodeValue());
        addXmlChild(attributes);
    }
    endXmlChildren();
}

void PlaylistLoop::readXmlAttributes(const QXmlStreamAttributes &attributes)
{
    const auto attribute = [&attributes](const char *name) {
        return attributes.value(QLatin1String(name)).toString();
    };
    idle = attribute("idle") == QLatin1String("1");
    shuffle = attribute("shuffle") == QLatin1String("1");
    startTime = attribute("start");
    endTime = attribute("end");
    repeat = attribute("repeat");
    fromDate = attribute("from");
    toDate = attribute("to");
    id = attribute("id");

    m_xmlValid = validate();
    if (m_xmlValid && idle) {
        active = false;
        items.append(PlaylistItemPtr(PlaylistItem::idle()));
    }
}

void PlaylistLoop::addXmlChild(const QXmlStreamAttributes &attributes)
{
    if (!m_xmlValid)
        return;
    ++m_xmlChildren;
    PlaylistItemPtr item;
    const QString uri = attributes.value(QLatin1String("uri")).toString();
    if (uri.startsWith(QLatin1String("file:"), Qt::CaseInsensitive)
        && uri.contains(QLatin1Char('%'))) {
        QXmlStreamAttributes decoded;
        for (const QXmlStreamAttribute &attribute : attributes) {
            if (attribute.qualifiedName() == QLatin1String("uri"))
                decoded.append(attribute.qualifiedName().toString(), playedFileAddress(uri));
            else
                decoded.append(attribute);
        }
        item.reset(PlaylistItem::fromXmlAttributes(decoded));
    } else {
        item.reset(PlaylistItem::fromXmlAttributes(attributes));
    }
    if (item->url.isEmpty())
        return;
    if (item->type == PlaylistItem::Webpage)
        ++m_xmlWebpages;
    items.append(item);
}

void PlaylistLoop::endXmlChildren()
{
    if (!m_xmlValid)
        return;
    // Only when every child became a web page, none dropped: then the last one is marked.
    if (m_xmlChildren > 0 && m_xmlWebpages == m_xmlChildren)
        items.last()->parameters << QStringLiteral("all_webpages");
    m_xmlValid = false;
    if (shuffle)
        shuffleItems();
}

void PlaylistLoop::fromString(const QString &text)
{
    const QStringList lines = text.split(QLatin1Char('\n'));
    Settings *settings = Settings::load(false, nullptr);

    const QString dragAndDrop = StatePaths::dropFolder();
    if (settings->remoteEnabled() && QFileInfo(dragAndDrop).isDir()) {
        qDebug() << "Add drag and drop directory.";
        addDirectoryInItems(dragAndDrop, defaultDuration);
    }

    int webEntries = 0;
    bool usbAdded = false;
    bool urlSeen = false;
    int lastDuration = defaultDuration;
    for (int number = 1; number <= lines.size(); ++number) {
        const QString &line = lines.at(number - 1);
        if (line.startsWith(QLatin1Char('#')))
            continue;
        // Bytes that were no UTF-8 arrive as replacement characters: whatever the line named
        // cannot be found under that name.
        if (line.contains(QChar::ReplacementCharacter)) {
            qWarning() << "Playlist line" << number << "skipped: not valid UTF-8";
            continue;
        }
        const int blank = line.lastIndexOf(QLatin1Char(' '));
        if (blank < 0)
            continue;
        const QString target = line.left(blank);
        const int duration = line.mid(blank + 1).toInt();
        lastDuration = duration;

        if (target.contains(QLatin1String("Screen OFF"))) {
            items.append(makeItem(target, PlaylistItem::Idle, 0));
            continue;
        }
        if (target == QLatin1String("usb-auto")) {
            qDebug() << "USB Auto in playlist.";
            const QString usbDir = StatePaths::usbAutoDir();
            if (addDirectoryInItems(usbDir, duration))
                usbAdded = true;
            continue;
        }

        const QUrl url(target, QUrl::TolerantMode);
        if (!url.isValid())
            continue;
        const QString scheme = url.scheme();
        if (scheme == QLatin1String("http") || scheme == QLatin1String("https")) {
            urlSeen = true;
            QStringList parameters;
            // Every piece but the marker line and the final empty piece is a web entry.
            if (++webEntries == lines.size() - 2)
                parameters << QStringLiteral("all_webpages");
            items.append(makeItem(target, PlaylistItem::Guess, duration, parameters));
        } else if (scheme == QLatin1String("file")) {
            urlSeen = true;
            const QFileInfo info(url.toLocalFile());
            if (info.isDir())
                addDirectoryInItems(info.filePath(), duration);
            else if (info.exists())
                items.append(makeItem(playedFileAddress(target), PlaylistItem::Guess, duration));
            else if (const QString alias = aliasForEncoded(url); !alias.isEmpty())
                items.append(
                    makeItem(QLatin1String("file://") + alias, PlaylistItem::Guess, duration));
        } else if (scheme == QLatin1String("smb")) {
            urlSeen = true;
            addSmbShare(url, duration);
        }
    }

    if (!usbAdded && !urlSeen) {
        qDebug() << "Dispay warning for usb-auto.";
        items.append(
            makeItem(QString::fromLatin1(usbWarningUrl), PlaylistItem::Guess, lastDuration));
    }

    if (settings->get(QStringLiteral("slideshow/shuffle")).toBool())
        shuffleItems();
}

void PlaylistLoop::addSmbShare(const QUrl &url, int duration)
{
    const QString encoded = QString::fromUtf8(url.toEncoded());
    qDebug() << "Receiving smb url:" << encoded;
    const QStringList pieces = encoded.split(QLatin1Char('/'));
    const QString server = pieces.value(2);
    const QString share = pieces.value(3);
    qDebug() << "  Server:" << server;
    qDebug() << "  Share :" << share;

    const QString mountPoint
        = QStringLiteral("%1/gvfs/smb-share:server=%2,share=%3/")
              .arg(QString::fromLocal8Bit(qgetenv("XDG_RUNTIME_DIR")), server, share);
    qDebug() << "  Mount url:" << mountPoint;

    if (!QFileInfo::exists(mountPoint)) {
        ChildProcess mount;
        const Watchdog::OwnWait wait;
        mount.start(QStringLiteral("gvfs-mount"),
                    QStringList{QStringLiteral("smb://%1/%2").arg(server, share)});
        if (!mount.waitForFinished(mountWaitMs) && mount.state() != QProcess::NotRunning) {
            mount.kill();
            mount.waitForFinished();
        }
    }

    const QString path = url.toString().split(QLatin1Char('/')).mid(4).join(QLatin1Char('/'));
    const QString fullPath = mountPoint + path;
    qDebug() << "  Fullpath :" << fullPath;

    const QFileInfo info(fullPath);
    if (info.isDir())
        addDirectoryInItems(fullPath, duration);
    else if (info.exists())
        items.append(makeItem(fullPath, PlaylistItem::Guess, duration));
}

bool PlaylistLoop::addDirectoryInItems(const QString &directory, int duration)
{
    QList<QByteArray> paths;
    collectFiles(QFile::encodeName(directory), paths);
    if (paths.size() >= MaxDirectoryFiles)
        qWarning() << "Directory" << directory << "holds more than" << MaxDirectoryFiles
                   << "files; the rest is left out";

    QList<PlaylistItemPtr> found;
    for (const QByteArray &raw : std::as_const(paths)) {
        QString path = QFile::decodeName(raw);
        // A name that is not valid UTF-8 cannot be named again once turned into text; it is
        // played through a link whose name can.
        if (QFile::encodeName(path) != raw) {
            path = aliasFor(raw);
            if (path.isEmpty())
                continue;
        }
        PlaylistItemPtr item
            = makeItem(QLatin1String("file://") + path, PlaylistItem::Guess, duration);
        // A video plays to its end.
        if (item->type == PlaylistItem::Video)
            item->duration = 0;
        found.append(item);
    }
    std::sort(found.begin(), found.end(), detail::PlaylistItemCompare());
    items.append(found);
    return !found.isEmpty();
}

void PlaylistLoop::collectFiles(const QByteArray &directory, QList<QByteArray> &paths)
{
    // /proc and /sys hold no content, only files that may block whoever reads them.
    if (PlaylistItem::onKernelFileSystem(directory))
        return;
    DIR *dir = opendir(directory.constData());
    if (!dir)
        return;
    while (const dirent *entry = readdir(dir)) {
        // Hidden files and folders are left out: "._photo.jpg" and ".Trashes" are what other
        // systems leave on a USB key, not content.
        if (entry->d_name[0] == '.')
            continue;
        // A folder named by mistake (the root of a disk) must not stall the show for an hour.
        if (paths.size() >= MaxDirectoryFiles)
            break;
        const QByteArray path = directory + '/' + entry->d_name;
        struct stat info = {};
        // Folders are entered only when they are real ones, so a link cannot make a cycle.
        if (lstat(path.constData(), &info) == 0 && S_ISDIR(info.st_mode))
            collectFiles(path, paths);
        else if (stat(path.constData(), &info) == 0 && S_ISREG(info.st_mode))
            paths << path;
    }
    closedir(dir);
}

QString PlaylistLoop::aliasForEncoded(const QUrl &url)
{
    // "%E9" in a file address names the byte itself, which is no UTF-8 text.
    const QByteArray raw = QByteArray::fromPercentEncoding(url.path(QUrl::FullyEncoded).toLatin1());
    struct stat info = {};
    if (QFile::encodeName(QFile::decodeName(raw)) == raw || stat(raw.constData(), &info) != 0
        || !S_ISREG(info.st_mode))
        return QString();
    return aliasFor(raw);
}

QString PlaylistLoop::playedFileAddress(const QString &written)
{
    if (!written.contains(QLatin1Char('%')))
        return written;
    const QUrl url(written, QUrl::TolerantMode);
    if (!url.isLocalFile())
        return written;
    if (const QString alias = aliasForEncoded(url); !alias.isEmpty())
        return QLatin1String("file://") + alias;
    return QLatin1String("file://") + url.toLocalFile();
}

QString PlaylistLoop::aliasFor(const QByteArray &path)
{
    const QByteArray name = path.mid(path.lastIndexOf('/') + 1);
    const int dot = name.lastIndexOf('.');
    const QString suffix = dot > 0 ? QString::fromLatin1(name.mid(dot)) : QString();
    const QString folder = StatePaths::aliasesDir();
    const QString alias
        = folder + QLatin1Char('/')
          + QString::fromLatin1(QCryptographicHash::hash(path, QCryptographicHash::Sha1).toHex())
          + (suffix.contains(QChar::ReplacementCharacter) ? QString() : suffix);
    QDir().mkpath(folder);
    // Links to files that are gone would pile up over months of changing USB keys.
    const QFileInfoList links = QDir(folder).entryInfoList(QDir::System | QDir::NoDotAndDotDot);
    for (const QFileInfo &link : links) {
        if (link.isSymLink() && !link.exists())
            QFile::remove(link.filePath());
    }
    const QByteArray target = QFile::encodeName(alias);
    ::unlink(target.constData());
    if (::symlink(path.constData(), target.constData()) != 0) {
        qWarning() << "Skipped" << QFile::decodeName(path)
                   << ": its name is not valid UTF-8 and no link to it can be made";
        return QString();
    }
    qDebug() << "Playing" << QFile::decodeName(path) << "through" << alias
             << "as its name is not valid UTF-8";
    return alias;
}

void PlaylistLoop::addDemoItems()
{
    const int count = items.size();
    if (count < 2)
        return;
    // A demo at 1, 5, 9... of the grown list, the end of the list counting as a position too:
    // four items get one at 1 and at 5. Built anew rather than inserted, which would move the
    // rest of a long list once per demo.
    const int demos = (count - 1) / (demoSpacing - 1) + 1;
    const QString url = QString::fromLatin1(demoUrl);
    QList<PlaylistItemPtr> merged;
    merged.reserve(count + demos);
    merged.append(items.first());
    int next = 1;
    for (int demo = 0; demo < demos; ++demo) {
        merged.append(makeItem(url, PlaylistItem::Image, demoDuration));
        for (int i = 1; i < demoSpacing && next < count; ++i)
            merged.append(items.at(next++));
    }
    items.swap(merged);
}

void PlaylistLoop::shuffleItems()
{
    // The C library generator, never seeded here: the order is the same on every start.
    for (int i = 1; i < items.size(); ++i)
        items.swapItemsAt(i, std::rand() % (i + 1));
}

bool PlaylistLoop::validateDate()
{
    return validateDate(QDate::currentDate());
}

bool PlaylistLoop::validateDate(const QDate &today)
{
    const bool fillFrom = fromDate.isEmpty();
    const bool fillTo = toDate.isEmpty();
    if (fillFrom)
        fromDate = today.toString(QLatin1String(dateFormat));
    if (fillTo)
        toDate = today.toString(QLatin1String(dateFormat));

    const QDate first = parseDate(fromDate);
    if (!first.isValid())
        return false;
    const QDate last = parseDate(toDate);
    if (!last.isValid() || last < first)
        return false;

    if (fillFrom)
        fromDate.clear();
    if (fillTo)
        toDate.clear();
    from = localDateTime(first, from.time().isValid() ? from.time() : QTime(0, 0));
    to = localDateTime(last, to.time().isValid() ? to.time() : QTime(0, 0));
    return true;
}

bool PlaylistLoop::validateTime()
{
    return validateTime(QDate::currentDate());
}

bool PlaylistLoop::validateTime(const QDate &today)
{
    const QTime start = parseClock(startTime, QTime(0, 0), score);
    const QTime end = parseClock(endTime, QTime(23, 59), score);
    const QDate endDay = start == end ? today : to.date();
    from = localDateTime(from.date(), start);
    to = localDateTime(endDay, end);
    return from.isValid() && to.isValid();
}

bool PlaylistLoop::validateWeekdays()
{
    if (weekdays.size() != 7)
        weekdays.resize(7);
    if (repeat.isEmpty()) {
        weekdays.fill(true);
        --score;
        return true;
    }
    for (const QChar character : std::as_const(repeat)) {
        const int day = character.digitValue();
        if (day >= 0 && day <= 6)
            weekdays.setBit(day);
    }
    return true;
}

bool PlaylistLoop::validate()
{
    return validate(QDate::currentDate());
}

bool PlaylistLoop::validate(const QDate &today)
{
    return validateDate(today) && validateTime(today) && validateWeekdays();
}

QDateTime PlaylistLoop::nowOk(const QDateTime &reference)
{
    return nowOk(reference, QDateTime::currentDateTime());
}

QDateTime PlaylistLoop::nowOk(const QDateTime &reference, const QDateTime &nowAnyZone)
{
    if (!nowAnyZone.isValid())
        return QDateTime();
    const QDateTime now = nowAnyZone.toLocalTime();
    if (!validate(now.date()))
        return QDateTime();

    // The wall-clock times as written; from and to may have been moved by a daylight-saving gap.
    int unusedScore = 0;
    const QTime start = parseClock(startTime, QTime(0, 0), unusedScore);
    const QTime end = parseClock(endTime, QTime(23, 59), unusedScore);
    if (from.date() == to.date() && end < start) {
        // The period crosses midnight: it began yesterday or ends tomorrow.
        if (now.time() < end)
            from = localDateTime(from.date().addDays(-1), start);
        else
            to = localDateTime(to.date().addDays(1), end);
    }

    if (!idle && items.isEmpty())
        return QDateTime();
    if (!weekdays.testBit(now.date().dayOfWeek() - 1))
        return QDateTime();

    if (start == end) {
        if (now < from || from < reference)
            return QDateTime();
        return from;
    }
    if (now < from || now > to)
        return QDateTime();
    return from;
}

QDateTime PlaylistLoop::getFromIdle(const QString &text)
{
    return getFromIdle(text, QDate::currentDate());
}

QDateTime PlaylistLoop::getFromIdle(const QString &text, const QDate &today)
{
    idleFrom = readIdleTime(text, QStringLiteral("From:"), today);
    return idleFrom;
}

QDateTime PlaylistLoop::getToIdle(const QString &text)
{
    return getToIdle(text, QDate::currentDate());
}

QDateTime PlaylistLoop::getToIdle(const QString &text, const QDate &today)
{
    idleTo = readIdleTime(text, QStringLiteral("To:"), today);
    return idleTo;
}

QDateTime PlaylistLoop::readIdleTime(const QString &text, const QString &marker, const QDate &today)
{
    // When the marker is missing, -1 + offset still picks five characters: kept as it is.
    const int position = text.indexOf(marker) + marker.size() + 1;
    const QStringList pieces = text.mid(position, 5).split(QLatin1Char(':'));
    if (pieces.size() != 2)
        return QDateTime();
    const QTime time(pieces.at(0).toInt(), pieces.at(1).toInt());
    if (!time.isValid())
        return QDateTime();
    return localDateTime(today, time);
}
