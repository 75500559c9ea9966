#pragma once

// Switches the display output off and on with the Raspberry Pi display tool. Shared by the idle
// periods of the slideshow and the remote server's screen button, so both act alike.
class DisplayPower
{
public:
    static void off();
    static void on();
    static bool isOff();
};
