#pragma once

#include "runnable.h"

#include <QString>
#include <QWebView>

class PlaylistItem;
class QMouseEvent;

// An HTML document from the content cache; its <limage> tags name images of the cache.
class Document : public QWebView, public Runnable
{
    Q_OBJECT

public:
    Document(PlaylistItem *item, QWidget *parent);

    static void parseTemplate(QString &html, QString &base);

Q_SIGNALS:
    void end();
    void rightclick();

protected:
    void mousePressEvent(QMouseEvent *event) override;

    bool stopImpl() override;
    bool startImpl() override;
    bool onTimeoutImpl() override;
    bool pauseImpl() override;
    bool resumeImpl() override;

private:
    QString m_location;
};
