#pragma once

#include "dropfolder.h"
#include "playlistfile.h"
#include "remoteprotocol.h"

#include <QCoreApplication>
#include <QJsonObject>
#include <QString>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

class GuardedHttpServer;

namespace httplib {
class ContentReader;
struct Request;
struct Response;
} // namespace httplib

// The remote-control web server: a small page and a JSON API that send the slideshow its
// datagrams, take uploads into the drag-and-drop folder, replace the local playlist and switch
// the screen. Requests are served on a pool of threads, with the limits of GuardedHttpServer;
// file work is serialised by one mutex.
class RemoteServer
{
    Q_DECLARE_TR_FUNCTIONS(RemoteServer)

public:
    struct Config
    {
        quint16 port = 7575;
        // Empty: no key is asked for, and only this machine may connect.
        QString key;
        bool localPlaylist = true;
        bool tv = true;
        QString home;
        // The playlist the page may replace, and the one whose loops it lists.
        QString playlistPath;
        QString loopsPath;
        QString screenshotPath = QStringLiteral("/tmp/screen.png");
        quint16 datagramPort = RemoteProtocol::DatagramPort;
    };

    static constexpr const char *CookieName = "vorsane_remote";
    // Anything but an upload carries at most this much, as sent (chunk framing included).
    static constexpr qint64 MaxRequestBody = 2 * 1024 * 1024;

    explicit RemoteServer(const Config &config);
    ~RemoteServer();

    // Binds the port and serves on a thread of its own.
    bool start();
    void stop();

    // The datagram for a command as the page sends it ({"action": n, "data": {...}}), with only
    // the fields that command reads; empty for an unknown command.
    static QByteArray datagram(const QJsonObject &command);
    static bool keysMatch(const QByteArray &given, const QByteArray &expected);
    // What "show a web address" may show: an http or https address with a host.
    static bool isWebAddress(const QString &address);

    // Answers the requests in input as one connection from this machine would get them, without
    // a socket (for fuzzing the handlers); returns the bytes sent back.
    std::string answer(const std::string &input);

private:
    using Handler = void (RemoteServer::*)(const httplib::Request &, httplib::Response &);
    // A handler that reads the body itself as it arrives (uploads).
    using ReadingHandler = void (RemoteServer::*)(const httplib::Request &, httplib::Response &,
                                                  const httplib::ContentReader &);
    enum class Method { Get, Post, Delete };
    struct Endpoint
    {
        Method method;
        const char *path;
        Handler handler;
        ReadingHandler readingHandler;
    };
    static const Endpoint s_endpoints[];

    void route();
    bool admit(const httplib::Request &request, httplib::Response &response) const;
    bool authorise(const httplib::Request &request, httplib::Response &response) const;
    bool send(const QByteArray &datagram) const;

    void getPage(const httplib::Request &request, httplib::Response &response);
    void getScreen(const httplib::Request &request, httplib::Response &response);
    void getStatus(const httplib::Request &request, httplib::Response &response);
    void postCommand(const httplib::Request &request, httplib::Response &response);
    void getLoops(const httplib::Request &request, httplib::Response &response);
    void getFiles(const httplib::Request &request, httplib::Response &response);
    void upload(const httplib::Request &request, httplib::Response &response,
                const httplib::ContentReader &reader);
    void deleteFile(const httplib::Request &request, httplib::Response &response);
    void getPlaylist(const httplib::Request &request, httplib::Response &response);
    void postPlaylist(const httplib::Request &request, httplib::Response &response);
    void postTv(const httplib::Request &request, httplib::Response &response);

    Config m_config;
    DropFolder m_drop;
    PlaylistFile m_playlist;
    std::unique_ptr<GuardedHttpServer> m_server;
    std::thread m_thread;
    // The listening loop has come to its end (whether it ran or failed at once).
    std::atomic<bool> m_listenEnded{false};
    mutable std::mutex m_files;
};
