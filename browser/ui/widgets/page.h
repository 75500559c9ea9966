#pragma once

#include <QUrl>
#include <QWidget>

class NavBar;
class QVBoxLayout;
class RestrictedWebView;
class Settings;

namespace kiosk {

// One tab of the kiosk browser: its navigation bar and its view. In a namespace because the PDF
// library has a global class of the same name, and the linker would mix their destructors.
class Page : public QWidget
{
    Q_OBJECT

public:
    Page(QUrl url, QWidget *parent);
    Page(RestrictedWebView *view, QWidget *parent);

    RestrictedWebView *view() const { return m_view; }
    NavBar *navBar() const { return m_bar; }

    void setup();
    void setShortcut();
    void removeEmbedElements();

Q_SIGNALS:
    void titleChanged(QString &title, Page *page);
    void end();
    void urlDenied(QString &url);
    void downloadStarted();
    void downloadDone(QString &path, QString &mimeType);

public Q_SLOTS:
    void zoomPlus();
    void zoomMinus();
    void adjustTitle(QString &title);
    void onEnd();
    void onUrlDenied(QString &url);

private:
    void build();

    Settings *m_settings;
    RestrictedWebView *m_view;
    NavBar *m_bar = nullptr;
    QVBoxLayout *m_layout = nullptr;
};

} // namespace kiosk

using kiosk::Page;
