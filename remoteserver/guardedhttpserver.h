#pragma once

#include <httplib.h>

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>

class GuardedStream;

// cpp-httplib's server with what it lacks against hostile clients. Its own settings still apply
// (read and write timeouts per wait, keep-alive count and idle time, the worker pool); on top:
// each request's line and headers must arrive whole within a deadline and within a size, a body
// and an answer must keep a minimum pace, every body has a byte budget whatever its transfer
// encoding, and each client address is served on a few connections at a time while its further
// connections wait without holding a worker.
class GuardedHttpServer : public httplib::Server
{
public:
    static constexpr size_t Workers = 64;
    // As many as a browser opens to one server, so that one browser never waits.
    static constexpr int ConnectionsPerAddress = 6;
    // Connections of one address waiting for a turn; more are closed at once.
    static constexpr size_t WaitingPerAddress = 256;
    // An idle connection gives way to a waiting one of its address after this long: not at
    // once, since a browser reuses a connection the moment its answer is in, and closing it then
    // would race with the next request.
    static constexpr std::chrono::milliseconds IdleYield{300};
    static constexpr size_t MaxHeadBytes = 64 * 1024;
    static constexpr std::chrono::seconds HeadTimeout{10};
    // A body or an answer gets this long, and one second more for every MinPace bytes.
    static constexpr std::chrono::seconds PaceGrace{10};
    static constexpr size_t MinPace = 1024;

    // The bytes a request may send as its body, decided once its head is read.
    using BodyLimit = std::function<size_t(const httplib::Request &)>;

    GuardedHttpServer();
    ~GuardedHttpServer() override;

    void setBodyLimit(BodyLimit limit);
    // Binds with a listen queue long enough for a burst of connections.
    bool bindTo(const std::string &host, int port);
    // Closes the connections still waiting for a turn; for after the server has stopped.
    void closeWaiting();

    // Whether the request handled on this thread sent more body than its budget.
    static bool bodyTooLarge();

    // Answers the requests in input as one connection from this machine would get them, and
    // returns the bytes sent back: the handlers without a socket, for fuzzing.
    std::string answer(const std::string &input);

private:
    struct Client
    {
        int active = 0;
        std::deque<socket_t> waiting;
    };

    bool process_and_close_socket(socket_t sock) override;
    void serve(GuardedStream &stream, const std::string &address);
    // One request of a connection. cpp-httplib 0.11 (Debian 12) reads the peer's addresses from
    // the stream itself; later releases (Debian 13) take them as arguments: the overload that
    // compiles against the installed one is taken.
    using RequestSetup = std::function<void(httplib::Request &)>;
    template<typename Server, typename Stream>
    static auto processRequest(Server &server, Stream &stream, bool last, bool &closed,
                               const RequestSetup &setup, int)
        -> decltype(server.process_request(stream, last, closed, setup))
    {
        return server.process_request(stream, last, closed, setup);
    }
    template<typename Server, typename Stream>
    static bool processRequest(Server &server, Stream &stream, bool last, bool &closed,
                               const RequestSetup &setup, long)
    {
        std::string remoteAddress;
        std::string localAddress;
        int remotePort = 0;
        int localPort = 0;
        stream.get_remote_ip_and_port(remoteAddress, remotePort);
        stream.get_local_ip_and_port(localAddress, localPort);
        return server.process_request(stream, remoteAddress, remotePort, localAddress, localPort,
                                      last, closed, setup);
    }
    bool hasWaiting(const std::string &address);
    bool stopping() const;

    BodyLimit m_bodyLimit;
    std::mutex m_mutex;
    std::map<std::string, Client> m_clients;
};
