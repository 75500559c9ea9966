#include "guardedhttpserver.h"

#include <QDebug>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// What receive() and transmit() return when their deadline passed.
constexpr ssize_t TimedOut = -2;

milliseconds pace(size_t bytes)
{
    return milliseconds(bytes * 1000 / GuardedHttpServer::MinPace);
}

milliseconds timeout(time_t seconds, time_t microseconds)
{
    return milliseconds(seconds * 1000 + microseconds / 1000);
}

// Milliseconds to wait: until the deadline, but never longer than a slice, so that a stopping
// server is noticed.
int slice(Clock::time_point now, Clock::time_point deadline, milliseconds most)
{
    return int(std::max<milliseconds::rep>(
        1, std::min(most, std::chrono::duration_cast<milliseconds>(deadline - now)).count()));
}

std::string peerAddress(socket_t sock)
{
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (::getpeername(sock, reinterpret_cast<sockaddr *>(&address), &length) != 0)
        return std::string();
    char text[INET6_ADDRSTRLEN] = {};
    if (address.ss_family == AF_INET)
        ::inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in &>(address).sin_addr, text, sizeof text);
    else if (address.ss_family == AF_INET6)
        ::inet_ntop(AF_INET6, &reinterpret_cast<sockaddr_in6 &>(address).sin6_addr, text,
                    sizeof text);
    return text;
}
} // namespace

// The bytes of one connection, with the limits of the request being read and of its answer.
class GuardedStream : public httplib::Stream
{
public:
    enum class Failure {
        None,
        HeadTooSlow,
        HeadTooLarge,
        BodyTooSlow,
        BodyTooLarge,
        AnswerTooSlow
    };

    GuardedStream(milliseconds readWait, milliseconds writeWait)
        : m_readWait(readWait)
        , m_writeWait(writeWait)
    {
    }

    // Whether the first byte of a request is there before the deadline; false also when
    // giveUp says so while waiting.
    virtual bool awaitRequest(Clock::time_point deadline, const std::function<bool()> &giveUp) = 0;

    void beginRequest()
    {
        m_head = true;
        m_readStart = Clock::now();
        m_read = 0;
        m_writing = false;
        m_closeRequested = false;
    }

    void beginBody(size_t budget)
    {
        m_head = false;
        m_readStart = Clock::now();
        m_read = 0;
        m_budget = budget;
    }

    void requestClose() { m_closeRequested = true; }
    Failure failure() const { return m_failure; }
    bool mustClose() const { return m_failure != Failure::None || m_broken || m_closeRequested; }
    // Whether the client may still be sending what was not read.
    bool leftUnread() const
    {
        return m_closeRequested || m_failure == Failure::BodyTooLarge
               || m_failure == Failure::HeadTooLarge;
    }

    bool is_readable() const override { return buffered(); }
    bool is_writable() const override { return !m_broken; }

    ssize_t read(char *ptr, size_t size) override
    {
        if (m_failure != Failure::None || m_broken)
            return -1;
        const size_t limit = m_head ? GuardedHttpServer::MaxHeadBytes : m_budget;
        if (m_read >= limit)
            return fail(m_head ? Failure::HeadTooLarge : Failure::BodyTooLarge);
        if (!buffered()) {
            const Clock::time_point deadline
                = m_head ? m_readStart + GuardedHttpServer::HeadTimeout
                         : m_readStart + GuardedHttpServer::PaceGrace + pace(m_read);
            const ssize_t n
                = receive(m_buffer, sizeof m_buffer, std::min(deadline, Clock::now() + m_readWait));
            if (n == TimedOut)
                return fail(m_head ? Failure::HeadTooSlow : Failure::BodyTooSlow);
            if (n < 0)
                m_broken = true;
            if (n <= 0)
                return n < 0 ? -1 : 0;
            m_begin = 0;
            m_end = size_t(n);
        }
        const size_t n = std::min({size, limit - m_read, m_end - m_begin});
        std::memcpy(ptr, m_buffer + m_begin, n);
        m_begin += n;
        m_read += n;
        return ssize_t(n);
    }

    ssize_t write(const char *ptr, size_t size) override
    {
        if (m_broken)
            return -1;
        if (!m_writing) {
            m_writing = true;
            m_writeStart = Clock::now();
            m_written = 0;
        }
        const Clock::time_point deadline
            = m_writeStart + GuardedHttpServer::PaceGrace + pace(m_written);
        const ssize_t n = transmit(ptr, size, std::min(deadline, Clock::now() + m_writeWait));
        if (n < 0) {
            if (n == TimedOut && m_failure == Failure::None)
                m_failure = Failure::AnswerTooSlow;
            m_broken = true;
            return -1;
        }
        m_written += size_t(n);
        return n;
    }

protected:
    bool buffered() const { return m_begin < m_end; }
    // At most size bytes as they come: 0 at the end, -1 on an error, TimedOut.
    virtual ssize_t receive(char *buffer, size_t size, Clock::time_point deadline) = 0;
    virtual ssize_t transmit(const char *data, size_t size, Clock::time_point deadline) = 0;

private:
    ssize_t fail(Failure failure)
    {
        m_failure = failure;
        return -1;
    }

    const milliseconds m_readWait;
    const milliseconds m_writeWait;
    char m_buffer[4096];
    size_t m_begin = 0;
    size_t m_end = 0;
    bool m_head = true;
    Clock::time_point m_readStart = Clock::now();
    size_t m_read = 0;
    size_t m_budget = 0;
    bool m_writing = false;
    Clock::time_point m_writeStart;
    size_t m_written = 0;
    Failure m_failure = Failure::None;
    bool m_broken = false;
    bool m_closeRequested = false;
};

namespace {
thread_local GuardedStream *s_current = nullptr;

class SocketStream : public GuardedStream
{
public:
    SocketStream(socket_t sock, milliseconds readWait, milliseconds writeWait,
                 std::function<bool()> stopping)
        : GuardedStream(readWait, writeWait)
        , m_socket(sock)
        , m_stopping(std::move(stopping))
    {
    }

    bool awaitRequest(Clock::time_point deadline, const std::function<bool()> &giveUp) override
    {
        if (buffered())
            return true;
        for (;;) {
            const Clock::time_point now = Clock::now();
            if (now >= deadline || m_stopping() || giveUp())
                return false;
            const int ready = wait(POLLIN, slice(now, deadline, milliseconds(100)));
            if (ready != 0)
                return ready > 0;
        }
    }

    // Closes the connection; one that may still be sending is read out a little first, so that
    // the answer is not lost to a reset.
    void close(bool linger)
    {
        if (linger && ::shutdown(m_socket, SHUT_WR) == 0) {
            char sink[4096];
            size_t drained = 0;
            const Clock::time_point deadline = Clock::now() + milliseconds(1000);
            while (drained < 1024 * 1024) {
                const ssize_t n = receive(sink, sizeof sink, deadline);
                if (n <= 0)
                    break;
                drained += size_t(n);
            }
        }
        ::shutdown(m_socket, SHUT_RDWR);
        ::close(m_socket);
    }

    void get_remote_ip_and_port(std::string &ip, int &port) const override
    {
        endpoint(&::getpeername, ip, port);
    }
    void get_local_ip_and_port(std::string &ip, int &port) const override
    {
        endpoint(&::getsockname, ip, port);
    }
    socket_t socket() const override { return m_socket; }

protected:
    ssize_t receive(char *buffer, size_t size, Clock::time_point deadline) override
    {
        for (;;) {
            const Clock::time_point now = Clock::now();
            if (m_stopping())
                return -1;
            if (now >= deadline)
                return TimedOut;
            const int ready = wait(POLLIN, slice(now, deadline, milliseconds(200)));
            if (ready < 0)
                return -1;
            if (ready == 0)
                continue;
            const ssize_t n = ::recv(m_socket, buffer, size, MSG_DONTWAIT);
            if (n >= 0)
                return n;
            if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
                return -1;
        }
    }

    ssize_t transmit(const char *data, size_t size, Clock::time_point deadline) override
    {
        for (;;) {
            const Clock::time_point now = Clock::now();
            if (m_stopping())
                return -1;
            if (now >= deadline)
                return TimedOut;
            const int ready = wait(POLLOUT, slice(now, deadline, milliseconds(200)));
            if (ready < 0)
                return -1;
            if (ready == 0)
                continue;
            const ssize_t n = ::send(m_socket, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n >= 0)
                return n;
            if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
                return -1;
        }
    }

private:
    // 1 when ready, 0 when not yet, -1 when the connection is gone.
    int wait(short events, int milliseconds) const
    {
        pollfd entry{m_socket, events, 0};
        const int result = ::poll(&entry, 1, milliseconds);
        if (result < 0)
            return errno == EINTR ? 0 : -1;
        if (result == 0)
            return 0;
        if (entry.revents & events)
            return 1;
        // A hang-up with nothing left to read still reads as the end.
        return (entry.revents & POLLHUP) && events == POLLIN ? 1 : -1;
    }

    using NameFunction = int (*)(int, sockaddr *, socklen_t *);
    void endpoint(NameFunction name, std::string &ip, int &port) const
    {
        sockaddr_storage address{};
        socklen_t length = sizeof address;
        ip.clear();
        port = -1;
        if (name(m_socket, reinterpret_cast<sockaddr *>(&address), &length) != 0)
            return;
        char text[INET6_ADDRSTRLEN] = {};
        if (address.ss_family == AF_INET) {
            const auto &in = reinterpret_cast<const sockaddr_in &>(address);
            ::inet_ntop(AF_INET, &in.sin_addr, text, sizeof text);
            port = ntohs(in.sin_port);
        } else if (address.ss_family == AF_INET6) {
            const auto &in = reinterpret_cast<const sockaddr_in6 &>(address);
            ::inet_ntop(AF_INET6, &in.sin6_addr, text, sizeof text);
            port = ntohs(in.sin6_port);
        }
        ip = text;
    }

    const socket_t m_socket;
    const std::function<bool()> m_stopping;
};

// Requests from a buffer, answers into one.
class MemoryStream : public GuardedStream
{
public:
    explicit MemoryStream(const std::string &input)
        : GuardedStream(milliseconds(0), milliseconds(0))
        , m_input(input)
    {
    }

    const std::string &output() const { return m_output; }

    bool awaitRequest(Clock::time_point, const std::function<bool()> &) override
    {
        return buffered() || m_at < m_input.size();
    }
    void get_remote_ip_and_port(std::string &ip, int &port) const override
    {
        ip = "127.0.0.1";
        port = 40000;
    }
    void get_local_ip_and_port(std::string &ip, int &port) const override
    {
        ip = "127.0.0.1";
        port = 7575;
    }
    socket_t socket() const override { return INVALID_SOCKET; }

protected:
    ssize_t receive(char *buffer, size_t size, Clock::time_point) override
    {
        const size_t n = std::min(size, m_input.size() - m_at);
        std::memcpy(buffer, m_input.data() + m_at, n);
        m_at += n;
        return ssize_t(n);
    }

    ssize_t transmit(const char *data, size_t size, Clock::time_point) override
    {
        m_output.append(data, size);
        return ssize_t(size);
    }

private:
    const std::string &m_input;
    size_t m_at = 0;
    std::string m_output;
};

void logFailure(GuardedStream::Failure failure, const std::string &address)
{
    using Failure = GuardedStream::Failure;
    const QString who = QString::fromStdString(address);
    switch (failure) {
    case Failure::None:
        break;
    case Failure::HeadTooSlow:
        qWarning().noquote() << "Remote server:" << who << "sent no complete request head within"
                             << GuardedHttpServer::HeadTimeout.count() << "s; connection closed.";
        break;
    case Failure::HeadTooLarge:
        qWarning().noquote() << "Remote server:" << who << "sent a request head over"
                             << GuardedHttpServer::MaxHeadBytes << "bytes; connection closed.";
        break;
    case Failure::BodyTooSlow:
        qWarning().noquote() << "Remote server:" << who
                             << "sent a request body too slowly; connection closed.";
        break;
    case Failure::BodyTooLarge:
        qWarning().noquote() << "Remote server:" << who
                             << "sent a request body over its limit; connection closed.";
        break;
    case Failure::AnswerTooSlow:
        qWarning().noquote() << "Remote server:" << who
                             << "took an answer too slowly; connection closed.";
        break;
    }
}
} // namespace

GuardedHttpServer::GuardedHttpServer()
{
    new_task_queue = [] {
        return new httplib::ThreadPool(Workers);
    };
    set_read_timeout(10, 0);
    set_write_timeout(10, 0);
    set_keep_alive_timeout(5);
    set_keep_alive_max_count(20);
    // A handler that answers without reading the body asks for the connection to end.
    set_post_routing_handler([](const httplib::Request &, httplib::Response &response) {
        if (s_current && response.get_header_value("Connection") == "close")
            s_current->requestClose();
    });
}

GuardedHttpServer::~GuardedHttpServer()
{
    closeWaiting();
}

void GuardedHttpServer::setBodyLimit(BodyLimit limit)
{
    m_bodyLimit = std::move(limit);
}

bool GuardedHttpServer::bindTo(const std::string &host, int port)
{
    if (!bind_to_port(host, port))
        return false;
    // cpp-httplib listens with a queue of five; a burst of connections beyond it would wait for
    // the clients' SYN retries, a second and more. Listening again only lengthens the queue.
    ::listen(svr_sock_, SOMAXCONN);
    return true;
}

void GuardedHttpServer::closeWaiting()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto &entry : m_clients) {
        for (const socket_t sock : entry.second.waiting)
            ::close(sock);
        entry.second.waiting.clear();
    }
}

bool GuardedHttpServer::bodyTooLarge()
{
    return s_current && s_current->failure() == GuardedStream::Failure::BodyTooLarge;
}

std::string GuardedHttpServer::answer(const std::string &input)
{
    MemoryStream stream(input);
    serve(stream, "127.0.0.1");
    return stream.output();
}

bool GuardedHttpServer::stopping() const
{
    return svr_sock_ == INVALID_SOCKET;
}

bool GuardedHttpServer::hasWaiting(const std::string &address)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto client = m_clients.find(address);
    return client != m_clients.end() && !client->second.waiting.empty();
}

bool GuardedHttpServer::process_and_close_socket(socket_t sock)
{
    const std::string address = peerAddress(sock);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        Client &client = m_clients[address];
        if (stopping() || client.active >= ConnectionsPerAddress) {
            if (!stopping() && client.waiting.size() < WaitingPerAddress) {
                client.waiting.push_back(sock);
                return true;
            }
            if (!stopping() && client.waiting.size() == WaitingPerAddress)
                qWarning().noquote()
                    << "Remote server:" << QString::fromStdString(address) << "has"
                    << WaitingPerAddress << "connections waiting; further ones are closed.";
            ::close(sock);
            if (client.active == 0 && client.waiting.empty())
                m_clients.erase(address);
            return false;
        }
        ++client.active;
    }
    for (;;) {
        SocketStream stream(sock, timeout(read_timeout_sec_, read_timeout_usec_),
                            timeout(write_timeout_sec_, write_timeout_usec_),
                            [this] { return stopping(); });
        serve(stream, address);
        stream.close(stream.leftUnread());

        std::lock_guard<std::mutex> lock(m_mutex);
        Client &client = m_clients[address];
        if (client.waiting.empty() || stopping()) {
            if (--client.active == 0 && client.waiting.empty())
                m_clients.erase(address);
            return true;
        }
        sock = client.waiting.front();
        client.waiting.pop_front();
    }
}

void GuardedHttpServer::serve(GuardedStream &stream, const std::string &address)
{
    for (size_t left = keep_alive_max_count_; left > 0; --left) {
        const Clock::time_point idleSince = Clock::now();
        if (!stream.awaitRequest(idleSince + std::chrono::seconds(keep_alive_timeout_sec_),
                                 [this, &address, idleSince] {
                                     return Clock::now() - idleSince >= IdleYield
                                            && hasWaiting(address);
                                 }))
            break;
        stream.beginRequest();
        bool closed = false;
        s_current = &stream;
        const bool answered = processRequest(
            *this, stream, left == 1, closed,
            [this, &stream](httplib::Request &request) {
                stream.beginBody(m_bodyLimit ? m_bodyLimit(request) : 0);
            },
            0);
        s_current = nullptr;
        logFailure(stream.failure(), address);
        if (!answered || closed || stream.mustClose())
            break;
    }
}
