#include "deferreddelete.h"

#include <QCoreApplication>
#include <QList>
#include <QPointer>
#include <QThread>
#include <QTimer>

#include <malloc.h>

namespace {

class Graveyard : public QObject
{
public:
    Graveyard()
        : QObject(QCoreApplication::instance())
    {
        m_timer.setInterval(100);
        QObject::connect(&m_timer, &QTimer::timeout, this, [this] { flush(); });
        // Pages freed by the shown items go back to the system instead of staying with the
        // process: over months of pictures, pages and videos they would crowd a small board.
        m_trim.setSingleShot(true);
        m_trim.setInterval(500);
        QObject::connect(&m_trim, &QTimer::timeout, this, [] { malloc_trim(0); });
    }

    void add(QObject *object, int level)
    {
        m_entries.append({QPointer<QObject>(object), level});
        flush();
    }

private:
    void flush()
    {
        const int level = currentLoopLevel();
        for (auto it = m_entries.begin(); it != m_entries.end();) {
            // The application's own loop is the base level of everything shown in it.
            if (!it->object || level <= qMax(it->level, 1)) {
                if (it->object) {
                    it->object->deleteLater();
                    if (!m_trim.isActive())
                        m_trim.start();
                }
                it = m_entries.erase(it);
            } else {
                ++it;
            }
        }
        if (m_entries.isEmpty())
            m_timer.stop();
        else if (!m_timer.isActive())
            m_timer.start();
    }

    struct Entry
    {
        QPointer<QObject> object;
        int level;
    };
    QList<Entry> m_entries;
    QTimer m_timer;
    QTimer m_trim;
};

Graveyard *graveyard()
{
    static QPointer<Graveyard> instance;
    if (!instance)
        instance = new Graveyard;
    return instance;
}
} // namespace

int currentLoopLevel()
{
    return QThread::currentThread()->loopLevel();
}

void deleteAfterLoops(QObject *object, int level)
{
    if (!object)
        return;
    if (!QCoreApplication::instance()) {
        delete object;
        return;
    }
    graveyard()->add(object, level);
}
