#include "externalbrowser.h"

#include "playlistitem.h"
#include "settings.h"

#include <QDebug>
#include <QMouseEvent>

namespace {
const int processWaitMs = 30000;
}

ExternalBrowser::ExternalBrowser(PlaylistItem *item, QWidget *parent)
    : QWidget(parent)
    , Runnable(item->duration)
    , m_location(item->url)
{
    connect(this, &ExternalBrowser::end, notifier(), &RunnableNotifier::end);
    connect(&m_process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), this,
            &ExternalBrowser::onMediaEndReached);
}

void ExternalBrowser::onMediaEndReached(int)
{
    emit end();
}

void ExternalBrowser::mousePressEvent(QMouseEvent *event)
{
    switch (event->button()) {
    case Qt::RightButton:
        emit rightclick();
        break;
    case Qt::MiddleButton:
        emit middleclick();
        break;
    case Qt::LeftButton:
        emit leftclick();
        break;
    default:
        break;
    }
}

bool ExternalBrowser::stopImpl()
{
    disconnect(&m_process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), this,
               &ExternalBrowser::onMediaEndReached);
    m_process.terminate();
    m_process.waitForFinished(processWaitMs);
    return true;
}

bool ExternalBrowser::startImpl()
{
    const QString cmd = Settings::load(false, nullptr)
                            ->get(QStringLiteral("main/external_browser_cmd"))
                            .toString();
    const QStringList parts = cmd.split(QLatin1Char(' '));
    const QString program = parts.first();
    QStringList arguments;
    for (int i = 1; i < parts.size(); ++i)
        arguments << QString(parts.at(i)).replace(QLatin1String("%u"), m_location);

    qDebug().noquote() << "Running external browser:"
                       << (QStringList{program} + arguments).join(QLatin1String(", "));
    m_process.start(program, arguments, QIODevice::ReadWrite);
    m_process.waitForStarted(processWaitMs);
    return true;
}

bool ExternalBrowser::onTimeoutImpl()
{
    emit end();
    return true;
}

bool ExternalBrowser::pauseImpl()
{
    return true;
}

bool ExternalBrowser::resumeImpl()
{
    return true;
}
