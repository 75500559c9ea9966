#pragma once

#include <QByteArray>
#include <QCoreApplication>
#include <QDir>
#include <QTemporaryDir>

#include <cstdlib>

namespace fuzz {

// One application and one private HOME for the whole run; child programs are never found.
inline QCoreApplication &application()
{
    static int argc = 1;
    static char name[] = "fuzz";
    static char *argv[] = {name, nullptr};
    static QTemporaryDir home;
    static bool prepared = [] {
        qputenv("HOME", QFile::encodeName(home.path()));
        qputenv("XDG_RUNTIME_DIR", QFile::encodeName(home.path()));
        qputenv("PATH", "/nonexistent");
        // The parsers log every step; printing it would be most of the run's time.
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
        QDir().mkpath(home.path() + QStringLiteral("/.vorsane-kiosk"));
        return true;
    }();
    Q_UNUSED(prepared)
    static QCoreApplication app(argc, argv);
    return app;
}

inline QString home()
{
    application();
    return QDir::homePath();
}

} // namespace fuzz
