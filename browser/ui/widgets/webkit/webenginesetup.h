#pragma once

class Settings;

// What the web engine needs once, before the first page: its global settings from the
// preferences and the cookie file's database connection.
class WebEngineSetup
{
public:
    static void init(Settings *settings);
};
