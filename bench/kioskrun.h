#pragma once

// What the benchmarks that run the real program share: a temporary HOME it starts in with no
// desktop around it, and the screen's centre pixel that tells which item shows.

#include <QColor>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QImage>
#include <QList>
#include <QPixmap>
#include <QProcess>
#include <QScreen>
#include <QSize>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>

namespace kioskrun {

// The program built beside the benchmarks.
inline QString builtProgram()
{
    return QCoreApplication::applicationDirPath() + QStringLiteral("/../vorsane-kiosk");
}

inline bool write(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

inline bool near(QRgb pixel, const QColor &colour)
{
    return qAbs(qRed(pixel) - colour.red()) < 40 && qAbs(qGreen(pixel) - colour.green()) < 40
           && qAbs(qBlue(pixel) - colour.blue()) < 40;
}

inline QRgb centre(QScreen *screen)
{
    const QRect area = screen->geometry();
    return screen->grabWindow(0, area.center().x(), area.center().y(), 1, 1).toImage().pixel(0, 0);
}

// The value that share of the values (0.5 the median, 1.0 the largest) does not exceed; -1 when
// there are none.
inline qint64 percentile(QList<qint64> values, double share)
{
    if (values.isEmpty())
        return -1;
    std::sort(values.begin(), values.end());
    return values.at(qMin(int(values.size() * share), int(values.size()) - 1));
}

// The value given after that option on the command line (--rounds 5), else the fallback.
inline QString option(const QStringList &arguments, const QString &name, const QString &fallback)
{
    const int at = arguments.lastIndexOf(name);
    return at > 0 && at + 1 < arguments.size() ? arguments.at(at + 1) : fallback;
}

inline int option(const QStringList &arguments, const QString &name, int fallback, int least)
{
    return qMax(least, option(arguments, name, QString::number(fallback)).toInt());
}

// ffmpeg, quiet, overwriting: makes the animations and clips of a run.
inline bool ffmpeg(const QStringList &arguments)
{
    return QProcess::execute(QStringLiteral("ffmpeg"),
                             QStringList{"-y", "-loglevel", "error"} + arguments)
           == 0;
}

// A frameless window over the whole screen, which needs no window manager; slideshow holds more
// lines of that group.
inline QByteArray wholeScreenPreferences(const QSize &size, const QByteArray &slideshow = {})
{
    return QString("[main]\nversion=QFGLs6IVf1\nfullscreen=false\nfixedscreen=true\n"
                   "largeur_edit=%1\nhauteur_edit=%2\n[slideshow]\nhide_pointer=false\n")
               .arg(size.width())
               .arg(size.height())
               .toUtf8()
           + slideshow;
}

// A temporary HOME with folders for the settings and the content, and stand-ins that do nothing
// for the desktop programs the program runs, first on PATH.
class Home
{
public:
    explicit Home(const QString &confName = QStringLiteral("conf"),
                  const QString &mediaName = QStringLiteral("media"))
        : m_conf(m_dir.path() + '/' + confName)
        , m_media(m_dir.path() + '/' + mediaName)
        , m_stubs(m_dir.path() + QStringLiteral("/bin"))
    {
        for (const QString &dir : {m_conf, m_media, m_stubs})
            QDir().mkpath(dir);
        for (const char *name :
             {"launchdock", "amixer", "unclutter", "pkill", "xmodmap", "xset", "gksu",
              "xscreensaver-command", "sudo", "chvt", "unzip", "pgrep"}) {
            const QString path = m_stubs + '/' + name;
            write(path, "#!/bin/sh\nexit 0\n");
            QFile::setPermissions(path, QFileDevice::ReadOwner | QFileDevice::ExeOwner);
        }
    }

    QString path() const { return m_dir.path(); }
    QString conf() const { return m_conf; }
    QString media() const { return m_media; }
    QString log() const { return m_dir.path() + QStringLiteral("/log"); }
    // Left behind at the end, for a look at the log.
    void keep() { m_dir.setAutoRemove(false); }

    QProcessEnvironment environment() const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("HOME"), m_dir.path());
        env.insert(QStringLiteral("PATH"), m_stubs + ':' + env.value(QStringLiteral("PATH")));
        env.insert(QStringLiteral("XDG_CURRENT_DESKTOP"), QStringLiteral("none"));
        return env;
    }

    // The program's standard error goes where a session sends it: a file, not a terminal.
    void prepare(QProcess &kiosk) const
    {
        kiosk.setProcessEnvironment(environment());
        kiosk.setStandardErrorFile(log());
    }

    // The program on this HOME's settings; false, said on standard error, when it does not start.
    bool start(QProcess &kiosk, const QString &program) const
    {
        kiosk.start(program, {QStringLiteral("--basepath"), m_conf});
        if (kiosk.waitForStarted(10000))
            return true;
        std::fprintf(stderr, "cannot start %s\n", qPrintable(program));
        return false;
    }

private:
    QTemporaryDir m_dir;
    const QString m_conf;
    const QString m_media;
    const QString m_stubs;
};

} // namespace kioskrun
