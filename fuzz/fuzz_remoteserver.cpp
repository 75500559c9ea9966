// Requests of any shape to the remote-control server as one connection brings them: the HTTP
// framing, routing and keys, JSON commands, forms and uploads, the playlist editor and the loops
// listed from what it saved. The first byte picks a server asking for a key or one without.
#include "fuzzsupport.h"
#include "remoteserver.h"
#include "statepaths.h"

#include <QDir>
#include <QRegularExpression>

#include <cstdlib>
#include <memory>

namespace {
const QByteArray playlist = "<schedule a=\"1\"><loop id=\"0\"><i uri=\"http://a.example/\" "
                            "type=\"url\"/></loop><loop id=\"7\" begin=\"08:00\" end=\"18:00\"><i "
                            "uri=\"http://b.example/b.png\" type=\"image\"/></loop></schedule>";

RemoteServer &server(bool keyed)
{
    static const auto make = [](const QString &key) {
        RemoteServer::Config config;
        config.key = key;
        config.home = fuzz::home();
        config.playlistPath = config.home + QStringLiteral("/playlist");
        config.loopsPath = config.playlistPath;
        config.screenshotPath = config.home + QStringLiteral("/screen.png");
        // Nothing listens there: commands go nowhere.
        config.datagramPort = 9;
        QDir().mkpath(StatePaths::dropFolder(config.home));
        QDir().mkpath(StatePaths::uploadStaging(config.home));
        return std::make_unique<RemoteServer>(config);
    };
    static const std::unique_ptr<RemoteServer> withKey = make(QStringLiteral("fuzz"));
    static const std::unique_ptr<RemoteServer> withoutKey = make(QString());
    return keyed ? *withKey : *withoutKey;
}

void writeWhole(const QString &path, const QByteArray &content)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        abort();
}

// Local addresses would have the playlists walk the fuzzing machine's folders, slowly. Only
// /proc/kmsg is let through: a kernel file that blocks whoever reads it, which must be passed
// over unread.
bool walksLocalFiles(const QByteArray &input)
{
    static const QRegularExpression local(QStringLiteral("file:(?!///proc/kmsg\\b)"),
                                          QRegularExpression::CaseInsensitiveOption);
    // With the size: a QByteArray alone would end the text at its first NUL.
    return local.match(QString::fromLatin1(input.constData(), input.size())).hasMatch();
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray input
        = QByteArray::fromRawData(reinterpret_cast<const char *>(data), int(size));
    if (size == 0 || walksLocalFiles(input))
        return 0;
    fuzz::application();
    RemoteServer &target = server(data[0] & 1);
    const QString home = fuzz::home();
    writeWhole(home + QStringLiteral("/playlist"), playlist);
    writeWhole(home + QStringLiteral("/screen.png"), "picture");

    const std::string answer = target.answer(input.mid(1).toStdString());
    if (!answer.empty() && answer.compare(0, 9, "HTTP/1.1 ") != 0)
        abort();

    // Nothing is written outside the places the server owns; uploads are cleared for the next
    // input.
    const QStringList expected{QStringLiteral(".vorsane-kiosk"), QStringLiteral("playlist"),
                               QStringLiteral("playlist.previous"), QStringLiteral("screen.png")};
    const QStringList present
        = QDir(home).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    for (const QString &name : present) {
        if (!expected.contains(name))
            abort();
    }
    // A request ends with its upload moved in or gone: nothing stays half-written aside.
    if (!QDir(StatePaths::uploadStaging(home))
             .isEmpty(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot))
        abort();
    QDir drop(StatePaths::dropFolder(home));
    const QStringList uploads = drop.entryList(QDir::Files | QDir::Hidden);
    for (const QString &name : uploads)
        drop.remove(name);
    return 0;
}
