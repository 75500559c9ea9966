#pragma once

// The commands of the remote-control datagram ({"action": n, "data": {...}}), by their numbers on
// the wire. Shared by the player that obeys them and the companion server that sends them.
namespace RemoteProtocol {

enum class Action : int {
    Pause = 0,
    Next = 1,
    GoTo = 2,
    Screenshot = 3,
    Restart = 4,
    Text = 5,
    Loop = 6,
    ReadUrl = 7,
    RemoveDroppedFile = 8,
    // 9 stays unused: senders of old used it for nothing, and it must keep doing nothing.
    ScreenPower = 10,
};

constexpr int code(Action action)
{
    return static_cast<int>(action);
}

// The UDP port the player listens on, on the loopback address only.
constexpr unsigned short DatagramPort = 54545;

} // namespace RemoteProtocol
