#include "openboxshortcutmanager.h"

#include <QDomDocument>

namespace {
// LXDE starts openbox with a configuration file of its own, named after the session.
QString fileName(Desktop::Kind desktop)
{
    return desktop == Desktop::Kind::Lxde ? QStringLiteral("lxde-rc.xml")
                                          : QStringLiteral("lxde-pi-rc.xml");
}

ConfigFileEdit edit(Desktop::Kind desktop)
{
    const QString name = fileName(desktop);
    return ConfigFileEdit(
        Desktop::configHome() + QLatin1String("/openbox/") + name,
        {QStringLiteral("/etc/xdg/openbox/") + name, QStringLiteral("/etc/xdg/openbox/rc.xml")},
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<openbox_config xmlns=\"http://openbox.org/3.4/rc\"/>\n",
        &OpenboxShortcutManager::withoutKeyBindings);
}
} // namespace

OpenboxShortcutManager::OpenboxShortcutManager(Desktop::Kind desktop)
    : ConfigFileShortcutManager(edit(desktop),
                                {{QStringLiteral("openbox"), QStringLiteral("--reconfigure")}})
{
    takeOver();
}

OpenboxShortcutManager::~OpenboxShortcutManager()
{
    giveBack();
}

QByteArray OpenboxShortcutManager::withoutKeyBindings(const QByteArray &configuration)
{
    QDomDocument document;
    if (!document.setContent(configuration))
        return QByteArray();
    QDomElement root = document.documentElement();
    QDomElement keyboard = root.firstChildElement(QStringLiteral("keyboard"));
    if (keyboard.isNull())
        keyboard = root.appendChild(document.createElement(QStringLiteral("keyboard"))).toElement();
    while (!keyboard.firstChildElement(QStringLiteral("keybind")).isNull())
        keyboard.removeChild(keyboard.firstChildElement(QStringLiteral("keybind")));
    return document.toByteArray(2);
}
