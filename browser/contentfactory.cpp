#include "contentfactory.h"

#include "browser.h"
#include "document.h"
#include "externalbrowser.h"
#include "gif.h"
#include "idle.h"
#include "image.h"
#include "maintenance.h"
#include "pdf.h"
#include "settings.h"
#include "video.h"
#include "webpage.h"

#include <QDebug>
#include <QFile>
#include <QUrl>

namespace {
const char nothingToDisplayAddress[] = "file://:/image/nothing_to_display.png";
const char placeholderName[] = "nothingToDisplay";
} // namespace

ContentFactory::ContentFactory(QWidget *viewer, Settings *settings, QObject *parent)
    : QObject(parent)
    , m_viewer(viewer)
    , m_settings(settings)
{
}

void ContentFactory::setSettings(Settings *settings)
{
    m_settings = settings;
}

bool ContentFactory::skippedByExtension(const QString &url)
{
    static const char *const extensions[]
        = {".docx", ".ppt", ".doc", ".pptx", ".psd", ".db", ".ods", ".tmp", ".swf", ".cfg", ".sh"};
    for (const char *extension : extensions) {
        if (url.contains(QLatin1String(extension)))
            return true;
    }
    return false;
}

QWidget *ContentFactory::nothingToDisplay()
{
    qDebug() << "Nothing to display.";
    PlaylistItem placeholder(QString::fromLatin1(nothingToDisplayAddress), PlaylistItem::Image, 10,
                             false, QStringList());
    auto *image = new Image(&placeholder, m_viewer);
    image->setObjectName(QLatin1String(placeholderName));
    return image;
}

QString ContentFactory::nothingToDisplayUrl()
{
    return QString::fromLatin1(nothingToDisplayAddress);
}

bool ContentFactory::isPlaceholder(const QWidget *widget)
{
    return widget && widget->objectName() == QLatin1String(placeholderName);
}

QWidget *ContentFactory::sessionWidget(const QUrl &url)
{
    if (m_settings->get(QStringLiteral("main/external_browser")).toBool()) {
        const QString address = url.isEmpty() ? m_settings->defaultUrl() : url.toString();
        PlaylistItem item(address, PlaylistItem::Webpage, 0, false, QStringList());
        return new ExternalBrowser(&item, m_viewer);
    }
    auto *browser = new Browser(m_viewer);
    if (!url.isEmpty())
        browser->newPage(url);
    return browser;
}

QWidget *ContentFactory::inlineRemote()
{
    const QString key = m_settings->remoteKey();
    QString address = m_settings->remoteLocalUrl();
    if (!key.isEmpty())
        address += QStringLiteral("?k=") + QString::fromLatin1(QUrl::toPercentEncoding(key));
    return new Browser(m_viewer, QUrl(address));
}

QWidget *ContentFactory::widgetFor(const PlaylistItemPtr &item, const PlaylistLoopPtr &loop,
                                   bool downloading)
{
    if (item->type == PlaylistItem::Maintenance) {
        startMaintenance(item->url);
        return nothingToDisplay();
    }
    if (item->url.contains(QLatin1String("Screen OFF")))
        return screenOff(item, loop);

    if (skippedByExtension(item->url) || item->href)
        return nullptr;
    // Cache files appear whole (written aside, then renamed), so a missing one is still coming.
    if (downloading && item->url.startsWith(QLatin1String("file://"))
        && !item->url.startsWith(QLatin1String("file://:")) && !QFile::exists(item->url.mid(7))) {
        qDebug() << "Not downloaded yet; passed over:" << item->url;
        return nullptr;
    }

    switch (item->type) {
    case PlaylistItem::Video:
        return new Video(item.get(), m_viewer);
    case PlaylistItem::Gif:
        return new Gif(item.get(), m_viewer);
    case PlaylistItem::Image:
        return new Image(item.get(), m_viewer);
    case PlaylistItem::PDF:
        return new PDF(item.get(), m_viewer);
    case PlaylistItem::Webpage:
        if (m_settings->get(QStringLiteral("slideshow/external_browser")).toBool())
            return new ExternalBrowser(item.get(), m_viewer);
        return new Webpage(item.get(), m_viewer);
    case PlaylistItem::Document:
        return new Document(item.get(), m_viewer);
    case PlaylistItem::Idle:
        return new Idle(item.get(), m_viewer);
    default:
        return nullptr;
    }
}

bool ContentFactory::preparable(const PlaylistItemPtr &item) const
{
    if (item->url.contains(QLatin1String("Screen OFF")))
        return false;
    switch (item->type) {
    case PlaylistItem::Image:
    case PlaylistItem::Gif:
    case PlaylistItem::PDF:
    case PlaylistItem::Document:
        return true;
    case PlaylistItem::Webpage:
        return !m_settings->get(QStringLiteral("slideshow/external_browser")).toBool();
    case PlaylistItem::Video:
        return Video::playsInProcess();
    default:
        return false;
    }
}

void ContentFactory::startMaintenance(const QString &url)
{
    qDebug() << "Replace maintenance file";
    qDebug() << "Start maintenance.";
    auto *maintenance = new Maintenance(this);
    // Only a script that succeeded is recorded and followed by the reboot.
    connect(maintenance, &Maintenance::scriptFinished, maintenance, [maintenance](int code) {
        if (code == 0)
            maintenance->reboot();
        else
            qDebug() << "Maintenance script failed with code" << code;
        maintenance->deleteLater();
    });
    maintenance->startMaintenance(url);
}

QWidget *ContentFactory::screenOff(const PlaylistItemPtr &item, const PlaylistLoopPtr &loop)
{
    const QDateTime now = QDateTime::currentDateTime();
    QDateTime from = loop->getFromIdle(item->url);
    QDateTime to = loop->getToIdle(item->url);
    if (!from.isValid() || !to.isValid()) {
        qDebug() << "Screen OFF without a valid span:" << item->url;
        return nullptr;
    }
    // A span whose end is earlier than its start crosses midnight: after midnight it began
    // yesterday, before midnight it ends tomorrow.
    if (to < from) {
        if (now < to)
            from = from.addDays(-1);
        else
            to = to.addDays(1);
    }
    // Outside its span the item is passed over: the screen goes dark only when it should.
    if (now < from || now >= to)
        return nullptr;
    qDebug() << (to.date() > now.date() ? "Wake up : tomorrow" : "Wake up : today");
    auto *idle = new Idle(item.get(), m_viewer);
    // The screen stays off until the wake-up time, then the show goes on.
    idle->setTimeout(int(qMax<qint64>(1, now.secsTo(to))));
    return idle;
}
