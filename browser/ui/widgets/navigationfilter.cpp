#include "navigationfilter.h"

#include "logger.h"
#include "settings.h"
#include "urlpatternmatcher.h"

#include <QDateTime>
#include <QDebug>
#include <QFile>
#include <QFileInfo>

namespace {
// A pattern file this large would take minutes to compile.
constexpr qint64 MaxRestrictionFileBytes = 16 * 1024 * 1024;

struct LoadedPatterns
{
    QString path;
    QDateTime modified;
    qint64 size = -1;
    std::shared_ptr<const UrlPatternMatcher> matcher;
};
} // namespace

NavigationFilter::NavigationFilter()
    : m_settings(Settings::load(false, nullptr))
{
    setupRegexList();
}

void NavigationFilter::setupRegexList()
{
    // Every tab builds a page; a large file is compiled once for all of them until it changes.
    static LoadedPatterns loaded;
    QFile file(m_settings->whileListFilename());
    const QFileInfo info(file);
    m_settings->get(QStringLiteral("main/list_use_regex"));
    // Opening a FIFO would wait for a writer; a huge file would take minutes to compile. Either
    // way the browser goes on with the patterns it had.
    const bool irregular = info.exists() && !info.isFile();
    if (irregular || info.size() > MaxRestrictionFileBytes) {
        qWarning().noquote() << QStringLiteral("Restriction file %1 rejected: %2.")
                                    .arg(file.fileName(),
                                         irregular ? QStringLiteral("not a regular file")
                                                   : QStringLiteral("larger than %1 MB")
                                                         .arg(MaxRestrictionFileBytes >> 20));
        m_patterns = loaded.matcher && loaded.path == info.absoluteFilePath()
                         ? loaded.matcher
                         : std::make_shared<const UrlPatternMatcher>();
        return;
    }
    if (!file.open(QIODevice::ReadOnly)) {
        m_patterns = std::make_shared<const UrlPatternMatcher>();
        return;
    }
    if (loaded.matcher && loaded.path == info.absoluteFilePath()
        && loaded.modified == info.lastModified() && loaded.size == info.size()) {
        m_patterns = loaded.matcher;
        return;
    }
    m_patterns = UrlPatternMatcher::fromRestrictionFile(file, file.fileName());
    file.close();
    loaded = {info.absoluteFilePath(), info.lastModified(), info.size(), m_patterns};
}

bool NavigationFilter::urlIsAllowed(QUrl &url) const
{
    const QString mode = m_settings->get(QStringLiteral("main/list_mode")).toString();
    if (url.scheme() == QLatin1String("file")
        && !m_settings->get(QStringLiteral("main/can_access_fs")).toBool())
        return false;
    if (mode == QLatin1String("blacklist"))
        return !m_patterns->contains(url.toString());
    if (mode == QLatin1String("whitelist"))
        return m_patterns->contains(url.toString());
    return true;
}

bool NavigationFilter::check(const QUrl &url) const
{
    QUrl address = url;
    const QString text = address.toString();
    if (!urlIsAllowed(address)) {
        Logger::logInfo(QStringLiteral("DENIED: %1").arg(text));
        return false;
    }
    Logger::logInfo(QStringLiteral("ALLOWED: %1").arg(text));
    return true;
}
