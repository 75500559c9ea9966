#pragma once

#include <QProcess>

// A program the player starts and that may outlive the moment: it gets none of the player's
// open descriptors other than its standard channels. Without this it held the web engine's
// sockets and shared memory, which kept the engine's helper processes alive after a killed
// player, and the player's other files. Optionally it leads a process group of its own, or is
// sent SIGTERM when the player dies.
class ChildProcess : public QProcess
{
    Q_OBJECT

public:
    enum Option {
        NoOption = 0x0,
        // Everything it starts in turn can be ended together.
        OwnGroup = 0x1,
        EndsWithParent = 0x2,
    };
    Q_DECLARE_FLAGS(Options, Option)

    explicit ChildProcess(Options options = NoOption, QObject *parent = nullptr);

#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
protected:
    // Qt 6 dropped this hook: there the constructor sets a child-process modifier instead.
    void setupChildProcess() override;
#endif

private:
    // Runs in the child, between fork and exec: only async-signal-safe calls.
    void prepareChild() const;

    const Options m_options;
};

Q_DECLARE_OPERATORS_FOR_FLAGS(ChildProcess::Options)
