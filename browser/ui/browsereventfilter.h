#pragma once

#include <QObject>

// Installed on the kiosk browser: keeps a running browsing-session timer alive while the user
// is active. It never starts a stopped one.
class BrowserEventFilter : public QObject
{
    Q_OBJECT

public:
    explicit BrowserEventFilter(QObject *parent = nullptr);

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;
};
