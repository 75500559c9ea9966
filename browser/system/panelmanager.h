#pragma once

#include <QString>

namespace panel {

// Hides the desktop panel while the kiosk runs and gives it back when the kiosk ends.
class Manager
{
public:
    // The manager for the running desktop (LXDE or XFCE); one that does nothing elsewhere.
    static Manager *create(bool fullscreen, bool passwordSet);
    virtual ~Manager();

    bool hidden() const { return m_hidden; }

protected:
    Manager() = default;
    void hide();
    void restore();
    virtual bool hideImpl() = 0;
    virtual void restoreImpl() = 0;

private:
    bool m_hidden = false;
};

class LxdeManager : public Manager
{
public:
    LxdeManager(bool fullscreen, bool passwordSet);
    ~LxdeManager() override;

protected:
    bool hideImpl() override;
    void restoreImpl() override;
};

class XfceManager : public Manager
{
public:
    XfceManager(bool fullscreen, bool passwordSet);
    ~XfceManager() override;

protected:
    bool hideImpl() override;
    void restoreImpl() override;
};

class NullManager : public Manager
{
public:
    ~NullManager() override;

protected:
    bool hideImpl() override { return false; }
    void restoreImpl() override {}
};

} // namespace panel
