#include "commandlineparser.h"
#include "dispatcher.h"
#include "installpaths.h"
#include "logger.h"
#include "proxyfactory.h"
#include "signalrelay.h"
#include "utils.h"
#include "viewer.h"

#include <QApplication>
#include <QDir>
#include <QIcon>
#include <QLocale>
#include <QProcess>
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
                    QStringLiteral(VORSANE_DATA_DIR "/i18n"));
    QApplication::installTranslator(&translator);

    Logger::init();
    QIcon::setThemeName(Utils::getIconTheme());
    QNetworkProxyFactory::setApplicationProxyFactory(new ProxyFactory(&parser));

    Viewer viewer;

    QProcess displayPower;
    displayPower.start(
        QStringLiteral("xset"),
        {QStringLiteral("dpms"), QStringLiteral("0"), QStringLiteral("0"), QStringLiteral("0")},
        QIODevice::ReadWrite);

    Dispatcher dispatcher(&viewer, &parser);
    if (!dispatcher.isReady())
        return 1;

    int code = 0;
    if (dispatcher.next())
        code = QApplication::exec();

    Logger::shutdown();
    return code;
}
