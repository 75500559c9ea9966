#pragma once

#include "playlistitem.h"

#include <QBitArray>
#include <QDateTime>
#include <QList>
#include <QString>

#include <memory>

class QDomNode;
class QUrl;
class QXmlStreamAttributes;

namespace detail {
// Directory order: case-insensitive first, then plain code-unit order to break ties.
struct PlaylistItemCompare
{
    bool operator()(const PlaylistItemPtr &left, const PlaylistItemPtr &right) const;
};
} // namespace detail

// An ordered list of items with an optional date range, daily period and set of weekdays.
// The loop shares its items: whoever else still holds one (a downloader, the shown widget) keeps
// it alive after the loop is gone.
class PlaylistLoop
{
public:
    // Directory expansion stops after this many files.
    static constexpr int MaxDirectoryFiles = 10000;

    PlaylistLoop(int defaultDuration, const QDomNode &node, const QString &tag);
    PlaylistLoop(int defaultDuration, const QString &text, const QString &tag);
    // An XML loop read as a stream, so that a long schedule is never held as a document tree:
    // built from the loop element's attributes, then given each of its child nodes in document
    // order (an element's attributes; none for text, a comment or an instruction), then ended.
    PlaylistLoop(int defaultDuration, const QXmlStreamAttributes &attributes, const QString &tag);
    void addXmlChild(const QXmlStreamAttributes &attributes);
    void endXml();

    void fromXmlNode(const QDomNode &node);
    void fromString(const QString &text);
    bool addDirectoryInItems(const QString &directory, int duration);
    // Every regular file under a folder as raw path bytes, hidden entries left out.
    static void collectFiles(const QByteArray &directory, QList<QByteArray> &paths);
    // A link with a name that is valid text, to a file whose name is not.
    static QString aliasFor(const QByteArray &path);
    // The same for a file address whose percent-encoded path is not UTF-8; empty otherwise.
    static QString aliasForEncoded(const QUrl &url);
    // The address a local file is played under. Widgets open what follows "file://" as it
    // stands, so percent escapes ("%20") are decoded, and a path that is no UTF-8 once decoded
    // is played through its alias. An address without escapes is kept as written.
    static QString playedFileAddress(const QString &written);
    void addDemoItems();

    // The checks work on "today"; the overloads taking a date exist so that a caller holding a
    // clock reading of its own gets consistent answers.
    bool validateDate();
    bool validateDate(const QDate &today);
    bool validateTime();
    bool validateTime(const QDate &today);
    bool validateWeekdays();
    bool validate();
    bool validate(const QDate &today);

    // Start of the current period when the loop applies at "now", otherwise a null date-time.
    QDateTime nowOk(const QDateTime &reference);
    QDateTime nowOk(const QDateTime &reference, const QDateTime &now);

    QDateTime getFromIdle(const QString &text);
    QDateTime getFromIdle(const QString &text, const QDate &today);
    QDateTime getToIdle(const QString &text);
    QDateTime getToIdle(const QString &text, const QDate &today);

    QString tag;
    QString id;
    bool idle = false;
    QString startTime;
    QString endTime;
    QDateTime startDateTime;
    QDateTime endDateTime;
    QString repeat;
    QBitArray weekdays;
    QDateTime from;
    QDateTime to;
    QString fromDate;
    QString toDate;
    int score = 0;
    bool active = true;
    int defaultDuration;
    bool shuffle = false;
    QDateTime idleFrom;
    QDateTime idleTo;
    QList<PlaylistItemPtr> items;

private:
    // While the children of an XML loop are read: whether the loop's schedule is valid, the
    // children seen so far and those among them that became web pages.
    bool m_xmlValid = false;
    int m_xmlChildren = 0;
    int m_xmlWebpages = 0;

    void readXmlAttributes(const QXmlStreamAttributes &attributes);
    void endXmlChildren();
    void shuffleItems();
    void addSmbShare(const QUrl &url, int duration);
    QDateTime readIdleTime(const QString &text, const QString &marker, const QDate &today);
};

using PlaylistLoopPtr = std::shared_ptr<PlaylistLoop>;
