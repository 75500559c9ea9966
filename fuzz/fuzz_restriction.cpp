// A restriction file of any content, read into the matcher; every decision must equal what the
// patterns, tried one by one as QRegExps, decide.
#include "fuzzsupport.h"
#include "urlpatternmatcher.h"

#include <QBuffer>
#include <QRegExp>
#include <QTextStream>

#include <cstdio>
#include <cstdlib>
#include <utility>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::application();
    const QByteArray bytes(reinterpret_cast<const char *>(data), int(size));
    QBuffer file;
    file.setData(bytes);
    file.open(QIODevice::ReadOnly);
    const auto matcher = UrlPatternMatcher::fromRestrictionFile(file, QStringLiteral("fuzz"));

    QStringList lines;
    QBuffer again;
    again.setData(bytes);
    again.open(QIODevice::ReadOnly);
    QTextStream in(&again);
    while (!in.atEnd())
        lines << in.readLine();
    std::vector<QRegExp> expressions;
    for (QString line : lines) {
        if (line.size() > 8192)
            continue;
        line.replace(QLatin1Char('.'), QLatin1String("\\."));
        line.replace(QLatin1Char('*'), QLatin1String(".*"));
        QRegExp expression(line, Qt::CaseSensitive, QRegExp::RegExp);
        if (expression.isValid())
            expressions.push_back(expression);
    }

    QStringList texts{QStringLiteral("http://example.com/index.html"),
                      QStringLiteral("https://www.example.org/a?b=c#d"), QString()};
    for (int i = 0; i < lines.size() && i < 4; ++i)
        texts << lines.at(i).left(256);
    for (const QString &text : std::as_const(texts)) {
        bool expected = false;
        for (QRegExp &expression : expressions)
            expected = expected || expression.indexIn(text) != -1;
        if (matcher->contains(text) != expected) {
            std::fprintf(stderr, "matcher says %d for \"%s\"\n", int(!expected),
                         text.toUtf8().constData());
            std::abort();
        }
    }
    return 0;
}
