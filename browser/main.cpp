#include "childprocess.h"
#include "commandlineparser.h"
#include "dispatcher.h"
#include "fleet.h"
#include "installpaths.h"
#include "logger.h"
#include "proxyfactory.h"
#include "settings.h"
#include "signalrelay.h"
#include "statepaths.h"
#include "utils.h"
#include "viewer.h"
#include "watchdog.h"

#include <QApplication>
#include <QDir>
#include <QIcon>
#include <QLibraryInfo>
#include <QLocale>
#include <QProcess>
#include <QTranslator>

#include <malloc.h>

namespace {
int run(int argc, char *argv[]);
}

int main(int argc, char *argv[])
{
    // Each decoder thread would otherwise get a heap arena of its own, and every arena keeps its
    // freed pages: over thousands of videos and pages that fragmentation grew the memory by
    // megabytes per thousand items. Two arenas keep it flat.
    if (!qEnvironmentVariableIsSet("MALLOC_ARENA_MAX"))
        mallopt(M_ARENA_MAX, 2);
    // Buffers of a decoded picture's size are mapped on their own and go back to the system when
    // freed. glibc otherwise raises that threshold to the size of the first such buffer freed,
    // and later ones stay in a heap that only grows: 27 MB more over 4000 items, most of it
    // after the first thousand, once the pictures of held videos were taken on a thread.
    if (!qEnvironmentVariableIsSet("MALLOC_MMAP_THRESHOLD_")
        && !qEnvironmentVariable("GLIBC_TUNABLES").contains(QLatin1String("mmap_threshold")))
        mallopt(M_MMAP_THRESHOLD, 256 * 1024);
    SignalRelay::install();
    const int code = run(argc, argv);
    // Everything is given back by now (panel, key map, pointer, sound).
    SignalRelay::finishSignal();
    return code;
}

namespace {
int run(int argc, char *argv[])
{

    StatePaths::ensureRoot();

    CommandLineParser parser(argc, argv);
    if (parser.helpRequested()) {
        parser.displayHelp();
        return 0;
    }

    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("vorsane-kiosk"));
    QApplication::setOrganizationName(QStringLiteral("Vorsane"));
    QApplication::setOrganizationDomain(QStringLiteral("vorsane.com"));
    SignalRelay signalRelay;
    Watchdog watchdog;

    QTranslator translator;
    if (translator.load(QStringLiteral("browser_") + QLocale::system().name(),
                        QStringLiteral(VORSANE_DATA_DIR "/i18n"))) {
        QApplication::installTranslator(&translator);
    }
    // The toolkit's own texts (standard buttons, input dialogs) in the same language.
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    const QString toolkitTranslations = QLibraryInfo::path(QLibraryInfo::TranslationsPath);
#else
    // Qt 6 renamed location() to path().
    const QString toolkitTranslations = QLibraryInfo::location(QLibraryInfo::TranslationsPath);
#endif
    QTranslator toolkitTranslator;
    if (toolkitTranslator.load(QLocale::system(), QStringLiteral("qtbase"), QStringLiteral("_"),
                               toolkitTranslations))
        QApplication::installTranslator(&toolkitTranslator);

    Logger::init();
    QIcon::setThemeName(Utils::getIconTheme());
    QNetworkProxyFactory::setApplicationProxyFactory(new ProxyFactory(&parser));

    Viewer viewer;

    ChildProcess displayPower;
    displayPower.start(
        QStringLiteral("xset"),
        {QStringLiteral("dpms"), QStringLiteral("0"), QStringLiteral("0"), QStringLiteral("0")},
        QIODevice::ReadWrite);

    Dispatcher dispatcher(&viewer, &parser);
    if (!dispatcher.isReady())
        return 1;
    // Reports to the fleet's broker and takes its commands, when one is named.
    const std::unique_ptr<Fleet> fleet = Fleet::create(&dispatcher, Settings::load(false, &parser));

    int code = 0;
    // A signal caught while the start-up waited (playlist, downloads) ends the program here:
    // the application's loop would otherwise forget the request and run on.
    if (dispatcher.next())
        code = SignalRelay::caughtSignal() ? SignalRelay::caughtSignal() : QApplication::exec();

    Logger::shutdown();
    return code;
}
} // namespace
