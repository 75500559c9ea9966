#pragma once

#include <QColor>
#include <QList>
#include <QMutex>
#include <QSize>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>

class CommandLineParser;

namespace testsupport {

// A fresh, empty HOME for the lifetime of the object; the previous HOME comes back afterwards.
class TempHome
{
public:
    TempHome();
    ~TempHome();

    QString path() const { return m_dir.path(); }
    QString filePath(const QString &relative) const;
    // HOME/.vorsane-kiosk, created on demand.
    QString stateDir() const;

private:
    QTemporaryDir m_dir;
    QByteArray m_previous;
};

// A directory of recording stand-ins for child programs, put first on PATH. Each stand-in
// appends its arguments to a log the test reads, prints a given output and exits with a given
// code (or hangs until killed).
class FakePrograms
{
public:
    FakePrograms();
    ~FakePrograms();

    void add(const QString &name, const QByteArray &output = QByteArray(), int exitCode = 0);
    void addHanging(const QString &name);
    // A stand-in with a shell body of its own; it still records its arguments.
    void addScript(const QString &name, const QByteArray &body);
    // The desktop commands the program runs on its own, all succeeding silently.
    void addDesktopCommands();

    // Every call with arguments as one line, arguments joined by blanks, in order.
    QStringList callLines(const QString &name) const;
    QString dir() const { return m_dir.path(); }

private:
    QTemporaryDir m_dir;
    QByteArray m_previousPath;
};

// Collects every debug/warning message while it lives.
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();

    QStringList lines() const;
    bool contains(const QString &text) const;
    int count(const QString &text) const;
    void clear();
};

// A small tmpfs mounted over a folder while the object lives, to be filled up on purpose.
// Mounting needs root.
class SmallDisk
{
public:
    ~SmallDisk();
    // Empty when the folder now lies on the small disk, otherwise why it does not.
    QString mount(const QString &folder, int kilobytes = 256);
    // Takes the room that is left with one file; true when not one more page fits.
    bool fill();

private:
    QString m_folder;
};

// Media files made on the spot.
bool makeImage(const QString &path, const QSize &size, const QColor &color,
               const char *format = nullptr);
// One solid page per colour, small enough to be scaled up to the screen.
bool makePdf(const QString &path, const QList<QColor> &pages);
// Generated with ffmpeg; false when ffmpeg is missing or fails.
bool makeGif(const QString &path, int frames, const QSize &size = QSize(32, 32));
bool writeFile(const QString &path, const QByteArray &content);
QByteArray readFile(const QString &path);

// Schedule documents as content servers write them; seconds below 0 leave the time out.
QByteArray xmlItem(const QString &uri, const QString &type, int seconds = 60);
QByteArray xmlLoop(const QString &attributes, const QByteArray &items);
QByteArray schedule(const QByteArray &loops);
// The local time that many seconds from now, as schedules write it ("hh:mm").
QString clockIn(qint64 seconds);

// The program's command line with every configuration file under a base path.
std::unique_ptr<CommandLineParser> makeParser(const QString &basePath);

// A port on 127.0.0.1 where nothing listens.
quint16 closedPort();

// The built program, for end-to-end tests.
QString programPath();

} // namespace testsupport
