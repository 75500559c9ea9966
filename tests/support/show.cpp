#include "show.h"

#include "commandlineparser.h"
#include "dispatcher.h"
#include "fleet.h"
#include "settings.h"
#include "viewer.h"
#include "webtest.h"

#include <QCoreApplication>
#include <QSettings>

namespace testsupport {

Show::Show()
{
    qputenv("XDG_CURRENT_DESKTOP", "none");
    fakes.addDesktopCommands();
    prepareWebEngine();
}

Show::~Show()
{
    fleet.reset();
    dispatcher.reset();
    viewer.reset();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

bool Show::launch(const QByteArray &playlist, const QStringList &preferences)
{
    if (!writeFile(confPath("playlist"), playlist))
        return false;
    {
        QSettings file(confPath("preferences"), QSettings::IniFormat);
        file.setValue("main/version", "QFGLs6IVf1");
        file.setValue("main/fullscreen", false);
        file.setValue("slideshow/hide_pointer", false);
        for (const QString &entry : preferences)
            file.setValue(entry.section('=', 0, 0), entry.section('=', 1));
    }
    parser = makeParser(home.filePath("conf"));
    Settings::load(true, parser.get());
    viewer = std::make_unique<Viewer>();
    dispatcher = std::make_unique<Dispatcher>(viewer.get(), parser.get());
    fleet = Fleet::create(dispatcher.get(), Settings::load(false, parser.get()));
    return QObject::disconnect(viewer.get(), &Viewer::readyToShoot, dispatcher.get(),
                               &Dispatcher::shootScreen)
           && dispatcher->isReady() && dispatcher->next();
}

} // namespace testsupport
