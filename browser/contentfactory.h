#pragma once

#include "playlistloop.h"

#include <QObject>

class QString;
class QUrl;
class QWidget;
class Settings;

// Builds the content widgets, with the viewer as their parent: one for a playlist item, and the
// browsers of a web session and of the remote-control page. Items that are passed over get no
// widget: unsupported types and extensions, items marked to be passed over, screen-off periods
// that are not due now, and cache files still being fetched.
class ContentFactory : public QObject
{
    Q_OBJECT

public:
    ContentFactory(QWidget *viewer, Settings *settings, QObject *parent = nullptr);

    void setSettings(Settings *settings);

    // loop is the item's loop, which knows the span of its screen-off periods. While downloads
    // still run, an item whose cache file is missing is passed over.
    QWidget *widgetFor(const PlaylistItemPtr &item, const PlaylistLoopPtr &loop, bool downloading);
    // Whether the item's widget can be built ahead of its turn: still content and pages shown in
    // the program's own window, whose building changes nothing else.
    bool preparable(const PlaylistItemPtr &item) const;
    QWidget *nothingToDisplay();
    static bool isPlaceholder(const QWidget *widget);
    static QString nothingToDisplayUrl();
    // The web session's browser, at url or its default address.
    QWidget *sessionWidget(const QUrl &url);
    // The remote-control page in a browser of its own.
    QWidget *inlineRemote();

    static bool skippedByExtension(const QString &url);

private:
    QWidget *screenOff(const PlaylistItemPtr &item, const PlaylistLoopPtr &loop);
    void startMaintenance(const QString &url);

    QWidget *m_viewer;
    Settings *m_settings;
};
