// URL filter benchmark: not a test, run by hand. For 1,000, 10,000 and 100,000 restriction
// patterns (written as an administrator would: host names with "*", a few regular
// expressions), prints the compile time, the decisions per second and the time per decision.
#include "urlpatternmatcher.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QRandomGenerator>
#include <QStringList>

#include <cstdio>

namespace {
QString convert(QString line)
{
    line.replace(QLatin1Char('.'), QLatin1String("\\."));
    line.replace(QLatin1Char('*'), QLatin1String(".*"));
    return line;
}

QString wordFor(quint32 n)
{
    static const char *const parts[] = {"news", "shop", "media", "cdn",   "mail", "play",
                                        "wiki", "maps", "video", "learn", "bank", "city"};
    return QString::fromLatin1(parts[n % 12]) + QString::number(n);
}

QStringList patterns(int count)
{
    QStringList lines;
    for (int i = 0; i < count; ++i) {
        switch (i % 10) {
        case 0:
            lines << QStringLiteral("*.%1.org/*").arg(wordFor(i));
            break;
        case 1:
            lines << QStringLiteral("http*://www.%1.com").arg(wordFor(i));
            break;
        case 2:
            lines << QStringLiteral("%1.net/path%2/*").arg(wordFor(i)).arg(i % 97);
            break;
        case 3:
            lines << QStringLiteral("ads[0-9]+.%1.fr").arg(wordFor(i));
            break;
        default:
            lines << QStringLiteral("%1.example").arg(wordFor(i));
            break;
        }
    }
    // A few that only QRegExp can read keep the slow path honest.
    lines << QStringLiteral("(tracker)\\1") << QStringLiteral("\\bpixel\\b");
    return lines;
}

QStringList addresses(int count, int patternCount)
{
    QRandomGenerator random(42);
    QStringList urls;
    for (int i = 0; i < count; ++i) {
        const quint32 n = random.bounded(quint32(patternCount * 2));
        urls << QStringLiteral("https://www.%1.com/articles/%2/index.html?ref=home&id=%3")
                    .arg(wordFor(n))
                    .arg(random.bounded(100000))
                    .arg(i);
    }
    return urls;
}
} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    std::printf("%10s %12s %14s %16s %14s %10s\n", "patterns", "compile ms", "decisions/s",
                "us per decision", "us first pass", "matched");
    QList<int> counts{1000, 10000, 100000};
    if (argc > 1)
        counts = {QString::fromLocal8Bit(argv[1]).toInt()};
    for (int count : counts) {
        QElapsedTimer clock;
        clock.start();
        UrlPatternMatcher matcher;
        for (const QString &line : patterns(count))
            matcher.add(convert(line));
        matcher.compile();
        const qint64 compileMs = clock.elapsed();

        const QStringList urls = addresses(20000, count);
        // The first pass also builds the automatons' states; the second is a warm session.
        clock.restart();
        for (const QString &url : urls)
            matcher.contains(url);
        const double coldUs = clock.nsecsElapsed() / 1e3 / urls.size();
        int matched = 0;
        clock.restart();
        for (const QString &url : urls)
            matched += matcher.contains(url) ? 1 : 0;
        const double seconds = clock.nsecsElapsed() / 1e9;
        std::fflush(stdout);
        std::printf("%10d %12lld %14.0f %16.2f %14.2f %10d\n", matcher.size(), compileMs,
                    urls.size() / seconds, seconds * 1e6 / urls.size(), coldUs, matched);
    }
    return 0;
}
