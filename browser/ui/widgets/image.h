#pragma once

#include "runnable.h"

#include <QImage>
#include <QLabel>
#include <QPixmap>
#include <QScrollArea>
#include <QString>
#include <QTimer>

class PlaylistItem;
class QImageReader;

// A still picture: fitted, stretched, shown as it is, or slowly scrolled end to end when it is
// larger than the screen.
class Image : public QLabel, public Runnable
{
    Q_OBJECT

public:
    Image(PlaylistItem *item, QWidget *parent);

    void buildPixmap();
    void setBlackBackground();

    // Memory one decoded picture (or animation frame) may take; larger ones are refused.
    static constexpr int MaxDecodeMegabytes = 256;
    // A picture read for showing in an area of that size; null, with a log line, when it cannot
    // be read.
    static QImage readPicture(const QString &path, const QSize &area);
    // Whether the picture the reader points at can be decoded within the memory allowed.
    static bool fitsDecodeBudget(QImageReader &reader, QString *why);

Q_SIGNALS:
    void end();
    void rightclick();

public Q_SLOTS:
    void startScroll();
    void autoScrollDown();
    void autoScrollRight();

protected:
    bool stopImpl() override;
    bool startImpl() override;
    bool onTimeoutImpl() override;
    bool pauseImpl() override;
    bool resumeImpl() override;

    void mousePressEvent(QMouseEvent *event) override;
    void paintEvent(QPaintEvent *event) override;

private:
    void scrollStep(QScrollBar *bar, int pixmapExtent);

    QString m_location;
    QPixmap m_pixmap;
    QTimer m_delayTimer;
    QTimer m_scrollTimer;
    bool m_forward = true;
    int m_screenExtent = 0;
    QScrollArea m_scrollArea;
    float m_areaWidth = 0;
    float m_areaHeight = 0;
    bool m_scrolls = false;
};
