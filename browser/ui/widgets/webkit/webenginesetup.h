#pragma once

class Settings;
class QWidget;

// What the web engine needs once, before the first page: its global settings from the
// preferences and the cookie file's database connection.
class WebEngineSetup
{
public:
    static void init(Settings *settings);
    // Called before the program's window is first shown; the engine draws like any widget.
    static void prepareWindow(QWidget *) {}
};
