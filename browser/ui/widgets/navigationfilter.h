#pragma once

#include <QUrl>

#include <memory>

class Settings;
class UrlPatternMatcher;

// The kiosk's decision on an address: the restriction file's patterns under the list mode, and
// whether local files may be opened. Every navigation of every kiosk page, sub-frames included,
// asks it, whichever web engine shows the page.
class NavigationFilter
{
public:
    NavigationFilter();

    // Loads the restriction file; the patterns stay fixed for the filter's life.
    void setupRegexList();
    bool urlIsAllowed(QUrl &url) const;
    // The decision, logged to the system log as "ALLOWED: ..." or "DENIED: ...".
    bool check(const QUrl &url) const;

private:
    Settings *m_settings;
    std::shared_ptr<const UrlPatternMatcher> m_patterns;
};
