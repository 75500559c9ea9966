#pragma once

#include <QRegExp>
#include <QString>
#include <QStringList>

#include <memory>
#include <vector>

class QIODevice;

namespace re2 {
class RE2;
}

// Answers whether any of many QRegExp patterns is found in a text, with QRegExp's meaning,
// without trying them one by one: every pattern that means the same in RE2 goes into an RE2 set
// (one per few thousand patterns, so that each set's automaton stays small); the few that RE2
// cannot take or reads differently (back references, look-ahead, Unicode classes...) are kept
// as QRegExps and tried after the sets.
class UrlPatternMatcher
{
public:
    UrlPatternMatcher();
    ~UrlPatternMatcher();

    // Adds one pattern in QRegExp syntax; false (and nothing added) when QRegExp finds it
    // invalid.
    bool add(const QString &pattern);
    // Must be called once after the last add() and before contains().
    void compile();
    bool contains(const QString &text) const;

    int size() const { return m_size; }

    // Reads a restriction file: one wildcard pattern per line ("*" any text, "." itself, the
    // rest as QRegExp). Lines that cannot be patterns are skipped with one log line per kind;
    // name is the file name those lines give.
    static std::shared_ptr<const UrlPatternMatcher> fromRestrictionFile(QIODevice &file,
                                                                        const QString &name);

    // Whether RE2 reads the pattern exactly as QRegExp does (for a match-anywhere question).
    static bool sameInRe2(const QString &pattern);

private:
    bool fallbackContains(const QString &text) const;
    bool allContains(const QString &text) const;

    struct Set;
    bool setContains(const Set &set, const QByteArray &utf8) const;

    std::vector<std::unique_ptr<Set>> m_sets;
    // indexIn() records the match inside the object, hence mutable.
    mutable std::vector<QRegExp> m_fallback;
    bool m_matchesAll = false;
    bool m_compiled = false;
    int m_size = 0;
};
