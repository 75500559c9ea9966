#include "wayfireshortcutmanager.h"

#include "desktop.h"
#include "initext.h"

namespace {
// Window switching, closing and the overviews; the [command] section's bindings (terminal,
// launcher, menu) are all taken.
const char *const bindings[][2] = {
    {"core", "close_top_view"},
    {"switcher", "next_view"},
    {"switcher", "prev_view"},
    {"fast-switcher", "activate"},
    {"fast-switcher", "activate_backward"},
    {"expo", "toggle"},
    {"scale", "toggle"},
    {"scale", "toggle_all"},
};

QString configFile()
{
    const QString configured = qEnvironmentVariable("WAYFIRE_CONFIG_FILE");
    return configured.isEmpty() ? Desktop::configHome() + QLatin1String("/wayfire.ini")
                                : configured;
}
} // namespace

WayfireShortcutManager::WayfireShortcutManager()
    : ConfigFileShortcutManager(
        ConfigFileEdit(configFile(), {}, "\n", &WayfireShortcutManager::withoutKeyBindings), {})
{
    takeOver();
}

WayfireShortcutManager::~WayfireShortcutManager()
{
    giveBack();
}

QByteArray WayfireShortcutManager::withoutKeyBindings(const QByteArray &configuration)
{
    QByteArray text = configuration;
    for (const QByteArray &key : IniText::keys(configuration, "command")) {
        if (key.startsWith("binding_"))
            text = IniText::set(text, "command", key, "none");
    }
    for (const auto &binding : bindings)
        text = IniText::set(text, binding[0], binding[1], "none");
    return text;
}
