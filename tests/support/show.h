#pragma once

#include "testsupport.h"

#include <memory>

class Dispatcher;
class Fleet;
class Viewer;

namespace testsupport {

// The controller with its real parts in this process: a temporary HOME whose "conf" holds the
// playlist and the preferences, stand-ins for the desktop commands, the real viewer and
// dispatcher. The screenshot file is shared by the whole machine; it is checked end to end.
struct Show
{
    Show();
    ~Show();

    // Writes the playlist and the preferences ("section/key=value" entries over a window that
    // is not full screen and a visible pointer), then starts the show.
    bool launch(const QByteArray &playlist, const QStringList &preferences = QStringList());
    QString confPath(const QString &name) const { return home.filePath("conf/" + name); }

    TempHome home;
    FakePrograms fakes;
    LogCapture log;
    std::unique_ptr<CommandLineParser> parser;
    std::unique_ptr<Viewer> viewer;
    std::unique_ptr<Dispatcher> dispatcher;
    // Set up as the program does it: only when the preferences name a broker.
    std::unique_ptr<Fleet> fleet;
};

} // namespace testsupport
