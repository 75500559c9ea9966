#include "remoteserver.h"

#include "displaypower.h"
#include "guardedhttpserver.h"
#include "playlistparser.h"

#include <QCryptographicHash>
#include <QDebug>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QUdpSocket>
#include <QUrl>

#include <vector>

namespace {
const char jsonType[] = "application/json; charset=utf-8";

void reply(httplib::Response &response, int status, const QJsonObject &body)
{
    response.status = status;
    response.set_header("Cache-Control", "no-store");
    response.set_content(QJsonDocument(body).toJson(QJsonDocument::Compact).toStdString(),
                         jsonType);
}

void fail(httplib::Response &response, int status, const QString &message)
{
    reply(response, status, QJsonObject{{QStringLiteral("error"), message}});
}

QJsonObject jsonBody(const httplib::Request &request)
{
    return QJsonDocument::fromJson(QByteArray::fromStdString(request.body)).object();
}

// The kiosk reads a datagram as Latin-1 script text: everything beyond ASCII goes as \u escapes,
// which the script reads back exactly; U+2028 and U+2029 would end a script line.
QByteArray scriptString(const QString &text)
{
    QByteArray out("\"");
    for (const QChar c : text) {
        const ushort u = c.unicode();
        if (u == '"' || u == '\\') {
            out += '\\';
            out += char(u);
        } else if (u >= 0x20 && u < 0x7f) {
            out += char(u);
        } else {
            out += "\\u" + QByteArray::number(u, 16).rightJustified(4, '0');
        }
    }
    return out + '"';
}

QByteArray number(const QJsonValue &value)
{
    return QByteArray::number(qint64(value.toDouble()));
}

qint64 contentLength(const httplib::Request &request)
{
    if (!request.has_header("Content-Length"))
        return -1;
    bool ok = false;
    const qint64 length
        = QByteArray::fromStdString(request.get_header_value("Content-Length")).toLongLong(&ok);
    return ok ? length : -1;
}

QByteArray cookieValue(const httplib::Request &request, const char *name)
{
    const QByteArray header = QByteArray::fromStdString(request.get_header_value("Cookie"));
    const QList<QByteArray> pairs = header.split(';');
    for (const QByteArray &pair : pairs) {
        const int equals = pair.indexOf('=');
        if (equals > 0 && pair.left(equals).trimmed() == name)
            return QByteArray::fromPercentEncoding(pair.mid(equals + 1).trimmed());
    }
    return QByteArray();
}

// The page with every "{{text}}" replaced by its translation.
QByteArray page()
{
    QFile file(QStringLiteral(":/remote/remote.html"));
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    const QString source = QString::fromUtf8(file.readAll());
    static const QRegularExpression marker(QStringLiteral("\\{\\{(.*?)\\}\\}"));
    QString out;
    int from = 0;
    QRegularExpressionMatchIterator matches = marker.globalMatch(source);
    while (matches.hasNext()) {
        const QRegularExpressionMatch match = matches.next();
        out += QStringView(source).mid(from, match.capturedStart() - from);
        out += QCoreApplication::translate("RemotePage", match.captured(1).toUtf8().constData())
                   .toHtmlEscaped();
        from = match.capturedEnd();
    }
    out += QStringView(source).mid(from);
    return out.toUtf8();
}

struct StagedUpload
{
    QString name;
    QString staged;
    std::unique_ptr<QFile> file;
};
} // namespace

// Outside any namespace: the resource initialiser is declared where this is expanded. The
// library is static, so without this call the linker drops the page.
static void initPageResources()
{
    static std::once_flag once;
    std::call_once(once, [] { Q_INIT_RESOURCE(remoteserver); });
}

RemoteServer::RemoteServer(const Config &config)
    : m_config(config)
    , m_drop(config.home)
    , m_playlist(config.playlistPath)
    , m_server(std::make_unique<GuardedHttpServer>())
{
    initPageResources();
    route();
}

RemoteServer::~RemoteServer()
{
    stop();
}

bool RemoteServer::start()
{
    if (!m_drop.ensureExists())
        qWarning() << "Remote server: cannot create" << m_drop.path();
    m_drop.clearStaging();
    QString host = QStringLiteral("0.0.0.0");
    if (m_config.key.isEmpty()) {
        host = QStringLiteral("127.0.0.1");
        qWarning() << "Remote server: remote/key is empty, so only this machine may connect"
                   << "(listening on 127.0.0.1).";
    }
    if (!m_server->bindTo(host.toStdString(), m_config.port)) {
        qWarning() << "Remote server: cannot listen on" << host << "port" << m_config.port;
        return false;
    }
    qInfo() << "Remote server listening on" << host << "port" << m_config.port;
    m_listenEnded = false;
    m_thread = std::thread([this] {
        m_server->listen_after_bind();
        m_listenEnded = true;
    });
    return true;
}

void RemoteServer::stop()
{
    if (!m_thread.joinable())
        return;
    // The library ignores a stop that comes before its loop runs, and would then listen for
    // ever: a program ended at once after its start (a killed player) left its server behind,
    // holding the port. The loop starts within microseconds of the thread.
    while (!m_server->is_running() && !m_listenEnded)
        std::this_thread::yield();
    m_server->stop();
    m_thread.join();
    m_server->closeWaiting();
    m_drop.clearStaging();
}

std::string RemoteServer::answer(const std::string &input)
{
    return m_server->answer(input);
}

bool RemoteServer::keysMatch(const QByteArray &given, const QByteArray &expected)
{
    // Digests of equal length compared in full: the time taken says nothing about the key,
    // neither its length nor where a guess goes wrong.
    const QByteArray left = QCryptographicHash::hash(given, QCryptographicHash::Sha256);
    const QByteArray right = QCryptographicHash::hash(expected, QCryptographicHash::Sha256);
    unsigned char difference = 0;
    for (int i = 0; i < left.size(); ++i)
        difference |= static_cast<unsigned char>(left.at(i) ^ right.at(i));
    return difference == 0 && !expected.isEmpty();
}

bool RemoteServer::isWebAddress(const QString &address)
{
    // Checked as the slideshow will read it; blanks or control characters around or inside
    // could make it read another address than the one checked.
    for (const QChar c : address) {
        if (c.isSpace() || c.category() == QChar::Other_Control)
            return false;
    }
    const QUrl url(address);
    return url.isValid()
           && (url.scheme() == QLatin1String("http") || url.scheme() == QLatin1String("https"))
           && !url.host().isEmpty();
}

bool RemoteServer::authorise(const httplib::Request &request, httplib::Response &response) const
{
    if (m_config.key.isEmpty())
        return true;
    const QByteArray expected = m_config.key.toUtf8();
    if (request.has_param("k")) {
        const QByteArray given = QByteArray::fromStdString(request.get_param_value("k"));
        if (keysMatch(given, expected)) {
            response.set_header(
                "Set-Cookie",
                QStringLiteral("%1=%2; Path=/; Max-Age=31536000; HttpOnly; SameSite=Strict")
                    .arg(QLatin1String(CookieName),
                         QString::fromLatin1(expected.toPercentEncoding()))
                    .toStdString());
            return true;
        }
        return false;
    }
    return keysMatch(cookieValue(request, CookieName), expected);
}

QByteArray RemoteServer::datagram(const QJsonObject &command)
{
    using RemoteProtocol::Action;
    const int action = command.value(QStringLiteral("action")).toInt(-1);
    const QJsonObject data = command.value(QStringLiteral("data")).toObject();
    QByteArray fields;
    switch (static_cast<Action>(action)) {
    case Action::Pause:
    case Action::Next:
    case Action::Screenshot:
    case Action::Restart:
        break;
    case Action::GoTo:
        fields = "\"index\":" + number(data.value(QStringLiteral("index")))
                 + ",\"loop\":" + number(data.value(QStringLiteral("loop")));
        break;
    case Action::Text:
    case Action::ReadUrl: {
        const QString field = static_cast<Action>(action) == Action::Text ? QStringLiteral("text")
                                                                          : QStringLiteral("url");
        fields = '"' + field.toLatin1() + "\":" + scriptString(data.value(field).toString())
                 + ",\"duration\":" + number(data.value(QStringLiteral("duration")));
        break;
    }
    case Action::RemoveDroppedFile:
        fields = "\"path\":" + scriptString(data.value(QStringLiteral("path")).toString());
        break;
    default:
        return QByteArray();
    }
    return "{\"action\":" + QByteArray::number(action) + ",\"data\":{" + fields + "}}";
}

bool RemoteServer::send(const QByteArray &datagram) const
{
    QUdpSocket socket;
    return socket.writeDatagram(datagram, QHostAddress::LocalHost, m_config.datagramPort)
           == datagram.size();
}

const RemoteServer::Endpoint RemoteServer::s_endpoints[] = {
    {Method::Get, "/", &RemoteServer::getPage, nullptr},
    {Method::Get, "/screen.png", &RemoteServer::getScreen, nullptr},
    {Method::Get, "/api/status", &RemoteServer::getStatus, nullptr},
    {Method::Post, "/api/command", &RemoteServer::postCommand, nullptr},
    {Method::Get, "/api/loops", &RemoteServer::getLoops, nullptr},
    {Method::Get, "/api/files", &RemoteServer::getFiles, nullptr},
    {Method::Post, "/api/files", nullptr, &RemoteServer::upload},
    {Method::Delete, "/api/files", &RemoteServer::deleteFile, nullptr},
    {Method::Get, "/api/playlist", &RemoteServer::getPlaylist, nullptr},
    {Method::Post, "/api/playlist", &RemoteServer::postPlaylist, nullptr},
    {Method::Post, "/api/tv", &RemoteServer::postTv, nullptr},
};

void RemoteServer::route()
{
    using httplib::Request;
    using httplib::Response;
    using HandlerResponse = httplib::Server::HandlerResponse;
    GuardedHttpServer &server = *m_server;
    // The upload's budget is its announced length: it was reserved on the disk by that.
    server.setBodyLimit([](const Request &request) -> size_t {
        if (request.method == "POST" && request.path == "/api/files")
            return size_t(qMax<qint64>(contentLength(request), 0));
        return size_t(MaxRequestBody);
    });
    server.set_pre_routing_handler([this](const Request &request, Response &response) {
        return admit(request, response) ? HandlerResponse::Unhandled : HandlerResponse::Handled;
    });
    server.set_error_handler(
        httplib::Server::HandlerWithResponse([](const Request &, Response &response) {
            if (!GuardedHttpServer::bodyTooLarge())
                return HandlerResponse::Unhandled;
            response.set_header("Connection", "close");
            fail(response, 413, tr("The request is too large."));
            return HandlerResponse::Handled;
        }));

    for (const Endpoint &endpoint : s_endpoints) {
        // The server hands a body over as it arrives only to POST handlers; uploads are those.
        if (endpoint.readingHandler) {
            const ReadingHandler handler = endpoint.readingHandler;
            server.Post(endpoint.path, [this, handler](const Request &request, Response &response,
                                                       const httplib::ContentReader &reader) {
                (this->*handler)(request, response, reader);
            });
            continue;
        }
        const Handler handler = endpoint.handler;
        auto call = [this, handler](const Request &request, Response &response) {
            (this->*handler)(request, response);
        };
        switch (endpoint.method) {
        case Method::Get:
            server.Get(endpoint.path, call);
            break;
        case Method::Post:
            server.Post(endpoint.path, call);
            break;
        case Method::Delete:
            server.Delete(endpoint.path, call);
            break;
        }
    }
}

// Whether a request may go on to its handler; otherwise the answer is set.
bool RemoteServer::admit(const httplib::Request &request, httplib::Response &response) const
{
    if (!authorise(request, response)) {
        response.status = 403;
        response.set_header("Connection", "close");
        response.set_content("Forbidden\n", "text/plain");
        return false;
    }
    // The body is not read after any of these: the connection ends with the answer.
    response.set_header("Connection", "close");
    if (request.get_header_value_count("Content-Length") > 1
        || (request.has_header("Content-Length") && request.has_header("Transfer-Encoding"))) {
        fail(response, 400, tr("The request states its length twice."));
        return false;
    }
    // Decompressed, a small body could grow without bound.
    const QByteArray encoding
        = QByteArray::fromStdString(request.get_header_value("Content-Encoding")).trimmed();
    if (!encoding.isEmpty() && encoding.compare("identity", Qt::CaseInsensitive) != 0) {
        fail(response, 415, tr("Compressed request bodies are not accepted."));
        return false;
    }
    if (request.path != "/api/files" && contentLength(request) > MaxRequestBody) {
        fail(response, 413, tr("The request is too large."));
        return false;
    }
    response.headers.erase("Connection");
    return true;
}

void RemoteServer::getPage(const httplib::Request &, httplib::Response &response)
{
    response.set_header("Cache-Control", "no-store");
    response.set_content(page().toStdString(), "text/html; charset=utf-8");
}

void RemoteServer::getScreen(const httplib::Request &, httplib::Response &response)
{
    QFile screen(m_config.screenshotPath);
    response.set_header("Cache-Control", "no-store");
    if (!screen.open(QIODevice::ReadOnly)) {
        response.status = 404;
        return;
    }
    response.set_content(screen.readAll().toStdString(), "image/png");
}

void RemoteServer::getStatus(const httplib::Request &, httplib::Response &response)
{
    reply(response, 200,
          QJsonObject{{QStringLiteral("localplaylist"), m_config.localPlaylist},
                      {QStringLiteral("tv"), m_config.tv}});
}

void RemoteServer::postCommand(const httplib::Request &request, httplib::Response &response)
{
    const QJsonObject command = jsonBody(request);
    const QByteArray message = datagram(command);
    // Files are removed through DELETE /api/files, which checks the name first.
    const int action = command.value(QStringLiteral("action")).toInt(-1);
    if (message.isEmpty()
        || action == RemoteProtocol::code(RemoteProtocol::Action::RemoveDroppedFile))
        return fail(response, 400, tr("Unknown command."));
    // Local files and script addresses would put what the machine holds on the public screen;
    // local content comes through uploads.
    if (action == RemoteProtocol::code(RemoteProtocol::Action::ReadUrl)) {
        const QString url = command.value(QStringLiteral("data"))
                                .toObject()
                                .value(QStringLiteral("url"))
                                .toString();
        if (!isWebAddress(url))
            return fail(response, 400,
                        tr("Only http and https addresses can be shown (for example "
                           "https://example.com/); other content can be uploaded."));
    }
    if (!send(message))
        return fail(response, 502, tr("The command could not be sent to the slideshow."));
    reply(response, 200, QJsonObject{{QStringLiteral("sent"), QString::fromLatin1(message)}});
}

void RemoteServer::getLoops(const httplib::Request &, httplib::Response &response)
{
    QFile file(m_config.loopsPath);
    QByteArray text;
    // Read up to one piece over the limit, which is enough to refuse it.
    if (file.open(QIODevice::ReadOnly)) {
        while (text.size() <= PlaylistParser::maxDocumentBytes() && !file.atEnd()) {
            const QByteArray piece = file.read(64 * 1024);
            if (piece.isEmpty())
                break;
            text += piece;
        }
    }
    std::lock_guard<std::mutex> lock(m_files);
    reply(response, 200, QJsonObject{{QStringLiteral("loops"), PlaylistFile::loops(text)}});
}

void RemoteServer::getFiles(const httplib::Request &, httplib::Response &response)
{
    QJsonArray files;
    std::lock_guard<std::mutex> lock(m_files);
    const QList<DropFolder::Entry> entries = m_drop.list();
    for (const DropFolder::Entry &entry : entries)
        files.append(QJsonObject{{QStringLiteral("name"), entry.name},
                                 {QStringLiteral("size"), entry.size}});
    reply(response, 200, QJsonObject{{QStringLiteral("files"), files}});
}

void RemoteServer::deleteFile(const httplib::Request &request, httplib::Response &response)
{
    const QString name = QString::fromStdString(request.get_param_value("name"));
    {
        std::lock_guard<std::mutex> lock(m_files);
        if (!m_drop.contains(name))
            return fail(response, 404, tr("No such file: %1").arg(name));
    }
    // The slideshow deletes it, so it never plays a file that has just gone.
    const QByteArray message = datagram(QJsonObject{
        {QStringLiteral("action"), RemoteProtocol::code(RemoteProtocol::Action::RemoveDroppedFile)},
        {QStringLiteral("data"), QJsonObject{{QStringLiteral("path"), name}}}});
    if (!send(message))
        return fail(response, 502, tr("The command could not be sent to the slideshow."));
    reply(response, 202, QJsonObject{{QStringLiteral("sent"), QString::fromLatin1(message)}});
}

void RemoteServer::getPlaylist(const httplib::Request &, httplib::Response &response)
{
    if (!m_config.localPlaylist)
        return fail(response, 403, tr("Editing the local playlist is turned off."));
    std::lock_guard<std::mutex> lock(m_files);
    response.set_header("Cache-Control", "no-store");
    response.set_content(m_playlist.read().toStdString(), "text/plain; charset=utf-8");
}

void RemoteServer::postPlaylist(const httplib::Request &request, httplib::Response &response)
{
    if (!m_config.localPlaylist)
        return fail(response, 403, tr("Editing the local playlist is turned off."));
    QByteArray text = QByteArray::fromStdString(request.body);
    if (request.is_multipart_form_data()) {
        if (request.files.empty())
            return fail(response, 400, tr("No playlist file was sent."));
        text = QByteArray::fromStdString(request.files.begin()->second.content);
    }
    QString error;
    {
        std::lock_guard<std::mutex> lock(m_files);
        switch (m_playlist.replace(text, &error)) {
        case PlaylistFile::Outcome::Saved:
            break;
        case PlaylistFile::Outcome::Refused:
            return fail(response, 422, error);
        case PlaylistFile::Outcome::NotWritten:
            return fail(response, 507, error);
        }
    }
    send(datagram(QJsonObject{
        {QStringLiteral("action"), RemoteProtocol::code(RemoteProtocol::Action::Restart)}}));
    reply(response, 200, QJsonObject{{QStringLiteral("saved"), m_playlist.path()}});
}

void RemoteServer::postTv(const httplib::Request &request, httplib::Response &response)
{
    if (!m_config.tv)
        return fail(response, 403, tr("Switching the screen is turned off."));
    const bool on = jsonBody(request).value(QStringLiteral("on")).toBool();
    if (on)
        DisplayPower::on();
    else
        DisplayPower::off();
    reply(response, 200, QJsonObject{{QStringLiteral("on"), on}});
}

void RemoteServer::upload(const httplib::Request &request, httplib::Response &response,
                          const httplib::ContentReader &reader)
{
    // Whatever happens, the rest of a refused body is not read: the connection ends.
    response.set_header("Connection", "close");
    if (!request.is_multipart_form_data())
        return fail(response, 400, tr("Send the files as multipart/form-data."));
    const qint64 length = contentLength(request);
    if (length < 0)
        return fail(response, 411, tr("The upload must state its length."));
    // Held until the upload ends, so that uploads at the same time cannot share the room.
    DropFolder::Reservation room = m_drop.reserve(length);
    if (!room.isValid())
        return fail(response, 507, tr("Not enough free disk space for this upload."));

    std::vector<StagedUpload> uploads;
    QJsonArray rejected;
    StagedUpload *current = nullptr;
    bool writeFailed = false;
    const bool complete = reader(
        [&](const httplib::MultipartFormData &part) {
            current = nullptr;
            if (part.filename.empty())
                return true;
            const QString original = QString::fromStdString(part.filename);
            const QString name = DropFolder::cleanName(original);
            if (name.isEmpty() || !DropFolder::isAccepted(name)) {
                rejected.append(original);
                return true;
            }
            StagedUpload upload;
            upload.name = name;
            upload.staged = m_drop.stagingFile();
            upload.file = std::make_unique<QFile>(upload.staged);
            // Unbuffered: what is counted as written is on the disk.
            if (!upload.file->open(QIODevice::WriteOnly | QIODevice::Unbuffered)) {
                writeFailed = true;
                return false;
            }
            uploads.push_back(std::move(upload));
            current = &uploads.back();
            return true;
        },
        [&](const char *data, size_t size) {
            if (!current)
                return true;
            if (current->file->write(data, qint64(size)) != qint64(size)) {
                writeFailed = true;
                return false;
            }
            room.written(qint64(size));
            return true;
        });

    bool flushed = true;
    for (StagedUpload &upload : uploads)
        flushed = upload.file->flush() && flushed;
    if (!complete || writeFailed || !flushed) {
        for (StagedUpload &upload : uploads) {
            upload.file->close();
            QFile::remove(upload.staged);
        }
        qWarning() << "Remote server: upload not complete, nothing kept.";
        return fail(response, writeFailed || !flushed ? 507 : 400,
                    tr("The upload was not complete; nothing was kept."));
    }

    QJsonArray saved;
    std::lock_guard<std::mutex> lock(m_files);
    for (StagedUpload &upload : uploads) {
        upload.file->close();
        const QString name = m_drop.commit(upload.staged, upload.name);
        if (name.isEmpty())
            rejected.append(upload.name);
        else
            saved.append(name);
    }
    if (saved.isEmpty() && !rejected.isEmpty())
        return reply(
            response, 415,
            QJsonObject{
                {QStringLiteral("error"),
                 tr("Only pictures, videos, PDFs and HTML or text documents are accepted.")},
                {QStringLiteral("rejected"), rejected}});
    reply(response, 200,
          QJsonObject{{QStringLiteral("saved"), saved}, {QStringLiteral("rejected"), rejected}});
}
