#pragma once

#include "desktoptakeover.h"

#include <memory>

namespace panel {

// Hides the desktop panel while the kiosk runs and gives it back when the kiosk ends. One
// subclass per desktop knows how its panel is stopped and started.
class Manager : public DesktopTakeover
{
public:
    // The manager for the running desktop; none when the panel stays, or on a desktop without
    // a known panel.
    static std::unique_ptr<Manager> create(bool fullscreen, bool passwordSet);

protected:
    Manager();
    bool takeOverImpl() final;
    void giveBackImpl() final;
    // True when a running panel was stopped.
    virtual bool hideImpl() = 0;
    // The panel's own start command.
    virtual QStringList startCommand() const = 0;
    QList<QStringList> giveBackCommands() const final;

private:
    // Started in a session of its own, without waiting for the panel.
    QStringList detached() const;
};

} // namespace panel
