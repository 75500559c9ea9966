#include "pcmanfmtakeover.h"

#include "initext.h"
#include "utils.h"

namespace {
const char program[] = "pcmanfm";

QString profileOf(Desktop::Kind desktop)
{
    const QString running
        = Desktop::runningOption(QString::fromLatin1(program), QStringLiteral("--profile"));
    return running.isEmpty() ? Desktop::lxdeProfile(desktop) : running;
}

ConfigFileEdit edit(const QString &profile)
{
    const QString relative = QStringLiteral("/pcmanfm/") + profile + QLatin1String("/pcmanfm.conf");
    return ConfigFileEdit(
        Desktop::configHome() + relative, {QStringLiteral("/etc/xdg") + relative}, "\n",
        [](const QByteArray &text) { return IniText::set(text, "volume", "autorun", "0"); });
}
} // namespace

PcmanfmTakeover::PcmanfmTakeover(Desktop::Kind desktop)
    : m_profile(profileOf(desktop))
    , m_edit(edit(m_profile))
{
    takeOver();
}

PcmanfmTakeover::~PcmanfmTakeover()
{
    giveBack();
}

bool PcmanfmTakeover::disableImpl()
{
    // Only a running file manager is told: told when none runs, it would start one.
    if (!Desktop::running(QString::fromLatin1(program)).isEmpty())
        m_reconfigure = {{QString::fromLatin1(program), QStringLiteral("--profile"), m_profile,
                          QStringLiteral("--reconfigure")}};
    if (!m_edit.saveBackup())
        return false;
    registerGiveBack();
    if (!m_edit.write())
        return false;
    for (const QStringList &command : qAsConst(m_reconfigure))
        Utils::runAndWait(command.first(), command.mid(1));
    return true;
}

QList<QStringList> PcmanfmTakeover::giveBackCommands() const
{
    return m_edit.restoreCommands() + m_reconfigure;
}
