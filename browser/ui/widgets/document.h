#pragma once

#include "runnable.h"
#include "webview.h"

#include <QString>

class PlaylistItem;
class QMouseEvent;

// An HTML document from the content cache; its <limage> tags name images of the cache.
class Document : public WebView, public Runnable
{
    Q_OBJECT

public:
    Document(PlaylistItem *item, QWidget *parent);

    static void parseTemplate(QString &html, QString &base);
    bool eventFilter(QObject *watched, QEvent *event) override;

Q_SIGNALS:
    void end();
    void rightclick();

protected:
    void mousePressEvent(QMouseEvent *event) override;

    void prepare() override;
    bool isReady() const override { return m_ready; }
    bool stopImpl() override;
    bool startImpl() override;
    bool onTimeoutImpl() override;
    bool pauseImpl() override;
    bool resumeImpl() override;

private:
    bool loadDocument();

    QString m_location;
    bool m_prepared = false;
    bool m_ready = false;
};
