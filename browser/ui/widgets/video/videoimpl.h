#pragma once

// A player behind the Video widget. Each operation answers the matching Runnable hook.
class VideoImpl
{
public:
    virtual ~VideoImpl() = default;

    virtual void pause() = 0;
    virtual void resume() = 0;
    virtual bool onTimeout() = 0;
    virtual bool start() = 0;
    virtual bool stop() = 0;
    // Opens the item ahead of its turn, held on its first picture, out of sight.
    virtual void prepare() {}
    virtual bool isReady() const { return true; }
    // Takes the picture off the screen at once, ahead of a stop that may take a while.
    virtual void hideOutput() {}
};
