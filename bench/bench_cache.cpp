// Fills the content cache with N items from a local HTTP server and sets the time next to curl
// fetching the same files. Run by hand: bench_cache [--count N] [--size KiB] [--rounds R]

#include "commandlineparser.h"
#include "downloader.h"
#include "httpserver.h"
#include "playlistitem.h"
#include "playlistloop.h"
#include "settings.h"

#include <QCoreApplication>
#include <QDir>
#include <QDomDocument>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <functional>

namespace {

struct Options
{
    int count = 200;
    int sizeKib = 256;
    int rounds = 3;
};

// The downloader logs every item; only warnings belong in a benchmark's output.
void quietMessages(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    if (type != QtDebugMsg && type != QtInfoMsg)
        std::fprintf(stderr, "%s\n", qPrintable(message));
}

QString itemPath(int index)
{
    return QStringLiteral("/media/item%1.jpg").arg(index);
}

// One walk of a fresh loop over the N items; false when the walk reported a failure.
bool walk(const testsupport::HttpServer &server, int count, bool checkOnline)
{
    QDomDocument document;
    document.setContent(QStringLiteral("<loop/>"));
    PlaylistLoop loop(5, document.documentElement(),
                      server.url(QStringLiteral("/p/bench/playlist")).toString());
    for (int i = 0; i < count; ++i)
        loop.items << std::make_shared<PlaylistItem>(server.url(itemPath(i)).toString(),
                                                     PlaylistItem::Image, 5, false, QStringList());

    auto *downloader = new Downloader(&loop, checkOnline);
    bool ok = false;
    QEventLoop wait;
    QObject::connect(downloader, &Downloader::downloadDone, &wait, [&ok, &wait] {
        ok = true;
        wait.quit();
    });
    QObject::connect(downloader, &Downloader::downloadNotDone, &wait, &QEventLoop::quit);
    downloader->start();
    wait.exec();
    return ok;
}

bool runCurl(const QStringList &arguments)
{
    QProcess curl;
    QEventLoop wait;
    QObject::connect(&curl, qOverload<int, QProcess::ExitStatus>(&QProcess::finished), &wait,
                     &QEventLoop::quit);
    QObject::connect(&curl, &QProcess::errorOccurred, &wait, &QEventLoop::quit);
    curl.start(QStringLiteral("curl"), arguments);
    // The server answers from this thread, so wait in an event loop.
    wait.exec();
    if (curl.exitStatus() != QProcess::NormalExit || curl.exitCode() != 0) {
        std::fprintf(stderr, "curl failed: %s\n", curl.readAllStandardError().constData());
        return false;
    }
    return true;
}

bool curlAll(const testsupport::HttpServer &server, int count, const QString &target)
{
    QStringList arguments{QStringLiteral("-sS"), QStringLiteral("--fail")};
    for (int i = 0; i < count; ++i)
        arguments << QStringLiteral("-o") << target + QStringLiteral("/%1").arg(i)
                  << server.url(itemPath(i)).toString();
    return runCurl(arguments);
}

bool curlEach(const testsupport::HttpServer &server, int count, const QString &target)
{
    for (int i = 0; i < count; ++i) {
        if (!runCurl({QStringLiteral("-sS"), QStringLiteral("--fail"), QStringLiteral("-o"),
                      target + QStringLiteral("/%1").arg(i), server.url(itemPath(i)).toString()}))
            return false;
    }
    return true;
}

// Median of the rounds, in milliseconds; -1 when a round failed.
double measure(int rounds, const std::function<void()> &prepare, const std::function<bool()> &run)
{
    QList<double> times;
    for (int round = 0; round < rounds; ++round) {
        prepare();
        QElapsedTimer clock;
        clock.start();
        if (!run())
            return -1;
        times << clock.nsecsElapsed() / 1e6;
    }
    std::sort(times.begin(), times.end());
    return times.at(times.size() / 2);
}

void report(const char *label, double ms, qint64 bytes)
{
    if (ms < 0) {
        std::printf("  %-42s failed\n", label);
        return;
    }
    if (bytes <= 0 || ms <= 0) {
        std::printf("  %-42s %9.1f ms\n", label, ms);
        return;
    }
    std::printf("  %-42s %9.1f ms %9.1f MiB/s\n", label, ms, bytes / 1048576.0 / (ms / 1000.0));
}

bool parse(const QStringList &arguments, Options &options)
{
    for (int i = 1; i < arguments.size(); ++i) {
        const QString &name = arguments.at(i);
        if (name == QLatin1String("--help") || i + 1 >= arguments.size())
            return false;
        bool isNumber = false;
        const int value = arguments.at(++i).toInt(&isNumber);
        if (!isNumber || value < 1)
            return false;
        if (name == QLatin1String("--count"))
            options.count = value;
        else if (name == QLatin1String("--size"))
            options.sizeKib = value;
        else if (name == QLatin1String("--rounds"))
            options.rounds = value;
        else
            return false;
    }
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    QTemporaryDir home;
    qputenv("HOME", home.path().toUtf8());
    QCoreApplication application(argc, argv);

    Options options;
    if (!parse(application.arguments(), options)) {
        std::printf("usage: bench_cache [--count N] [--size KiB] [--rounds R]\n"
                    "Fills the cache with N items of the given size from a local server, "
                    "next to curl.\n");
        return 1;
    }
    qInstallMessageHandler(quietMessages);

    QByteArray base = home.path().toUtf8();
    char program[] = "bench_cache";
    char option[] = "--basepath";
    char *parserArguments[] = {program, option, base.data(), nullptr};
    const CommandLineParser parser(3, parserArguments);
    Settings::load(true, &parser);
    PlaylistItem::initStrings();

    testsupport::HttpServer server;
    int requests = 0;
    QObject::connect(&server, &testsupport::HttpServer::requestReceived,
                     [&requests] { ++requests; });
    if (server.url(QString()).port() <= 0) {
        std::fprintf(stderr, "cannot start the local server\n");
        return 1;
    }
    QByteArray content(options.sizeKib * 1024, 'x');
    for (int i = 0; i < content.size(); i += 101)
        content[i] = char(i % 251);
    for (int i = 0; i < options.count; ++i)
        server.setRoute(
            itemPath(i), content, 200,
            {{"Last-Modified", "Mon, 01 Jan 2024 10:00:00 GMT"}, {"Content-Type", "image/jpeg"}});

    const qint64 bytes = qint64(options.count) * content.size();
    const QString cache = home.path() + QStringLiteral("/.vorsane-kiosk");
    const auto emptyCache = [&cache] {
        QDir(cache + QStringLiteral("/data")).removeRecursively();
        QDir(cache + QStringLiteral("/etag")).removeRecursively();
    };
    const QString curlTarget = home.path() + QStringLiteral("/curl");
    const auto emptyCurlTarget = [&curlTarget] {
        QDir(curlTarget).removeRecursively();
        QDir().mkpath(curlTarget);
    };

    std::printf("Cache fill: %d items of %d KiB from 127.0.0.1, median of %d rounds\n",
                options.count, options.sizeKib, options.rounds);

    int requestsBefore = requests;
    report("first walk, empty cache",
           measure(options.rounds, emptyCache, [&] { return walk(server, options.count, true); }),
           bytes);
    const int requestsCold = (requests - requestsBefore) / options.rounds;

    int stored = 0;
    for (int i = 0; i < options.count; ++i) {
        const QString name = Downloader::cacheName(server.url(itemPath(i)).toString());
        QFile file(cache + QStringLiteral("/data/") + name);
        stored += file.open(QIODevice::ReadOnly) && file.readAll() == content ? 1 : 0;
    }

    requestsBefore = requests;
    report("second walk, revalidated (HEAD each)",
           measure(
               options.rounds, [] {}, [&] { return walk(server, options.count, true); }),
           0);
    const int requestsWarm = (requests - requestsBefore) / options.rounds;
    report("second walk, cache trusted",
           measure(
               options.rounds, [] {}, [&] { return walk(server, options.count, false); }),
           0);

    if (QStandardPaths::findExecutable(QStringLiteral("curl")).isEmpty()) {
        std::printf("  curl not found: comparison skipped\n");
    } else {
        report("curl, one process for all files",
               measure(options.rounds, emptyCurlTarget,
                       [&] { return curlAll(server, options.count, curlTarget); }),
               bytes);
        report("curl, one process per file",
               measure(options.rounds, emptyCurlTarget,
                       [&] { return curlEach(server, options.count, curlTarget); }),
               bytes);
    }

    std::printf("Requests per walk: %d on an empty cache, %d when revalidating\n", requestsCold,
                requestsWarm);
    std::printf("Items stored intact: %d of %d\n", stored, options.count);
    return stored == options.count ? 0 : 1;
}
