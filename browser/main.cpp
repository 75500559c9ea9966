#include "commandlineparser.h"
#include "logger.h"
#include "proxyfactory.h"
#include "signalrelay.h"
#include "utils.h"

#include <QApplication>
#include <QDir>
#include <QIcon>
#include <QLocale>
#include <QTranslator>

int main(int argc, char *argv[])
{
    SignalRelay::install();

    const QString stateDir
        = QString::fromLocal8Bit(qgetenv("HOME")) + QLatin1String("/.vorsane-kiosk");
    if (!QDir(stateDir).exists())
        QDir().mkdir(stateDir);

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

    QTranslator translator;
    translator.load(QStringLiteral("browser_") + QLocale::system().name(),
                    QStringLiteral("/usr/share/vorsane-sitedeck/i18n"));
    QApplication::installTranslator(&translator);

    Logger::init();
    QIcon::setThemeName(Utils::getIconTheme());
    QNetworkProxyFactory::setApplicationProxyFactory(new ProxyFactory(&parser));

    // The main window and the slideshow controller take over from here once they exist.
    Logger::shutdown();
    return 0;
}
