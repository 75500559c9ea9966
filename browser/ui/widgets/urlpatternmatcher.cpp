#include "urlpatternmatcher.h"

#include <QDebug>
#include <QIODevice>
#include <QTextStream>

#include <re2/re2.h>
#include <re2/set.h>

#include <utility>

namespace {
// The automaton of one set holds every pattern's start in each of its states: sets of this
// size keep states small, so a set stays within its memory and a decision stays fast.
const int patternsPerSet = 2048;
// RE2 gives up on a set whose automaton outgrows this; such texts are then decided pattern by
// pattern.
const int64_t setMemoryBytes = 16 << 20;

RE2::Options setOptions()
{
    RE2::Options options;
    options.set_encoding(RE2::Options::EncodingUTF8);
    options.set_case_sensitive(true);
    // QRegExp's "." also takes a line feed.
    options.set_dot_nl(true);
    options.set_log_errors(false);
    options.set_max_mem(setMemoryBytes);
    return options;
}

bool isAsciiPunct(QChar c)
{
    const ushort u = c.unicode();
    return u < 128 && u > 32 && !c.isLetterOrNumber();
}

// Counts the ASCII digits from i on; -1 when they start with a zero followed by more digits,
// which RE2 takes as text where QRegExp counts ("{05}").
int countDigits(const QString &pattern, int &i)
{
    const int first = i;
    while (i < pattern.size() && pattern.at(i).unicode() < 128 && pattern.at(i).isDigit())
        ++i;
    const int digits = i - first;
    return digits > 1 && pattern.at(first) == QLatin1Char('0') ? -1 : digits;
}

// "{n}", "{n,}" or "{n,m}" starting at from; RE2 reads "{,m}" as text where QRegExp counts.
bool plainRepeat(const QString &pattern, int from)
{
    int i = from + 1;
    const int digits = countDigits(pattern, i);
    if (digits <= 0 || digits > 3 || i >= pattern.size())
        return false;
    if (pattern.at(i) == QLatin1Char(',')) {
        ++i;
        const int more = countDigits(pattern, i);
        if (more < 0 || more > 3)
            return false;
    }
    return i < pattern.size() && pattern.at(i) == QLatin1Char('}');
}
// Longer lines are no address pattern; compiling them would only stall the browser.
const int maxPatternLength = 8192;

bool holdsBinary(const QString &line)
{
    for (const QChar c : line) {
        if ((c.unicode() < 0x20 && c != QLatin1Char('\t')) || c == QChar::ReplacementCharacter)
            return true;
    }
    return false;
}

} // namespace

struct UrlPatternMatcher::Set
{
    Set()
        : set(setOptions(), RE2::UNANCHORED)
    {
    }
    RE2::Set set;
    // Kept for texts that the set cannot decide (see contains()).
    QStringList patterns;
    bool compiled = false;
};

UrlPatternMatcher::UrlPatternMatcher() = default;

UrlPatternMatcher::~UrlPatternMatcher() = default;

bool UrlPatternMatcher::sameInRe2(const QString &pattern)
{
    bool inClass = false;
    int classStart = -1;
    for (int i = 0; i < pattern.size(); ++i) {
        const QChar c = pattern.at(i);
        if (c.isSurrogate())
            return false;
        if (c == QLatin1Char('\\')) {
            // Escaped punctuation is the same literal in both; letters and digits name classes,
            // back references, code points or anchors that differ.
            if (i + 1 >= pattern.size() || !isAsciiPunct(pattern.at(i + 1)))
                return false;
            ++i;
            continue;
        }
        if (inClass) {
            if (c == QLatin1Char('['))
                return false; // "[:alpha:]" and friends
            if (c == QLatin1Char(']')) {
                // A "]" first in the class is a literal in RE2 only.
                if (i == classStart || (i == classStart + 1 && pattern.at(classStart) == '^'))
                    return false;
                inClass = false;
            }
            continue;
        }
        switch (c.unicode()) {
        case '[':
            inClass = true;
            classStart = i + 1;
            break;
        case '{':
            if (!plainRepeat(pattern, i))
                return false;
            break;
        case '^':
            if (i != 0)
                return false;
            break;
        case '$':
            if (i != pattern.size() - 1)
                return false;
            break;
        case '(':
            // Groups with options or look-ahead.
            if (i + 1 < pattern.size() && pattern.at(i + 1) == QLatin1Char('?')
                && !(i + 2 < pattern.size() && pattern.at(i + 2) == QLatin1Char(':')))
                return false;
            break;
        default:
            break;
        }
    }
    return !inClass;
}

bool UrlPatternMatcher::add(const QString &pattern)
{
    QRegExp expression(pattern, Qt::CaseSensitive, QRegExp::RegExp);
    if (!expression.isValid())
        return false;
    ++m_size;
    if (pattern.isEmpty()) {
        m_matchesAll = true;
        return true;
    }
    if (sameInRe2(pattern) && !m_compiled) {
        if (m_sets.empty() || m_sets.back()->patterns.size() >= patternsPerSet)
            m_sets.push_back(std::make_unique<Set>());
        Set &set = *m_sets.back();
        const QByteArray utf8 = pattern.toUtf8();
        if (set.set.Add(re2::StringPiece(utf8.constData(), size_t(utf8.size())), nullptr) >= 0) {
            set.patterns << pattern;
            return true;
        }
    }
    m_fallback.push_back(expression);
    return true;
}

void UrlPatternMatcher::compile()
{
    if (m_compiled)
        return;
    m_compiled = true;
    for (const std::unique_ptr<Set> &set : m_sets) {
        set->compiled = !set->patterns.isEmpty() && set->set.Compile();
        if (!set->compiled && !set->patterns.isEmpty())
            qWarning() << "URL patterns: a set of" << set->patterns.size()
                       << "does not fit in memory; they are checked one by one.";
    }
}

bool UrlPatternMatcher::fallbackContains(const QString &text) const
{
    for (QRegExp &expression : m_fallback) {
        if (expression.indexIn(text) != -1)
            return true;
    }
    return false;
}

bool UrlPatternMatcher::allContains(const QString &text) const
{
    for (const std::unique_ptr<Set> &set : m_sets) {
        for (const QString &pattern : std::as_const(set->patterns)) {
            if (QRegExp(pattern, Qt::CaseSensitive, QRegExp::RegExp).indexIn(text) != -1)
                return true;
        }
    }
    return fallbackContains(text);
}

bool UrlPatternMatcher::setContains(const Set &set, const QByteArray &utf8) const
{
    if (set.compiled) {
        RE2::Set::ErrorInfo error{RE2::Set::kNoError};
        if (set.set.Match(re2::StringPiece(utf8.constData(), size_t(utf8.size())), nullptr, &error))
            return true;
        if (error.kind == RE2::Set::kNoError)
            return false;
    }
    const QString text = QString::fromUtf8(utf8);
    for (const QString &pattern : set.patterns) {
        if (QRegExp(pattern, Qt::CaseSensitive, QRegExp::RegExp).indexIn(text) != -1)
            return true;
    }
    return false;
}

bool UrlPatternMatcher::contains(const QString &text) const
{
    if (m_matchesAll)
        return true;
    if (!m_compiled)
        return allContains(text);
    if (!m_sets.empty()) {
        // QRegExp counts UTF-16 units, RE2 code points: "." differs on a character outside the
        // BMP, so such (rare) texts are decided the QRegExp way.
        for (const QChar c : text) {
            if (c.isSurrogate())
                return allContains(text);
        }
        const QByteArray utf8 = text.toUtf8();
        for (const std::unique_ptr<Set> &set : m_sets) {
            if (setContains(*set, utf8))
                return true;
        }
    }
    return fallbackContains(text);
}

std::shared_ptr<const UrlPatternMatcher> UrlPatternMatcher::fromRestrictionFile(QIODevice &file,
                                                                                const QString &name)
{
    auto matcher = std::make_shared<UrlPatternMatcher>();
    int lineNumber = 0;
    int binary = 0;
    int tooLong = 0;
    int invalid = 0;
    int firstBinary = 0;
    int firstTooLong = 0;
    int firstInvalid = 0;
    QTextStream in(&file);
    while (!in.atEnd()) {
        QString line = in.readLine();
        ++lineNumber;
        if (line.size() > maxPatternLength) {
            if (!tooLong++)
                firstTooLong = lineNumber;
            continue;
        }
        if (holdsBinary(line) && !binary++)
            firstBinary = lineNumber;
        line.replace(QLatin1Char('.'), QLatin1String("\\."));
        line.replace(QLatin1Char('*'), QLatin1String(".*"));
        if (!matcher->add(line) && !invalid++)
            firstInvalid = lineNumber;
    }
    matcher->compile();
    if (tooLong)
        qWarning().noquote() << QStringLiteral("Restriction file %1: %2 line(s) longer than %3 "
                                               "characters ignored (first: line %4).")
                                    .arg(name)
                                    .arg(tooLong)
                                    .arg(maxPatternLength)
                                    .arg(firstTooLong);
    if (binary)
        qWarning().noquote() << QStringLiteral("Restriction file %1: %2 line(s) hold binary or "
                                               "undecodable bytes (first: line %3).")
                                    .arg(name)
                                    .arg(binary)
                                    .arg(firstBinary);
    if (invalid)
        qWarning().noquote() << QStringLiteral(
                                    "Restriction file %1: %2 invalid pattern(s) "
                                    "ignored, e.g. unbalanced brackets (first: line %3).")
                                    .arg(name)
                                    .arg(invalid)
                                    .arg(firstInvalid);
    return matcher;
}
