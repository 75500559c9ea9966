#include "kioskprocess.h"

#include "installpaths.h"
#include "webtest.h"

#include <QDir>
#include <QHostAddress>
#include <QImage>
#include <QTest>
#include <QUdpSocket>

#include <csignal>
#include <utility>

namespace testsupport {

namespace {
const char screenshot[] = "/tmp/screen.png";
}

KioskProcess::KioskProcess()
{
    m_fakes.addDesktopCommands();
    m_fakes.add(QStringLiteral("omxplayer"));
    connect(&m_process, &QProcess::readyReadStandardError, this,
            [this] { m_log += m_process.readAllStandardError(); });
    connect(&m_process, &QProcess::readyReadStandardOutput, this,
            [this] { m_log += m_process.readAllStandardOutput(); });
}

KioskProcess::~KioskProcess()
{
    if (m_process.state() != QProcess::NotRunning) {
        m_process.kill();
        m_process.waitForFinished(5000);
    }
}

QString KioskProcess::confDir() const
{
    return m_home.filePath(QStringLiteral("conf"));
}

QString KioskProcess::picture(const QString &name, const QColor &colour)
{
    const QString path = m_home.filePath(QStringLiteral("pics/") + name);
    makeImage(path, QSize(320, 240), colour, "PNG");
    return path;
}

bool KioskProcess::start(const QByteArray &playlist, const QByteArray &preferences,
                         const QStringList &extraArguments)
{
    QFile::remove(QString::fromLatin1(screenshot));
    writeFile(confDir() + QStringLiteral("/playlist"), playlist);
    writeFile(confDir() + QStringLiteral("/preferences"),
              "[main]\nversion=QFGLs6IVf1\n" + preferences);
    prepareWebEngine();
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    env.insert(QStringLiteral("XDG_CURRENT_DESKTOP"), QStringLiteral("none"));
    // The desktop's own files the program changes stay in the temporary HOME.
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), m_home.filePath(QStringLiteral(".config")));
    env.insert(m_env);
    m_process.setProcessEnvironment(env);
    m_process.setWorkingDirectory(m_home.path());
    m_process.start(programPath(),
                    QStringList{QStringLiteral("--basepath"), confDir()} + extraArguments);
    return m_process.waitForStarted(10000);
}

bool KioskProcess::waitForLog(const QByteArray &text, int timeoutMs)
{
    return QTest::qWaitFor([&] { return m_log.contains(text); }, timeoutMs);
}

QColor KioskProcess::screenColor(const QPointF &where)
{
    const QImage shot(QString::fromLatin1(screenshot));
    if (shot.isNull())
        return QColor();
    return shot.pixelColor(int(where.x() * (shot.width() - 1)),
                           int(where.y() * (shot.height() - 1)));
}

bool KioskProcess::screenShows(const QColor &color, int timeoutMs, const QPointF &where)
{
    return QTest::qWaitFor([&] { return screenColor(where) == color; }, timeoutMs);
}

KioskProcess::Templates::Templates()
{
    const QString target = QStringLiteral(VORSANE_DATA_DIR "/");
    for (const QString &name : {QStringLiteral("text.html"), QStringLiteral("template.html")}) {
        if (QFile::exists(target + name))
            continue;
        QDir().mkpath(target);
        if (QFile::copy(QStringLiteral(VORSANE_SOURCE_DIR "/templates/") + name, target + name))
            m_installed << target + name;
    }
}

KioskProcess::Templates::~Templates()
{
    for (const QString &path : std::as_const(m_installed))
        QFile::remove(path);
}

void KioskProcess::sendDatagram(const QByteArray &datagram)
{
    QUdpSocket socket;
    socket.writeDatagram(datagram, QHostAddress::LocalHost, 54545);
}

int KioskProcess::interrupt(int timeoutMs)
{
    ::kill(pid_t(m_process.processId()), SIGINT);
    if (!m_process.waitForFinished(timeoutMs) || m_process.exitStatus() != QProcess::NormalExit)
        return -1;
    return m_process.exitCode();
}

} // namespace testsupport
