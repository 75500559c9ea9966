#pragma once

#include "childprocess.h"
#include "runnable.h"

#include <QWidget>

class PlaylistItem;
class QMouseEvent;

// A web address shown by an external browser program for the item's duration; the widget is
// only the surface behind the browser's own window.
class ExternalBrowser : public QWidget, public Runnable
{
    Q_OBJECT

public:
    ExternalBrowser(PlaylistItem *item, QWidget *parent);

Q_SIGNALS:
    void end();
    void rightclick();
    void middleclick();
    void leftclick();

public Q_SLOTS:
    void onMediaEndReached(int exitCode);

protected:
    void mousePressEvent(QMouseEvent *event) override;

    bool stopImpl() override;
    bool startImpl() override;
    bool onTimeoutImpl() override;
    bool pauseImpl() override;
    bool resumeImpl() override;

private:
    ChildProcess m_process;
    QString m_location;
};
