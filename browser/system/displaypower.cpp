#include "displaypower.h"

#include "settings.h"
#include "utils.h"

#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMutex>
#include <QStandardPaths>
#include <QStringList>
#include <QThread>

namespace {
const char tvservice[] = "/opt/vc/bin/tvservice";
// TVs often miss the first CEC command, or take a while to change.
const int cecAttempts = 3;
const unsigned long cecPauseMs = 500;

enum class State { Unknown, On, Off };

bool has(const char *program)
{
    return !QStandardPaths::findExecutable(QString::fromLatin1(program)).isEmpty();
}

QByteArray output(const QString &program, const QStringList &arguments, int *code = nullptr)
{
    QByteArray text;
    const int exit = Utils::runAndWait(program, arguments, &text);
    if (code)
        *code = exit;
    return text;
}

// One way of switching the display.
class Method
{
public:
    virtual ~Method() = default;
    virtual QString name() const = 0;
    // Whether it can switch a display on this system now.
    virtual bool works() = 0;
    virtual void set(bool on) = 0;
    virtual State state() { return State::Unknown; }
};

class Tvservice final : public Method
{
public:
    QString name() const override { return QStringLiteral("tvservice"); }
    bool works() override { return QFileInfo(QString::fromLatin1(tvservice)).isExecutable(); }
    void set(bool on) override
    {
        // Output on with its preferred mode first; off then deliberately goes without sudo.
        Utils::runAndWait(QStringLiteral("sudo"),
                          {QString::fromLatin1(tvservice), QStringLiteral("-p")});
        if (!on) {
            Utils::runAndWait(QString::fromLatin1(tvservice), {QStringLiteral("-o")});
            return;
        }
        // Switching consoles makes X repaint the freshly powered display.
        Utils::runAndWait(QStringLiteral("sudo"), {QStringLiteral("chvt"), QStringLiteral("6")});
        Utils::runAndWait(QStringLiteral("sudo"), {QStringLiteral("chvt"), QStringLiteral("7")});
    }
    State state() override
    {
        const QByteArray status
            = output(QString::fromLatin1(tvservice), {QStringLiteral("--status")});
        return status.contains("[TV is off]") ? State::Off : State::On;
    }
};

class Vcgencmd final : public Method
{
public:
    QString name() const override { return QStringLiteral("vcgencmd"); }
    bool works() override { return has("vcgencmd") && state() != State::Unknown; }
    void set(bool on) override
    {
        Utils::runAndWait(
            QStringLiteral("vcgencmd"),
            {QStringLiteral("display_power"), on ? QStringLiteral("1") : QStringLiteral("0")});
    }
    State state() override
    {
        const QByteArray text
            = output(QStringLiteral("vcgencmd"), {QStringLiteral("display_power")});
        if (text.contains("display_power=0"))
            return State::Off;
        if (text.contains("display_power=1"))
            return State::On;
        return State::Unknown;
    }
};

bool onWayland()
{
    return !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
}

// The wlroots output power protocol, through wlopm: "NAME on" or "NAME off" a line.
class Wlopm final : public Method
{
public:
    QString name() const override { return QStringLiteral("wlopm"); }
    bool works() override { return onWayland() && has("wlopm") && state() != State::Unknown; }
    void set(bool on) override
    {
        Utils::runAndWait(
            QStringLiteral("wlopm"),
            {on ? QStringLiteral("--on") : QStringLiteral("--off"), QStringLiteral("*")});
    }
    State state() override
    {
        int code = 0;
        const QByteArray text = output(QStringLiteral("wlopm"), {}, &code);
        if (code != 0)
            return State::Unknown;
        const QList<QByteArray> words = text.simplified().split(' ');
        if (words.contains("on"))
            return State::On;
        return words.contains("off") ? State::Off : State::Unknown;
    }
};

// sway's own output power (its IPC), read back from its output list.
class Sway final : public Method
{
public:
    QString name() const override { return QStringLiteral("sway"); }
    bool works() override
    {
        return onWayland() && !qEnvironmentVariableIsEmpty("SWAYSOCK") && has("swaymsg")
               && state() != State::Unknown;
    }
    void set(bool on) override
    {
        Utils::runAndWait(QStringLiteral("swaymsg"),
                          {QStringLiteral("output * dpms %1").arg(on ? "on" : "off")});
    }
    State state() override
    {
        int code = 0;
        const QByteArray text = output(
            QStringLiteral("swaymsg"),
            {QStringLiteral("-r"), QStringLiteral("-t"), QStringLiteral("get_outputs")}, &code);
        const QJsonArray outputs = QJsonDocument::fromJson(text).array();
        if (code != 0 || outputs.isEmpty())
            return State::Unknown;
        for (const QJsonValue &entry : outputs) {
            const QJsonObject object = entry.toObject();
            // "power" since sway 1.8, "dpms" before.
            const QJsonValue power = object.contains(QStringLiteral("power"))
                                         ? object.value(QStringLiteral("power"))
                                         : object.value(QStringLiteral("dpms"));
            if (power.toBool() && object.value(QStringLiteral("active")).toBool(true))
                return State::On;
        }
        return State::Off;
    }
};

// wlr-randr switches the outputs themselves off and on (wlroots output management).
class WlrRandr final : public Method
{
public:
    QString name() const override { return QStringLiteral("wlr-randr"); }
    bool works() override { return onWayland() && has("wlr-randr") && !outputs().isEmpty(); }
    void set(bool on) override
    {
        for (const QString &name : outputs().keys())
            Utils::runAndWait(QStringLiteral("wlr-randr"),
                              {QStringLiteral("--output"), name,
                               on ? QStringLiteral("--on") : QStringLiteral("--off")});
    }
    State state() override
    {
        const QMap<QString, bool> all = outputs();
        if (all.isEmpty())
            return State::Unknown;
        return all.values().contains(true) ? State::On : State::Off;
    }

private:
    // Each output's name (a line of its own, not indented) and whether it is enabled.
    static QMap<QString, bool> outputs()
    {
        QMap<QString, bool> found;
        int code = 0;
        const QByteArray text = output(QStringLiteral("wlr-randr"), {}, &code);
        if (code != 0)
            return found;
        QString current;
        for (const QByteArray &line : text.split('\n')) {
            if (!line.isEmpty() && line.at(0) != ' ') {
                current = QString::fromUtf8(line.left(line.indexOf(' ')));
                found.insert(current, true);
            } else if (!current.isEmpty() && line.trimmed().startsWith("Enabled:")) {
                found.insert(current, line.contains("yes"));
            }
        }
        return found;
    }
};

class Dpms final : public Method
{
public:
    QString name() const override { return QStringLiteral("dpms"); }
    // Only an X server with the DPMS extension; xset says so in its report.
    bool works() override
    {
        return !qEnvironmentVariableIsEmpty("DISPLAY") && state() != State::Unknown;
    }
    void set(bool on) override
    {
        Utils::runAndWait(QStringLiteral("xset"),
                          {QStringLiteral("dpms"), QStringLiteral("force"),
                           on ? QStringLiteral("on") : QStringLiteral("off")});
    }
    State state() override
    {
        const QByteArray text = output(QStringLiteral("xset"), {QStringLiteral("q")});
        if (text.contains("Monitor is Off") || text.contains("Monitor is in Standby")
            || text.contains("Monitor is in Suspend"))
            return State::Off;
        // Switching it off turns display power management on, when the server has it.
        if (text.contains("Monitor is On") || text.contains("DPMS is "))
            return State::On;
        return State::Unknown;
    }
};

// HDMI-CEC through the kernel's CEC device: standby and image-view-on to the TV (logical
// address 0), with the TV's power status asked back.
class Cec final : public Method
{
public:
    QString name() const override { return QStringLiteral("cec"); }
    bool works() override
    {
        if (!has("cec-ctl"))
            return false;
        const QByteArray list
            = output(QStringLiteral("cec-ctl"), {QStringLiteral("--list-devices")});
        const int at = list.indexOf("/dev/cec");
        if (at < 0)
            return false;
        m_device = QString::fromUtf8(list.mid(at).split('\n').first().trimmed());
        // The adapter needs a logical address of its own before it may talk.
        Utils::runAndWait(QStringLiteral("cec-ctl"),
                          {QStringLiteral("-d"), m_device, QStringLiteral("--playback")});
        return true;
    }
    void set(bool on) override
    {
        const State wanted = on ? State::On : State::Off;
        for (int attempt = 1; attempt <= cecAttempts; ++attempt) {
            Utils::runAndWait(
                QStringLiteral("cec-ctl"),
                {QStringLiteral("-d"), m_device, QStringLiteral("--to"), QStringLiteral("0"),
                 on ? QStringLiteral("--image-view-on") : QStringLiteral("--standby")});
            if (state() == wanted)
                return;
            if (attempt < cecAttempts) {
                qDebug() << "Screen power: the TV did not answer" << (on ? "on" : "off")
                         << "yet; trying again.";
                QThread::msleep(cecPauseMs);
            }
        }
    }
    State state() override
    {
        const QByteArray text
            = output(QStringLiteral("cec-ctl"),
                     {QStringLiteral("-d"), m_device, QStringLiteral("--to"), QStringLiteral("0"),
                      QStringLiteral("--give-device-power-status")});
        const int at = text.indexOf("pwr-state:");
        if (at < 0)
            return State::Unknown;
        const QByteArray value = text.mid(at + 10).trimmed();
        // "to-on" and "to-standby" are on their way.
        if (value.startsWith("on") || value.startsWith("to-on"))
            return State::On;
        if (value.startsWith("standby") || value.startsWith("to-standby"))
            return State::Off;
        return State::Unknown;
    }

private:
    QString m_device;
};

QString controlName(Settings::TvControl control)
{
    switch (control) {
    case Settings::TvControl::Dpms:
        return QStringLiteral("dpms");
    case Settings::TvControl::Wayland:
        return QStringLiteral("wayland");
    case Settings::TvControl::Cec:
        return QStringLiteral("cec");
    case Settings::TvControl::None:
        return QStringLiteral("none");
    case Settings::TvControl::Auto:
        break;
    }
    return QStringLiteral("auto");
}

std::vector<std::unique_ptr<Method>> candidates(Settings::TvControl control)
{
    std::vector<std::unique_ptr<Method>> methods;
    const bool any = control == Settings::TvControl::Auto;
    if (any) {
        methods.push_back(std::make_unique<Tvservice>());
        methods.push_back(std::make_unique<Vcgencmd>());
    }
    // Under Wayland the X server is Xwayland, whose display power switches nothing.
    if (any || control == Settings::TvControl::Wayland) {
        methods.push_back(std::make_unique<Wlopm>());
        methods.push_back(std::make_unique<Sway>());
        methods.push_back(std::make_unique<WlrRandr>());
    }
    if ((any && !onWayland()) || control == Settings::TvControl::Dpms)
        methods.push_back(std::make_unique<Dpms>());
    if (any || control == Settings::TvControl::Cec)
        methods.push_back(std::make_unique<Cec>());
    return methods;
}

QMutex s_mutex;
bool s_chosen = false;
std::unique_ptr<Method> s_method;
bool s_off = false;

// Chosen on first use: the programs it asks need the session to be up.
Method *chosenMethod()
{
    if (s_chosen)
        return s_method.get();
    s_chosen = true;
    const Settings::TvControl control = Settings::load(false, nullptr)->tvControl();
    QStringList tried;
    for (std::unique_ptr<Method> &candidate : candidates(control)) {
        if (candidate->works()) {
            qDebug().noquote()
                << QStringLiteral("Screen power: switched through %1.").arg(candidate->name());
            s_method = std::move(candidate);
            return s_method.get();
        }
        tried << candidate->name();
    }
    const QString why = control == Settings::TvControl::None
                            ? QStringLiteral("slideshow/tv_control is none")
                            : QStringLiteral("tried: %1").arg(tried.join(QStringLiteral(", ")));
    qWarning().noquote() << QStringLiteral("Screen power: nothing here can switch the display "
                                           "(slideshow/tv_control=%1, %2); screen-off periods "
                                           "show a black screen.")
                                .arg(controlName(control), why);
    return nullptr;
}

void set(bool on)
{
    QMutexLocker lock(&s_mutex);
    s_off = !on;
    Method *chosen = chosenMethod();
    if (!chosen)
        return;
    chosen->set(on);
    const State state = chosen->state();
    if (state != State::Unknown && (state == State::On) != on)
        qWarning().noquote() << QStringLiteral("Screen power: the display did not switch %1 "
                                               "(%2 reads it %3).")
                                    .arg(on ? "on" : "off", chosen->name(),
                                         state == State::On ? "on" : "off");
}
} // namespace

void DisplayPower::off()
{
    set(false);
}

void DisplayPower::on()
{
    set(true);
}

bool DisplayPower::isOff()
{
    QMutexLocker lock(&s_mutex);
    Method *chosen = chosenMethod();
    const State state = chosen ? chosen->state() : State::Unknown;
    return state == State::Unknown ? s_off : state == State::Off;
}

void DisplayPower::chooseAgain()
{
    QMutexLocker lock(&s_mutex);
    s_chosen = false;
    s_method.reset();
    s_off = false;
}

QString DisplayPower::method()
{
    QMutexLocker lock(&s_mutex);
    Method *chosen = chosenMethod();
    return chosen ? chosen->name() : QString();
}

void DisplayPower::setOn(bool on)
{
    if (on)
        DisplayPower::on();
    else
        off();
}

void DisplayPower::ensureOn()
{
    if (!isOff())
        return;
    qDebug() << "Display was off; switching it back on.";
    on();
}
