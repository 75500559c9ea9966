#include "testsupport.h"

#include "commandlineparser.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QPageSize>
#include <QPainter>
#include <QPdfWriter>
#include <QProcess>
#include <QTcpServer>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>
#include <utility>

namespace testsupport {

namespace {
QMutex s_logMutex;
QStringList s_logLines;
QtMessageHandler s_previousHandler = nullptr;

void collectMessage(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    {
        QMutexLocker locker(&s_logMutex);
        s_logLines << message;
    }
    if (s_previousHandler)
        s_previousHandler(type, context, message);
}

QByteArray shellQuote(const QString &text)
{
    QByteArray quoted = text.toUtf8();
    quoted.replace('\'', "'\\''");
    return '\'' + quoted + '\'';
}
} // namespace

TempHome::TempHome()
    : m_previous(qgetenv("HOME"))
{
    qputenv("HOME", m_dir.path().toUtf8());
}

TempHome::~TempHome()
{
    qputenv("HOME", m_previous);
}

QString TempHome::filePath(const QString &relative) const
{
    return m_dir.filePath(relative);
}

QString TempHome::stateDir() const
{
    const QString dir = m_dir.filePath(QStringLiteral(".vorsane-kiosk"));
    QDir().mkpath(dir);
    return dir;
}

FakePrograms::FakePrograms()
    : m_previousPath(qgetenv("PATH"))
{
    qputenv("PATH", m_dir.path().toUtf8() + ':' + m_previousPath);
}

FakePrograms::~FakePrograms()
{
    qputenv("PATH", m_previousPath);
}

void FakePrograms::addScript(const QString &name, const QByteArray &body)
{
    const QString log = m_dir.filePath(name + QLatin1String(".log"));
    // One write per call: programs called at the same moment must not mix their lines.
    QByteArray script = "#!/bin/sh\n"
                        "called=; if [ $# -gt 0 ]; then called=$(printf '%s\\037' \"$@\"); fi\n"
                        "printf '%s\\n' \"$called\" >> "
                        + shellQuote(log) + "\n" + body + "\n";
    const QString path = m_dir.filePath(name);
    writeFile(path, script);
    QFile::setPermissions(path, QFileDevice::ReadOwner | QFileDevice::WriteOwner
                                    | QFileDevice::ExeOwner | QFileDevice::ReadGroup
                                    | QFileDevice::ExeGroup | QFileDevice::ReadOther
                                    | QFileDevice::ExeOther);
}

void FakePrograms::add(const QString &name, const QByteArray &output, int exitCode)
{
    QByteArray body;
    if (!output.isEmpty()) {
        const QString outFile = m_dir.filePath(name + QLatin1String(".out"));
        writeFile(outFile, output);
        body += "cat " + shellQuote(outFile) + "\n";
    }
    body += "exit " + QByteArray::number(exitCode);
    addScript(name, body);
}

void FakePrograms::addDesktopCommands()
{
    for (const char *name :
         {"launchdock", "amixer", "pkill", "xmodmap", "xset", "gksu",
          "xscreensaver-command", "sudo", "chvt", "unzip", "pgrep", "vorsane-remote"})
        add(QString::fromLatin1(name));
}

void FakePrograms::addHanging(const QString &name)
{
    addScript(name, "exec sleep 3600");
}

QStringList FakePrograms::callLines(const QString &name) const
{
    QString log = QString::fromUtf8(readFile(m_dir.filePath(name + QLatin1String(".log"))));
    if (log.isEmpty())
        return QStringList();
    // Every argument ends with the separator, every call with a newline.
    log.replace(QLatin1String("\037\n"), QLatin1String("\n"))
        .replace(QLatin1Char('\037'), QLatin1Char(' '));
    log.chop(1);
    return log.split(QLatin1Char('\n'));
}

LogCapture::LogCapture()
{
    clear();
    s_previousHandler = qInstallMessageHandler(collectMessage);
}

LogCapture::~LogCapture()
{
    qInstallMessageHandler(s_previousHandler);
    s_previousHandler = nullptr;
}

QStringList LogCapture::lines() const
{
    QMutexLocker locker(&s_logMutex);
    return s_logLines;
}

bool LogCapture::contains(const QString &text) const
{
    return count(text) > 0;
}

int LogCapture::count(const QString &text) const
{
    QMutexLocker locker(&s_logMutex);
    int found = 0;
    for (const QString &line : std::as_const(s_logLines))
        found += line.contains(text) ? 1 : 0;
    return found;
}

void LogCapture::clear()
{
    QMutexLocker locker(&s_logMutex);
    s_logLines.clear();
}

SmallDisk::~SmallDisk()
{
    if (!m_folder.isEmpty())
        ::umount2(QFile::encodeName(m_folder).constData(), MNT_DETACH);
}

QString SmallDisk::mount(const QString &folder, int kilobytes)
{
    if (::geteuid() != 0)
        return QStringLiteral("mounting a small tmpfs needs root");
    QDir().mkpath(folder);
    const QByteArray options = "size=" + QByteArray::number(kilobytes) + "k";
    if (::mount("tmpfs", QFile::encodeName(folder).constData(), "tmpfs", 0, options.constData())
        != 0)
        return QStringLiteral("cannot mount a tmpfs: %1")
            .arg(QString::fromLocal8Bit(std::strerror(errno)));
    m_folder = folder;
    return QString();
}

bool SmallDisk::fill()
{
    const QByteArray path = QFile::encodeName(m_folder + QStringLiteral("/filler"));
    const int fd = ::open(path.constData(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (fd < 0)
        return false;
    const QByteArray page(4096, 'f');
    while (::write(fd, page.constData(), size_t(page.size())) > 0) {
    }
    const bool full = errno == ENOSPC;
    ::close(fd);
    return full;
}

bool makeImage(const QString &path, const QSize &size, const QColor &color, const char *format)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QImage image(size, QImage::Format_RGB32);
    image.fill(color);
    return image.save(path, format);
}

bool makePdf(const QString &path, const QList<QColor> &pages)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QPdfWriter writer(path);
    writer.setResolution(72);
    writer.setPageSize(QPageSize(QSizeF(300, 200), QPageSize::Point));
    writer.setPageMargins(QMarginsF(0, 0, 0, 0));
    QPainter painter(&writer);
    for (int page = 0; page < pages.size(); ++page) {
        if (page > 0)
            writer.newPage();
        painter.fillRect(QRect(0, 0, writer.width(), writer.height()), pages.at(page));
    }
    return painter.end();
}

bool makeGif(const QString &path, int frames, const QSize &size)
{
    QProcess ffmpeg;
    ffmpeg.start(QStringLiteral("ffmpeg"),
                 {QStringLiteral("-y"), QStringLiteral("-loglevel"), QStringLiteral("error"),
                  QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"),
                  QStringLiteral("testsrc=size=%1x%2:rate=10").arg(size.width()).arg(size.height()),
                  QStringLiteral("-frames:v"), QString::number(frames), path});
    return ffmpeg.waitForFinished(60000) && ffmpeg.exitStatus() == QProcess::NormalExit
           && ffmpeg.exitCode() == 0;
}

bool writeFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    return file.write(content) == content.size();
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    return file.readAll();
}

QByteArray xmlItem(const QString &uri, const QString &type, int seconds)
{
    const QString time = seconds < 0 ? QString() : QStringLiteral(" time=\"%1\"").arg(seconds);
    return QStringLiteral("<item uri=\"%1\" type=\"%2\"%3/>\n")
        .arg(uri.toHtmlEscaped(), type, time)
        .toUtf8();
}

QByteArray xmlLoop(const QString &attributes, const QByteArray &items)
{
    return "<loop " + attributes.toUtf8() + ">\n" + items + "</loop>\n";
}

QByteArray schedule(const QByteArray &loops)
{
    return "<?xml version=\"1.0\"?>\n<schedule name=\"test\">\n" + loops + "</schedule>\n";
}

QString clockIn(qint64 seconds)
{
    return QDateTime::currentDateTime().addSecs(seconds).toString(QStringLiteral("hh:mm"));
}

std::unique_ptr<CommandLineParser> makeParser(const QString &basePath)
{
    // The parser copies what it reads, so the argument storage may end with this call.
    QByteArray storage[] = {"vorsane-kiosk", "--basepath", basePath.toUtf8()};
    char *argv[] = {storage[0].data(), storage[1].data(), storage[2].data(), nullptr};
    return std::make_unique<CommandLineParser>(3, argv);
}

quint16 closedPort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost);
    return probe.serverPort();
}

QString programPath()
{
    return QStringLiteral(VORSANE_KIOSK_BIN);
}

} // namespace testsupport
