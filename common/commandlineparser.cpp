#include "commandlineparser.h"

#include "installpaths.h"

#include <QDebug>

#include <cstring>
#include <iomanip>
#include <iostream>

namespace {
const char defaultBasePath[] = VORSANE_CONFIG_DIR;
}

CommandLineParser::CommandLineParser(int argc, char **argv)
    : m_basePath(QString::fromLatin1(defaultBasePath))
    , m_programName(argc > 0 ? QString::fromLatin1(argv[0]) : QString())
{
    if (argc < 2)
        return;

    struct Option
    {
        const char *name;
        QString *value;
    };
    const Option options[] = {
        {"--preference", &m_preference}, {"--playlist", &m_playlist}, {"--whitelist", &m_whiteList},
        {"--cookie", &m_cookie},         {"--basepath", &m_basePath}, {"--hooks", &m_hooks},
    };

    for (int i = 1; i < argc; ++i) {
        const char *arg = argv[i];
        const Option *matched = nullptr;
        for (const Option &option : options) {
            if (std::strcmp(arg, option.name) == 0) {
                matched = &option;
                break;
            }
        }
        if (matched) {
            if (++i >= argc)
                return;
            *matched->value = QString::fromUtf8(argv[i]);
        } else if (std::strcmp(arg, "--help") == 0) {
            m_help = true;
        } else {
            qDebug() << "Unrecognized argument: " << arg;
        }
    }
}

QString CommandLineParser::orDefault(const QString &explicitPath, const char *suffix) const
{
    if (!explicitPath.isEmpty())
        return explicitPath;
    return m_basePath + QLatin1String(suffix);
}

QString CommandLineParser::getPreferenceFilename() const
{
    return orDefault(m_preference, "/preferences");
}

QString CommandLineParser::getPlaylistFilename() const
{
    return orDefault(m_playlist, "/playlist");
}

QString CommandLineParser::getWhiteListFilename() const
{
    return orDefault(m_whiteList, "/list");
}

QString CommandLineParser::getCookieFilename() const
{
    return orDefault(m_cookie, "/cookies.sqlite");
}

QString CommandLineParser::getHookDirname() const
{
    return orDefault(m_hooks, "/hooks");
}

void CommandLineParser::displayHelp() const
{
    const std::string base = defaultBasePath;
    // --whitelist is accepted but deliberately not advertised.
    const std::pair<const char *, std::string> lines[] = {
        {"--help", "Display this help menu and exit"},
        {"--basepath", "Use this as default base path (default=" + base + ")"},
        {"--preference", "Use this as path for preference file (default=<base_path>/preferences)"},
        {"--playlist", "Use this as path for playlist file (default=<base_path>/playlist)"},
        {"--cookie",
         "Use this as cookie file for the browser (default=<base_path>/cookies.sqlite)"},
        {"--hooks", "Use this directory to find hooks (default=<base_path>/hooks)"},
    };
    std::cout << m_programName.toStdString() << '\n' << "Arguments:" << '\n';
    for (const auto &line : lines)
        std::cout << "  " << std::left << std::setw(15) << line.first << line.second << '\n';
    std::cout.flush();
}
