#include "screenshot.h"

#include <QFile>
#include <QGuiApplication>
#include <QPixmap>
#include <QSaveFile>
#include <QScreen>
#include <QWidget>

namespace {
const char screenshotPath[] = "/tmp/screen.png";
} // namespace

void Screenshot::removeOld()
{
    if (QFile::exists(QString::fromLatin1(screenshotPath)))
        QFile::remove(QString::fromLatin1(screenshotPath));
}

QString Screenshot::path()
{
    return QString::fromLatin1(screenshotPath);
}

void Screenshot::take(QWidget *window, QWidget *content)
{
    QPixmap picture;
    if (QScreen *screen = QGuiApplication::primaryScreen())
        picture = screen->grabWindow(content->window()->winId());
    // Platforms without a real screen cannot grab a window; render the widgets instead.
    if (picture.isNull() || picture.width() <= 1)
        picture = window->grab();
    // Written aside and renamed, so the remote server never serves a half-written picture.
    // Light compression: a screenshot is asked for often while a video plays, and the show's
    // own thread pays for it.
    QSaveFile file(QString::fromLatin1(screenshotPath));
    // The flush of its own: commit() misses a write that fails in its own flush (Qt 5.15).
    if (file.open(QIODevice::WriteOnly) && picture.save(&file, "PNG", 80) && file.flush())
        file.commit();
}
