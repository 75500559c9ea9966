#pragma once

#include <QObject>
#include <QTimer>

class WebView;

// Keeps the renderer process of one web view under the page memory ceiling. A page that
// allocates without end is stopped long before the system runs out of memory and kills the
// whole player: its renderer is killed, the page recorded in the stalled-pages list (it is
// shown without scripts for a while), and passed() lets the owner move on. Views whose pages
// run inside the program (renderer process id 0) are left to the watchdog.
class MemoryCeiling : public QObject
{
    Q_OBJECT

public:
    MemoryCeiling(WebView *view, qint64 limitMb);

    // Resident size of a process in KiB; 0 when it cannot be read.
    static qint64 residentKiB(qint64 pid);

Q_SIGNALS:
    void passed();

private:
    void check();

    WebView *m_view;
    qint64 m_limitKiB;
    QTimer m_timer;
};
