#pragma once

#include <QObject>
#include <QTimer>

// Keeps a running xscreensaver from blanking the show: it is told every 30 s that the screen is
// in use.
class ScreensaverBlocker : public QObject
{
    Q_OBJECT

public:
    explicit ScreensaverBlocker(QObject *parent = nullptr);

    // Ends any running xscreensaver, then keeps telling a new one that the screen is in use.
    void takeOver();
    void start();
    void poke();

private:
    QTimer m_timer;
};
