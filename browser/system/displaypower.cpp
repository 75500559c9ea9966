#include "displaypower.h"

#include "utils.h"

#include <QString>
#include <QStringList>

namespace {
const char tvservice[] = "/opt/vc/bin/tvservice";
} // namespace

void DisplayPower::off()
{
    // Output on with its preferred mode first, then off; the second call deliberately goes
    // without sudo.
    Utils::runAndWait(QStringLiteral("sudo"),
                      {QString::fromLatin1(tvservice), QStringLiteral("-p")});
    Utils::runAndWait(QString::fromLatin1(tvservice), {QStringLiteral("-o")});
}

void DisplayPower::on()
{
    Utils::runAndWait(QStringLiteral("sudo"),
                      {QString::fromLatin1(tvservice), QStringLiteral("-p")});
    // Switching consoles makes X repaint the freshly powered display.
    Utils::runAndWait(QStringLiteral("sudo"), {QStringLiteral("chvt"), QStringLiteral("6")});
    Utils::runAndWait(QStringLiteral("sudo"), {QStringLiteral("chvt"), QStringLiteral("7")});
}

bool DisplayPower::isOff()
{
    QByteArray status;
    Utils::runAndWait(QString::fromLatin1(tvservice), {QStringLiteral("--status")}, &status);
    return status.contains("[TV is off]");
}
