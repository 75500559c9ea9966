#pragma once

#include "runnable.h"

#include <QLabel>
#include <QPixmap>

#include <memory>

class PlaylistItem;
class QMouseEvent;

namespace Poppler {
class Document;
}

// A PDF file shown one page at a time, each page for the item's duration.
class PDF : public QLabel, public Runnable
{
    Q_OBJECT

public:
    PDF(PlaylistItem *item, QWidget *parent);
    ~PDF() override;

    bool nextPage();
    void setBlackBackground();

Q_SIGNALS:
    void end();
    // A new page is on screen (the widget itself stays the same).
    void pageChanged();
    void rightclick();

protected:
    void mousePressEvent(QMouseEvent *event) override;

    void prepare() override;
    bool stopImpl() override;
    bool startImpl() override;
    bool onTimeoutImpl() override;
    bool pauseImpl() override;
    bool resumeImpl() override;

private:
    QString m_path;
    std::unique_ptr<Poppler::Document> m_document;
    int m_page = -1;
    // The first page is rendered ahead, while another item shows.
    bool m_firstPageReady = false;
    QPixmap m_pixmap;
    float m_areaWidth = 0;
    float m_areaHeight = 0;
    float m_pageWidth = 0;
    float m_pageHeight = 0;
};
