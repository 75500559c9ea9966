#pragma once

#include <QObject>
#include <QPointer>

class QWidget;
class Viewer;

// Keeps a running browsing-session timer alive while the visitor is active: typing, touching,
// scrolling and pointing anywhere inside the session's browser count. It watches the whole
// application, because web views hand their input to child widgets of their own. It never
// starts a stopped timer.
class BrowserEventFilter : public QObject
{
    Q_OBJECT

public:
    explicit BrowserEventFilter(Viewer *viewer, QObject *parent = nullptr);

    // The browser whose input counts; nullptr stops watching.
    void watch(QWidget *browser);

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    Viewer *m_viewer;
    QPointer<QWidget> m_browser;
};
