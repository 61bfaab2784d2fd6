#include "sim/ControlConsole.h"

#include "sim/PtySimulator.h"

#include <QStringList>

namespace gnxsim {

QString ControlConsole::help()
{
    return QStringLiteral(
        "commands:\n"
        "  npr [INDEX]          one NPR line (INDEX: that slot's platform; default: a non-favourite)\n"
        "  nprf [INDEX]         one NPRF line (default: any favourite)\n"
        "  live MS              live reports every MS milliseconds (0 = off)\n"
        "  mode app|bl          switch the receiver's mode\n"
        "  stall on|off         keep reading but never answer\n"
        "  refuse SLOT|off      refuse IP writes and clears of that favourite slot\n"
        "  unplug | replug      close the pty / open a new one (the link follows)\n"
        "  quirk on|off         GNX134 short checksum on NPR lines\n"
        "  raw PAYLOAD          write a framed unsolicited line\n"
        "  rawbad PAYLOAD       the same with a wrong checksum\n"
        "  fault drop-reply P | corrupt P | noise P | split N | delay MS | off\n"
        "  clock YYYY-MM-DDTHH:MM:SS   set the receiver's clock (UTC)\n"
        "  received             how many command lines came in, and the last one\n"
        "  status | save | help | quit");
}

static bool onOff(const QString& word, bool* value)
{
    if (word == QLatin1String("on") || word == QLatin1String("1")) {
        *value = true;
        return true;
    }
    if (word == QLatin1String("off") || word == QLatin1String("0")) {
        *value = false;
        return true;
    }
    return false;
}

QString ControlConsole::execute(const QString& line, bool* quit)
{
    const QString text = line.trimmed();
    if (text.isEmpty() || text.startsWith(QLatin1Char('#')))
        return {};
    const int space = text.indexOf(QLatin1Char(' '));
    const QString command = text.left(space < 0 ? text.size() : space).toLower();
    const QString rest = space < 0 ? QString() : text.mid(space + 1).trimmed();
    const QStringList args = rest.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    const QString ok = QStringLiteral("ok");
    auto error = [](const QString& why) { return QStringLiteral("error: ") + why; };
    bool flag = false;

    if (command == QLatin1String("help"))
        return help();
    if (command == QLatin1String("quit") || command == QLatin1String("exit")) {
        if (quit)
            *quit = true;
        return ok;
    }
    if (command == QLatin1String("npr") || command == QLatin1String("nprf")) {
        bool valid = true;
        const int index = args.isEmpty() ? -1 : args[0].toInt(&valid);
        if (!valid)
            return error(QStringLiteral("bad platform index"));
        return m_sim.emitNpr(index, command == QLatin1String("nprf"))
                   ? ok
                   : error(QStringLiteral(
                         "nothing to report (free slot, no favourite, or not in application mode)"));
    }
    if (command == QLatin1String("live") && args.size() == 1) {
        bool valid = false;
        const int ms = args[0].toInt(&valid);
        if (!valid || ms < 0)
            return error(QStringLiteral("bad interval"));
        m_sim.setLiveInterval(ms);
        return ok;
    }
    if (command == QLatin1String("mode") && args.size() == 1) {
        if (args[0] == QLatin1String("app"))
            m_sim.setMode(Mode::App);
        else if (args[0] == QLatin1String("bl"))
            m_sim.setMode(Mode::Bl);
        else
            return error(QStringLiteral("mode is app or bl"));
        return ok;
    }
    if (command == QLatin1String("stall") && args.size() == 1 && onOff(args[0], &flag)) {
        m_sim.setStalled(flag);
        return ok;
    }
    if (command == QLatin1String("refuse") && args.size() == 1) {
        if (args[0] == QLatin1String("off")) {
            m_sim.setRefusedSlot(-1);
            return ok;
        }
        bool valid = false;
        const int slot = args[0].toInt(&valid);
        if (!valid || slot < 0 || slot >= platformSlots(m_sim.options().model))
            return error(QStringLiteral("bad slot index"));
        m_sim.setRefusedSlot(slot);
        return ok;
    }
    if (command == QLatin1String("quirk") && args.size() == 1 && onOff(args[0], &flag)) {
        m_sim.setGnx134ChecksumQuirk(flag);
        return ok;
    }
    if (command == QLatin1String("unplug")) {
        m_sim.unplug();
        return ok;
    }
    if (command == QLatin1String("replug")) {
        m_sim.replug();
        return m_sim.isPlugged() ? QStringLiteral("slave ") + m_sim.slavePath() : error(m_sim.errorString());
    }
    if ((command == QLatin1String("raw") || command == QLatin1String("rawbad")) && !rest.isEmpty()) {
        m_sim.sendRawLine(rest, command == QLatin1String("raw"));
        return ok;
    }
    if (command == QLatin1String("fault") && !args.isEmpty()) {
        Faults f = m_sim.faults();
        if (args[0] == QLatin1String("off")) {
            m_sim.setFaults({});
            return ok;
        }
        if (args.size() != 2)
            return error(QStringLiteral("fault NAME VALUE"));
        bool valid = false;
        const double value = args[1].toDouble(&valid);
        if (!valid || value < 0)
            return error(QStringLiteral("bad value"));
        const QString& name = args[0];
        if (name == QLatin1String("drop-reply") && value <= 1)
            f.dropReply = value;
        else if (name == QLatin1String("corrupt") && value <= 1)
            f.corruptChecksum = value;
        else if (name == QLatin1String("noise") && value <= 1)
            f.noise = value;
        else if (name == QLatin1String("split"))
            f.splitBytes = int(value);
        else if (name == QLatin1String("delay"))
            f.delayMs = int(value);
        else
            return error(QStringLiteral("unknown fault or value out of range"));
        m_sim.setFaults(f);
        return ok;
    }
    if (command == QLatin1String("clock") && args.size() == 1) {
        QDateTime t = QDateTime::fromString(args[0], Qt::ISODate);
        if (!t.isValid())
            return error(QStringLiteral("bad date"));
        t.setTimeSpec(Qt::UTC);
        m_sim.setClock(t);
        return ok;
    }
    if (command == QLatin1String("save")) {
        QString why;
        return m_sim.options().statePath.isEmpty() ? error(QStringLiteral("no --state file"))
               : m_sim.saveState(&why)             ? ok
                                                   : error(why);
    }
    if (command == QLatin1String("received")) {
        const QStringList lines = m_sim.receivedLines();
        return QStringLiteral("%1 %2")
            .arg(lines.size())
            .arg(lines.isEmpty() ? QString() : lines.last())
            .trimmed();
    }
    if (command == QLatin1String("status")) {
        const Options o = m_sim.options();
        return QStringLiteral(
                   "model %1, mode %2, slave %3, application %4, clock %5, flash records %6, live reports %7")
            .arg(o.model == Model::Gnx134 ? "gnx134" : "gnx234", m_sim.mode() == Mode::App ? "app" : "bl",
                 m_sim.isPlugged() ? m_sim.slavePath() : QStringLiteral("(unplugged)"),
                 m_sim.applicationVersion(), m_sim.clock().toString(Qt::ISODate))
            .arg(m_sim.flashRecordCount())
            .arg(m_sim.liveReportsSent());
    }
    return error(QStringLiteral("unknown command \"%1\" (try help)").arg(text));
}

} // namespace gnxsim
