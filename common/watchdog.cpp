#include "watchdog.h"

#include "childprocess.h"
#include "logger.h"
#include "statepaths.h"
#include "utils.h"

#include <QDateTime>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QMap>
#include <QProcess>
#include <QUrl>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <mutex>
#include <thread>
#include <unistd.h>

namespace {
// Long enough for any honest page layout on a small board, short enough that a frozen screen
// is not mistaken for content.
const qint64 stallLimitMs = 8000;
// How long a signal that ends the program may wait for the GUI thread.
const qint64 signalLimitMs = 2000;
const qint64 scriptsOffSeconds = 24 * 60 * 60;

std::atomic<qint64> s_lastBeat{0};
std::atomic<int> s_arrivedSignal{0};
std::atomic<qint64> s_signalSince{0};
std::atomic<bool> s_signalTaken{false};
std::atomic<int> s_ownWaits{0};
std::atomic<qint64> s_memoryCeiling{0};
std::atomic<qint64> s_sizeBeforePage{0};

std::mutex s_mutex;
QString s_webPage;
QMap<QString, QList<QStringList>> s_giveBack;

qint64 nowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

QString stalledFile()
{
    return StatePaths::stalledPages();
}

// The program's resident size in bytes, read without allocating much: this runs on the watchdog
// thread while a page may be eating the memory.
qint64 residentBytes()
{
    std::FILE *statm = std::fopen("/proc/self/statm", "r");
    if (!statm)
        return 0;
    long long size = 0;
    long long resident = 0;
    const int read = std::fscanf(statm, "%lld %lld", &size, &resident);
    std::fclose(statm);
    return read == 2 ? resident * ::sysconf(_SC_PAGESIZE) : 0;
}

// Runs on the watchdog thread while the GUI thread may still be running: nothing here touches
// the GUI thread's objects, and the process ends without running any destructor.
[[noreturn]] void endNow(int signum, const QString &why)
{
    qWarning().noquote() << why;
    Logger::logError(why);
    QMap<QString, QList<QStringList>> giveBack;
    {
        std::lock_guard<std::mutex> lock(s_mutex);
        giveBack = s_giveBack;
    }
    for (auto it = giveBack.cbegin(); it != giveBack.cend(); ++it) {
        // In order: a restored configuration file is read again only after it is back.
        for (const QStringList &command : it.value()) {
            ChildProcess process;
            process.start(command.first(), command.mid(1));
            if (process.waitForStarted(1000) && !process.waitForFinished(5000))
                process.kill();
            process.waitForFinished(1000);
        }
        // Given back now: the next start must not give it back a second time.
        QFile::remove(StatePaths::giveBackDir() + QLatin1Char('/') + it.key());
        qWarning().noquote() << QStringLiteral("%1 given back.").arg(it.key());
    }
    std::fflush(nullptr);
    if (signum == SIGTERM || signum == SIGHUP) {
        std::signal(signum, SIG_DFL);
        ::kill(::getpid(), signum);
    }
    ::_exit(signum ? signum : Watchdog::StalledExitCode);
}
} // namespace

struct Watchdog::Thread
{
    std::mutex mutex;
    std::condition_variable wake;
    bool stop = false;
    std::thread thread;

    void run()
    {
        std::unique_lock<std::mutex> lock(mutex);
        while (!wake.wait_for(lock, std::chrono::milliseconds(250), [this] { return stop; }))
            check();
    }

    void check()
    {
        const qint64 now = nowMs();
        const int signum = s_arrivedSignal.load();
        if (signum && !s_signalTaken.load() && now - s_signalSince.load() > signalLimitMs) {
            qDebug() << "Caught signal" << signum;
            endNow(signum, QStringLiteral("The program did not answer signal %1 for %2 s; "
                                          "ending it at once.")
                               .arg(signum)
                               .arg(signalLimitMs / 1000));
        }
        QString page;
        {
            std::lock_guard<std::mutex> guard(s_mutex);
            page = s_webPage;
        }
        const qint64 ceiling = s_memoryCeiling.load();
        if (!page.isEmpty() && ceiling > 0 && s_sizeBeforePage.load() > 0
            && residentBytes() > s_sizeBeforePage.load() + ceiling) {
            recordStall(QUrl(page), QStringLiteral("memory"));
            endNow(0, QStringLiteral("Web page %1 passed its memory ceiling of %2 MB; ending the "
                                     "program before the system does, the page will be shown "
                                     "without scripts.")
                          .arg(page)
                          .arg(ceiling / (1024 * 1024)));
        }
        if (!page.isEmpty() && s_ownWaits.load() == 0 && now - s_lastBeat.load() > stallLimitMs) {
            recordStall(QUrl(page), QStringLiteral("script"));
            endNow(0, QStringLiteral("Web page %1 has held the program for %2 s (a script that "
                                     "never ends?); ending the program, the page will be shown "
                                     "without scripts.")
                          .arg(page)
                          .arg(stallLimitMs / 1000));
        }
    }
};

Watchdog::Watchdog(QObject *parent)
    : QObject(parent)
    , m_thread(std::make_unique<Thread>())
{
    s_lastBeat = nowMs();
    m_heartbeat.setInterval(250);
    connect(&m_heartbeat, &QTimer::timeout, this, [] { s_lastBeat = nowMs(); });
    m_heartbeat.start();
    m_thread->thread = std::thread([this] { m_thread->run(); });
}

Watchdog::~Watchdog()
{
    {
        std::lock_guard<std::mutex> lock(m_thread->mutex);
        m_thread->stop = true;
    }
    m_thread->wake.notify_all();
    m_thread->thread.join();
}

Watchdog::OwnWait::OwnWait()
{
    ++s_ownWaits;
}

Watchdog::OwnWait::~OwnWait()
{
    // The page is given its full time again from the end of the wait.
    s_lastBeat = nowMs();
    --s_ownWaits;
}

void Watchdog::setWebPage(const QUrl &url)
{
    s_lastBeat = nowMs();
    s_sizeBeforePage = residentBytes();
    std::lock_guard<std::mutex> lock(s_mutex);
    s_webPage = url.toString();
}

void Watchdog::leaveWebPage(const QUrl &url)
{
    std::lock_guard<std::mutex> lock(s_mutex);
    if (s_webPage == url.toString())
        s_webPage.clear();
}

bool Watchdog::stalledRecently(const QUrl &url)
{
    QFile file(stalledFile());
    if (!file.open(QIODevice::ReadOnly))
        return false;
    const QByteArray page = url.toEncoded();
    const qint64 since = QDateTime::currentSecsSinceEpoch() - scriptsOffSeconds;
    while (!file.atEnd()) {
        const QList<QByteArray> fields = file.readLine(64 * 1024).trimmed().split(' ');
        if (fields.size() >= 2 && fields.at(1) == page && fields.at(0).toLongLong() >= since)
            return true;
    }
    return false;
}

bool Watchdog::recordStall(const QUrl &url, const QString &reason)
{
    // One line a page, "<seconds since 1970> <encoded address> <reason>"; only the last day's
    // stalls are kept, so the file stays small over months.
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    QByteArray kept;
    QFile previous(stalledFile());
    if (previous.open(QIODevice::ReadOnly)) {
        while (!previous.atEnd()) {
            const QByteArray line = previous.readLine(64 * 1024);
            if (line.left(line.indexOf(' ')).toLongLong() >= now - scriptsOffSeconds)
                kept += line;
        }
    }
    kept += QByteArray::number(now) + ' ' + url.toEncoded() + ' ' + reason.toUtf8() + '\n';
    // A full disk must not cost the pages recorded before.
    return Utils::writeWhole(stalledFile(), kept);
}

void Watchdog::setMemoryCeiling(qint64 bytes)
{
    s_memoryCeiling = bytes;
}

void Watchdog::setGiveBack(const QString &what, const QList<QStringList> &commands)
{
    std::lock_guard<std::mutex> lock(s_mutex);
    if (commands.isEmpty())
        s_giveBack.remove(what);
    else
        s_giveBack.insert(what, commands);
}

QList<QStringList> Watchdog::giveBack(const QString &what)
{
    std::lock_guard<std::mutex> lock(s_mutex);
    return s_giveBack.value(what);
}

void Watchdog::signalArrived(int signum)
{
    if (s_arrivedSignal.exchange(signum) == 0)
        s_signalSince = nowMs();
}

void Watchdog::signalTaken()
{
    s_signalTaken = true;
}
