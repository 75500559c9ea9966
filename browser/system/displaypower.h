#pragma once

#include <QString>

// Switches the screen off and on, for the slideshow's screen-off periods and the remote
// server's screen button alike. The way is chosen once per process by slideshow/tv_control:
// "auto" takes the first that works here (the old Raspberry Pi firmware's tools, the Wayland
// compositor's output power, X11 display power management, HDMI-CEC), or one of them by name.
// Where the way can tell, the state is read back after each switch.
class DisplayPower
{
public:
    static void off();
    static void on();
    static void setOn(bool on);
    // Switches a display that is off back on, saying so.
    static void ensureOn();
    // The state read back from the display where the way allows it, else the last one asked for.
    static bool isOff();
    // The way in use here ("tvservice", "vcgencmd", "wlopm", "sway", "wlr-randr", "dpms", "cec"),
    // empty when none can switch the display.
    static QString method();
    // Forgets the way chosen: the next switch looks again (a changed setting, another session).
    static void chooseAgain();
};
