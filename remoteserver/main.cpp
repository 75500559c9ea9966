#include "commandlineparser.h"
#include "installpaths.h"
#include "playlistparser.h"
#include "remoteserver.h"
#include "settings.h"
#include "statepaths.h"

#include <QCoreApplication>
#include <QDebug>
#include <QLocale>
#include <QTranslator>

#include <csignal>
#include <cstring>
#include <iostream>
#include <vector>

int main(int argc, char *argv[])
{
    // Blocked before any thread starts, so every thread leaves them to the sigwait below.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    // --port is this program's own; everything else is the kiosk's command line, which names
    // the preference and playlist files.
    int port = 0;
    std::vector<char *> kioskArguments{argv[0]};
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--port") == 0 && i + 1 < argc) {
            port = QByteArray(argv[++i]).toInt();
        } else if (std::strcmp(argv[i], "--help") == 0) {
            std::cout << "Usage: vorsane-remote [--port PORT] [--basepath DIR] [--preference FILE]"
                         " [--playlist FILE]\n"
                         "Serves the remote-control page on PORT (default: remote/port).\n"
                         "The key is VORSANE_REMOTE_KEY from the environment, else remote/key.\n";
            return 0;
        } else {
            kioskArguments.push_back(argv[i]);
        }
    }
    kioskArguments.push_back(nullptr);

    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("vorsane-remote"));
    // The page and the answers speak the language of the player's desktop.
    QTranslator translator;
    if (translator.load(QStringLiteral("browser_") + QLocale::system().name(),
                        QStringLiteral(VORSANE_DATA_DIR "/i18n")))
        QCoreApplication::installTranslator(&translator);
    CommandLineParser parser(int(kioskArguments.size()) - 1, kioskArguments.data());
    Settings *settings = Settings::load(false, &parser);

    RemoteServer::Config config;
    config.port = quint16(port > 0 ? port : settings->remotePort());
    config.key = settings->remoteKey();
    if (qEnvironmentVariableIsSet("VORSANE_REMOTE_KEY")) {
        config.key = qEnvironmentVariable("VORSANE_REMOTE_KEY");
        qunsetenv("VORSANE_REMOTE_KEY");
    }
    config.localPlaylist = settings->get(QStringLiteral("remote/localplaylist")).toBool();
    config.tv = settings->get(QStringLiteral("remote/tv")).toBool();
    config.home = StatePaths::home();
    config.playlistPath = settings->playlistFilename();
    config.loopsPath = settings->playlistUpdateMode() == Settings::UpdateMode::LocalPlaylist
                           ? config.playlistPath
                           : PlaylistParser::localCopyPath();

    RemoteServer server(config);
    if (!server.start())
        return 1;
    int signal = 0;
    sigwait(&stopSignals, &signal);
    qInfo() << "Remote server stopping on signal" << signal;
    server.stop();
    return 0;
}
