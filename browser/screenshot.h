#pragma once

class QString;
class QWidget;

// The picture of the current content that the remote server hands out, "/tmp/screen.png".
class Screenshot
{
public:
    // A picture left from an earlier run would show content that is not on screen.
    static void removeOld();
    // window is the viewer, content the widget it shows.
    static void take(QWidget *window, QWidget *content);
    static QString path();
};
