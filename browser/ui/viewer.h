#pragma once

#include <QStackedWidget>
#include <QPointer>
#include <QTimer>

#include <memory>

class BrowserEventFilter;
class FileManagerTakeover;
class PlaylistEventFilter;
class PointerHider;
class Settings;
class SoundMute;
class SystemShortcutManager;
class UsbAuto;
class Webpage;
namespace panel {
class Manager;
}

// The one top-level window: every piece of content is put on its stack, made current and
// started, and the content shown before is stopped and taken off.
class Viewer : public QStackedWidget
{
    Q_OBJECT

public:
    explicit Viewer(QWidget *parent = nullptr);
    ~Viewer() override;

    QWidget *currentContent() const { return m_currentWidget; }
    bool sessionTimerActive() const { return m_sessionTimer.isActive(); }
    // Clicks on content are swallowed for a moment after every change of content.
    bool playlistFilterLocked() const;
    // Content made ready ahead of its turn waits on the stack under the current content, shown
    // (a web view renders only while shown). False when there is no current content to hide it.
    bool addLowered(QWidget *w);
    void removeLowered(QWidget *w);

Q_SIGNALS:
    void end();
    void mouseEvent();
    void terminate();
    void startInlineRemote();
    void restart();
    void readyToShoot();
    void rightclick();
    void middleclick();
    void leftclick();

public Q_SLOTS:
    bool next(QWidget *w);
    void pause();
    void stop();
    void setTimer();
    void resetTimer();
    void onTimerTimeout();
    void onWidgetTimeout();
    void on_currentChanged(int index);
    void onContentChanged();
    void takeScreen();
    void unlockPlaylistEventFilter();
    void requestRestart();
    void killExternalPlayer();
    void emitMouseEvent();
    void showUrl(QString url, int seconds);
    void showText(const QString &text, int seconds);
    void displayWebpage(Webpage *page);
    void bye();
    void loadWindowSettings();
    void saveWindowSettings();
    void setShortcuts();

protected:
    void mousePressEvent(QMouseEvent *event) override;
    void closeEvent(QCloseEvent *event) override;

private:
    void addToStack(QWidget *w);
    bool passwordSet() const;
    bool displayMode() const;
    Webpage *startPage(const QString &url, int seconds);
    bool replace(QWidget *w);
    void blacken(QWidget *w);

    Settings *m_settings;
    QTimer m_sessionTimer;
    // Destroyed in the reverse order, which gives the desktop back: first what only the show's
    // own window needs (pointer, sound), then the USB import stops, so that no import starts
    // while the lock-down is lifted; the file manager's volume windows, the shortcuts and last
    // the panel, the way into the desktop.
    std::unique_ptr<panel::Manager> m_panelManager;
    std::unique_ptr<SystemShortcutManager> m_shortcutManager;
    std::unique_ptr<FileManagerTakeover> m_fileManager;
    std::unique_ptr<UsbAuto> m_usbAuto;
    std::unique_ptr<SoundMute> m_soundMute;
    std::unique_ptr<PointerHider> m_pointerHider;
    QPointer<QWidget> m_currentWidget;
    bool m_replacing = false;
    QPointer<QWidget> m_deferred;
    PlaylistEventFilter *m_playlistFilter;
    BrowserEventFilter *m_browserFilter;
    QTimer m_unlockTimer;
};
