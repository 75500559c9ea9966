#include "labwcshortcutmanager.h"

#include "desktop.h"

#include <QDomDocument>

namespace {
ConfigFileEdit edit()
{
    return ConfigFileEdit(Desktop::configHome() + QLatin1String("/labwc/rc.xml"),
                          {QStringLiteral("/etc/xdg/labwc/rc.xml")},
                          "<?xml version=\"1.0\"?>\n<labwc_config/>\n",
                          &LabwcShortcutManager::withoutKeyBindings);
}
} // namespace

LabwcShortcutManager::LabwcShortcutManager()
    : ConfigFileShortcutManager(edit(),
                                {{QStringLiteral("labwc"), QStringLiteral("--reconfigure")}})
{
    takeOver();
}

LabwcShortcutManager::~LabwcShortcutManager()
{
    giveBack();
}

QByteArray LabwcShortcutManager::withoutKeyBindings(const QByteArray &configuration)
{
    QDomDocument document;
    if (!document.setContent(configuration))
        return QByteArray();
    QDomElement root = document.documentElement();
    QDomElement keyboard = root.firstChildElement(QStringLiteral("keyboard"));
    if (keyboard.isNull())
        keyboard = root.appendChild(document.createElement(QStringLiteral("keyboard"))).toElement();
    for (const QString &name : {QStringLiteral("keybind"), QStringLiteral("default")}) {
        while (!keyboard.firstChildElement(name).isNull())
            keyboard.removeChild(keyboard.firstChildElement(name));
    }
    // labwc falls back to its default bindings when none is given: one that does nothing, on a
    // key no keyboard has, keeps them away.
    QDomElement keybind = document.createElement(QStringLiteral("keybind"));
    keybind.setAttribute(QStringLiteral("key"), QStringLiteral("F35"));
    QDomElement action = document.createElement(QStringLiteral("action"));
    action.setAttribute(QStringLiteral("name"), QStringLiteral("None"));
    keybind.appendChild(action);
    keyboard.appendChild(keybind);
    return document.toByteArray(2);
}
