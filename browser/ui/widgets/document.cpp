#include "document.h"

#include "playlistitem.h"
#include "statepaths.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QMouseEvent>
#include <QRegularExpression>
#include <QUrl>

#include <utility>

Document::Document(PlaylistItem *item, QWidget *parent)
    : WebView(parent)
    , Runnable(item->duration)
    , m_location(item->url)
{
    connect(this, &Document::end, notifier(), &RunnableNotifier::end);
    setContextMenuPolicy(Qt::PreventContextMenu);
    installInputFilter(this);
}

void Document::parseTemplate(QString &html, QString &base)
{
    static const QRegularExpression limage(QStringLiteral("<limage([^>]*)>([^<]+)</limage>"));
    for (QRegularExpressionMatch match = limage.match(html); match.hasMatch();
         match = limage.match(html)) {
        const QString name = match.captured(2);
        const QString attributes = match.captured(1);
        const QString file = base
                             + QString::fromLatin1(name.toUtf8().toBase64())
                                   .replace(QLatin1Char('/'), QLatin1Char('-'));
        // The attributes end up inside an extra pair of quotes; pages are written for that.
        html.replace(match.capturedStart(), match.capturedLength(),
                     QStringLiteral("<img src=\"%1\" \"%2\"/>").arg(file, attributes));
    }
}

bool Document::eventFilter(QObject *watched, QEvent *event)
{
    Q_UNUSED(watched)
    // A press reaches no link: a document is not clicked through.
    if (event->type() != QEvent::MouseButtonPress)
        return false;
    mousePressEvent(static_cast<QMouseEvent *>(event));
    return true;
}

void Document::mousePressEvent(QMouseEvent *event)
{
    if (event->button() == Qt::RightButton)
        emit rightclick();
}

bool Document::stopImpl()
{
    return true;
}

void Document::prepare()
{
    if (m_prepared)
        return;
    whenShowable([this] {
        m_ready = true;
        emit notifier()->ready();
    });
    m_prepared = loadDocument();
}

bool Document::startImpl()
{
    // A document prepared ahead is laid out already.
    if (std::exchange(m_prepared, false))
        return true;
    return loadDocument();
}

bool Document::loadDocument()
{
    QString base = QLatin1String("file://") + StatePaths::dataDir() + QLatin1Char('/');
    QFile file(m_location.mid(7));
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        qWarning() << "Cannot open document" << file.fileName();
        emit end();
        return false;
    }
    QString html = QString::fromUtf8(file.readAll());
    // A byte-order mark is not part of the text.
    if (html.startsWith(QChar(0xfeff)))
        html.remove(0, 1);
    file.close();

    parseTemplate(html, base);
    setHtml(html, QUrl(base));
    return true;
}

bool Document::onTimeoutImpl()
{
    emit end();
    return true;
}

bool Document::pauseImpl()
{
    return true;
}

bool Document::resumeImpl()
{
    return true;
}
