#pragma once

#include <QWebPage>

// The page of every slideshow web view: it only answers with the kiosk's user agent.
class CustomQWebPage : public QWebPage
{
    Q_OBJECT

public:
    explicit CustomQWebPage(QObject *parent = nullptr);

protected:
    QString userAgentForUrl(const QUrl &url) const override;
};
