// The receiver's command handlers: one reply, acknowledgement or refusal per command line.
#include "sim/Device.h"

#include "sim/DeviceRules.h"
#include "sim/Firmware.h"
#include "sim/FlashLayout.h"
#include "sim/Frame.h"

namespace gnxsim {

using namespace DeviceRules;

// ---------------------------------------------------------------------------------------------------
// Commands

void Device::emitUnsolicited(const QByteArray& bytes, bool text)
{
    m_out.append({bytes, 0, text});
}

void Device::reply(const QString& mnemonic, const QStringList& params)
{
    m_out.append({Frame::frame(Frame::payloadOf(mnemonic, params)), ++m_answerSeq, true});
}

void Device::ack(bool accepted)
{
    reply(QStringLiteral("ACK"), {accepted ? QStringLiteral("1") : QStringLiteral("0")});
}

void Device::handleLine(const QByteArray& line)
{
    const Frame::Parsed parsed = Frame::parseLine(line);
    m_received << QString::fromLatin1(parsed.payload);
    if (m_received.size() > 100000)
        m_received.removeFirst();
    if (m_stalled)
        return;
    if (!parsed.framed || !parsed.checksumOk) {
        ack(false);
        return;
    }
    const QString mnemonic = parsed.mnemonic;
    const auto it = m_overrides.find(mnemonic.toUpper());
    if (it != m_overrides.end()) {
        const Override o = it.value();
        m_overrides.erase(it);
        reply(o.replyMnemonic, o.params);
        return;
    }
    dispatch(mnemonic, parsed.params);
}

void Device::dispatch(const QString& m, const QStringList& p)
{
    const bool v1 = m_model == Model::Gnx134;
    const bool app = m_mode == Mode::App;
    const int n = int(p.size());
    static const QStringList uploadCommands{"ATBL", "ERRF", "WRDA", "WRSC", "REBO"};

    if (m == QLatin1String("TEST") && n == 0)
        return cmdTest();
    if (uploadCommands.contains(m))
        return cmdUpload(m, p);
    if (!app) { // the bootloader knows nothing else
        ack(false);
        return;
    }
    if (m == QLatin1String("SETUPSW") && n == (v1 ? 12 : 14))
        return cmdSetupSw(p);
    if (m == QLatin1String("SETUPHW") && n == (v1 ? 6 : 7))
        return cmdSetupHw(p);
    if (m == QLatin1String("IP") && n == ipCount(m_model))
        return cmdIp(p);
    if (m == QLatin1String("IFP") && n == 0)
        return cmdIfp();
    if (m == QLatin1String("RFP") && n == (v1 ? 1 : 2))
        return cmdRfp(p);
    if (m == QLatin1String("DFP") && n <= 1)
        return cmdDfp(p);
    if (m == QLatin1String("LIG") && n == 0)
        return cmdLig();
    if (m == QLatin1String("GSN") && n == 0)
        return cmdGsn();
    if (m == QLatin1String("SUA") && n == 0) {
        reply(m, {QStringLiteral("1")});
        m_mode = Mode::Bl;
        m_upload = {};
        changed();
        return;
    }
    ack(false);
}

void Device::cmdTest()
{
    const QString modeText = m_mode == Mode::App ? QStringLiteral("APP") : QStringLiteral("BL");
    if (m_model == Model::Gnx134) {
        reply(QStringLiteral("TEST"), {QStringLiteral("GNX134"), modeText});
        return;
    }
    QStringList p{QStringLiteral("GNX234"), m_serial1, m_serial2, m_hwRevision, modeText, m_blVersion};
    if (m_mode == Mode::App)
        p << m_appVersion << m_fpgaVersion;
    reply(QStringLiteral("TEST"), p);
}

void Device::cmdGsn()
{
    if (m_model == Model::Gnx134)
        reply(QStringLiteral("GSN"), {m_serial1 + QLatin1Char('-') + m_serial2});
    else
        reply(QStringLiteral("GSN"), {m_serial1, m_serial2});
}

void Device::drift()
{
    m_heading = std::fmod(m_heading + (int(m_rng.bounded(5)) - 2) + 360.0, 360.0);
    m_temperature = qBound(15.0, m_temperature + (int(m_rng.bounded(3)) - 1) * 0.5, 45.0);
    m_millivolts = qBound(11800.0, m_millivolts + (int(m_rng.bounded(21)) - 10), 12800.0);
}

void Device::cmdLig()
{
    drift();
    const QDateTime now = clock();
    QStringList p{QStringLiteral("3"),
                  QString::number(qRound64(m_lat + (int(m_rng.bounded(21)) - 10))),
                  QString::number(qRound64(m_lon + (int(m_rng.bounded(21)) - 10))),
                  QString::number(int(m_heading)),
                  QString::number(int(m_millivolts)),
                  QString::number(int(m_temperature)),
                  QString::number(now.date().year() - 2000),
                  QString::number(now.date().month()),
                  QString::number(now.date().day()),
                  QString::number(now.time().hour()),
                  QString::number(now.time().minute()),
                  QString::number(now.time().second())};
    if (m_model == Model::Gnx234)
        p << m_sw.value(7);
    p << m_appVersion << m_blVersion << m_fpgaVersion;
    reply(QStringLiteral("LIG"), p);
}

void Device::cmdSetupSw(const QStringList& p)
{
    // Limits per wire index; 7 to 11 are the clock.
    static const qint64 lo[14] = {0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 0, 0, 0, 0};
    static const qint64 hi[14] = {1, 1, 100, 1, 2, 2, 359, 99, 12, 31, 23, 59, 8, 1};
    for (int i = 0; i < p.size(); ++i)
        if (!p[i].isEmpty() && !intIn(p[i], lo[i], hi[i])) {
            ack(false);
            return;
        }
    const bool clockWrite = !allEmpty(p.mid(7, 5));
    QDateTime newClock;
    if (clockWrite) {
        const QStringList cur = softwareSetup();
        auto field = [&](int i) { return (p[i].isEmpty() ? cur[i] : p[i]).trimmed().toInt(); };
        const QDate d(2000 + field(7), field(8), field(9));
        if (!d.isValid()) {
            ack(false);
            return;
        }
        newClock = QDateTime(d, QTime(field(10), field(11), 0), Qt::UTC);
    }
    for (int i = 0; i < p.size(); ++i) {
        if (p[i].isEmpty() || (i >= 7 && i <= 11))
            continue;
        m_sw[i < 7 ? i : i - 5] = norm(p[i]);
    }
    if (clockWrite)
        setClock(newClock);
    if (!allEmpty(p))
        changed();
    reply(QStringLiteral("SETUPSW"), softwareSetup());
}

void Device::cmdSetupHw(const QStringList& p)
{
    static const qint64 lo[7] = {0, 0, -1000000, 0, 0, 0, 0};
    static const qint64 hi[7] = {1, 1, 1000000, 2, 3, 0, 1};
    for (int i = 0; i < p.size(); ++i)
        if (i != 5 && !p[i].isEmpty() && !intIn(p[i], lo[i], hi[i])) {
            ack(false);
            return;
        }
    for (int i = 0; i < p.size(); ++i)
        if (!p[i].isEmpty())
            m_hw[i] = i == 5 ? p[i] : norm(p[i]);
    if (!allEmpty(p))
        changed();
    reply(QStringLiteral("SETUPHW"), m_hw);
}

QStringList Device::freeSlotParams(int index) const
{
    QStringList p{QString::number(index)};
    while (p.size() < ipCount(m_model))
        p << QString();
    return p;
}

bool Device::validSlotWrite(const QStringList& p) const
{
    const bool v1 = m_model == Model::Gnx134;
    if (!p[1].isEmpty() && p[1] != QLatin1String("1"))
        return false;
    if (!isHexId(p[3]) || p[2] != (p[3].size() == 5 ? QLatin1String("1") : QLatin1String("2")))
        return false;
    if (p[5] != QLatin1String("0") && p[5] != QLatin1String("1"))
        return false;
    if (p[5] == QLatin1String("1")) {
        if (p[6].isEmpty())
            return false;
        for (int i = 7; i <= 26; ++i)
            if (!intIn(p[i], INT_MIN, INT_MAX))
                return false;
        if (!intIn(p[27], 0, 1))
            return false;
        const int t = tailStart(m_model);
        bool ok = false;
        const uint poly = p[t + 1].toUInt(&ok, 16);
        if (!intIn(p[t], 0, 2) || !ok || poly > 0xFFFF)
            return false;
        for (int i = t + 2; i <= t + 4; ++i)
            if (!intIn(p[i], INT_MIN, INT_MAX))
                return false;
        if (!intIn(p[t + 5], 1, 254))
            return false;
    }
    if (!intIn(p[28], 0, 65535))
        return false;
    if (v1)
        return intIn(p[29], 0, 255);
    return intIn(p[29], 0, 8) && intIn(p[30], 0, 2) && intIn(p[31], 0, 1) && intIn(p[32], 0, INT_MAX);
}

void Device::clearSlotFlash(int index, const QString& id)
{
    if (m_model == Model::Gnx134) {
        m_flash[index].clear();
        return;
    }
    auto& list = m_flash[0];
    const quint32 value = id.toUInt(nullptr, 16);
    for (int i = int(list.size()) - 1; i >= 0; --i)
        if (list[i].id.toUInt(nullptr, 16) == value)
            list.removeAt(i);
}

void Device::cmdIp(const QStringList& p)
{
    qint64 index = -1;
    if (!intIn(p[0], 0, slotCount() - 1, &index)) {
        ack(false);
        return;
    }
    const int i = int(index);
    if (allEmpty(p, 1)) { // read
        reply(QStringLiteral("IP"), m_slots[i].isEmpty() ? freeSlotParams(i) : m_slots[i]);
        return;
    }
    if (i == m_refusedSlot) {
        ack(false);
        return;
    }
    if (p[1] == QLatin1String("0") && allEmpty(p, 2)) { // clear: delete, or prepare a re-creation
        if (!m_slots[i].isEmpty())
            clearSlotFlash(i, m_slots[i][3]);
        m_slots[i].clear();
        m_tracks.remove(i);
        changed();
        reply(QStringLiteral("IP"), freeSlotParams(i));
        return;
    }
    if (!validSlotWrite(p)) {
        ack(false);
        return;
    }
    const bool recreate = p[1] == QLatin1String("1");
    const QString id = p[3].toUpper();
    if (!m_slots[i].isEmpty()) {
        const QString oldId = m_slots[i][3];
        if (recreate)
            clearSlotFlash(i, oldId);
        else if (oldId != id) { // a new identifier needs a re-creation
            ack(false);
            return;
        }
        if (recreate)
            m_tracks.remove(i);
    }
    QStringList stored = p;
    stored[0] = QString::number(i);
    stored[1].clear();
    stored[3] = id;
    m_slots[i] = stored;
    changed();
    reply(QStringLiteral("IP"), stored);
}

void Device::cmdIfp()
{
    const qint64 used = flashBytes().size();
    const qint64 end = m_model == Model::Gnx234 && used > 0 ? used + 1 : used; // the end mark is read too
    reply(QStringLiteral("IFP"), {QStringLiteral("0"), QString::number(end)});
}

void Device::cmdRfp(const QStringList& p)
{
    if (m_model == Model::Gnx134) {
        qint64 index = -1;
        if (!intIn(p[0], 0, slotCount() - 1, &index)) {
            ack(false);
            return;
        }
        const QByteArray dump = platformFlashBytes(int(index));
        const quint64 answer = ++m_answerSeq;
        int block = 1;
        for (int at = 0; at < dump.size(); at += rfpTextBlockBytes, ++block) {
            const QByteArray payload =
                "RFP," + QByteArray::number(block) + ',' + dump.mid(at, rfpTextBlockBytes).toHex().toUpper();
            m_out.append({Frame::frame(payload), answer, true});
        }
        m_out.append({Frame::frame("RFP,0,"), answer, true});
        return;
    }
    qint64 start = 0, length = 0;
    if (!intIn(p[0], 0, INT_MAX, &start) || !intIn(p[1], 0, INT_MAX, &length)) {
        ack(false);
        return;
    }
    const QByteArray data = readFlash(start, qMin(length, maxRfpLength));
    const int blocks = int((data.size() + rfpBlockBytes - 1) / rfpBlockBytes);
    const quint64 answer = ++m_answerSeq;
    auto frame = [&](int k, qint64 address, const QByteArray& block) {
        const QByteArray body =
            "RFP," + QByteArray::number(k) + ',' + QByteArray::number(address) + ',' + block;
        m_out.append({'$' + body + '*' + Frame::hex2(Frame::checksum(body)) + "\r\n", answer, false});
    };
    QByteArray count(rfpBlockBytes, '\0');
    const quint32 n = quint32(blocks + 1);
    count[rfpBlockBytes - 4] = char(n >> 24);
    count[rfpBlockBytes - 3] = char(n >> 16);
    count[rfpBlockBytes - 2] = char(n >> 8);
    count[rfpBlockBytes - 1] = char(n);
    frame(0, start, count);
    for (int k = 0; k < blocks; ++k) {
        QByteArray block = data.mid(k * rfpBlockBytes, rfpBlockBytes);
        block.append(QByteArray(rfpBlockBytes - block.size(), char(0xFF)));
        frame(k + 1, start + qint64(k) * rfpBlockBytes, block);
    }
    frame(blocks + 1, start + data.size(), {});
}

void Device::cmdDfp(const QStringList& p)
{
    if (p.isEmpty() || p[0].isEmpty()) {
        for (auto& list : m_flash)
            list.clear();
    } else {
        qint64 index = -1;
        if (!intIn(p[0], 0, slotCount() - 1, &index)) {
            ack(false);
            return;
        }
        if (m_model == Model::Gnx134)
            m_flash[int(index)].clear();
        else if (!m_slots[int(index)].isEmpty())
            clearSlotFlash(int(index), m_slots[int(index)][3]);
    }
    changed();
    // An answer always carries a value: the erase of everything is acknowledged with "1".
    reply(QStringLiteral("DFP"), p.isEmpty() || p[0].isEmpty() ? QStringList{QStringLiteral("1")} : p);
}

void Device::cmdUpload(const QString& m, const QStringList& p)
{
    const bool bl = m_mode == Mode::Bl;
    Upload& u = m_upload;
    bool ok = false;
    if (m == QLatin1String("REBO") && p.isEmpty()) {
        if (!bl) {
            ok = true; // a plain restart
        } else if (!u.erased || u.locked) {
            if (u.locked)
                m_appVersion = u.version;
            m_mode = Mode::App;
            u = {};
            changed();
            ok = true;
        }
    } else if (!bl) {
        ok = false;
    } else if (m == QLatin1String("ATBL") && p.isEmpty()) {
        u.unlocked = true;
        ok = true;
    } else if (m == QLatin1String("ERRF") && p.isEmpty()) {
        if (u.unlocked && !u.locked) {
            u.erased = true;
            u.endSeen = false;
            u.nextAddress = 0;
            u.records = 0;
            u.version.clear();
            m_appVersion.clear();
            changed();
            ok = true;
        }
    } else if (m == QLatin1String("WRDA") && p.size() == 1) {
        const auto record = Firmware::decode(p[0].trimmed().toLatin1());
        if (u.erased && !u.locked && !u.endSeen && record) {
            if (record->type == Firmware::Version) {
                u.version = QString::fromUtf8(record->data);
                u.version.replace(QLatin1Char(','), QLatin1Char('_'))
                    .replace(QLatin1Char('*'), QLatin1Char('_'));
                ok = true;
            } else if (record->address == u.nextAddress) {
                u.nextAddress += quint32(record->data.size());
                u.endSeen = record->type == Firmware::End;
                ok = true;
            }
            if (ok)
                ++u.records;
        }
    } else if (m == QLatin1String("WRSC") && p.isEmpty()) {
        if (u.erased && u.endSeen && !u.locked) {
            if (u.version.isEmpty())
                u.version = QStringLiteral("UNKNOWN");
            u.locked = true;
            ok = true;
        }
    }
    ack(ok);
}

} // namespace gnxsim
