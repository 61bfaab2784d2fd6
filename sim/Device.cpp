#include "sim/Device.h"

#include "sim/DeviceRules.h"

#include "sim/FlashLayout.h"
#include "sim/Frame.h"

#include <QJsonArray>
#include <QtMath>

#include <cstdio>

namespace gnxsim {

using namespace DeviceRules;

Device::Device(const Options& options) : m_model(options.model), m_mode(options.mode), m_rng(options.seed)
{
    m_clockBase = options.startTime.isValid() ? options.startTime.toUTC() : QDateTime::currentDateTimeUtc();
    m_clockBase.setTime(
        QTime(m_clockBase.time().hour(), m_clockBase.time().minute(), m_clockBase.time().second()));

    const quint32 s = options.seed;
    m_serial1 = QString::number(10 + (s * 7919u) % 90);
    m_serial2 = QString::number(100 + (s * 104729u) % 900);
    m_hwRevision = QStringLiteral("B");
    if (m_model == Model::Gnx134) {
        m_blVersion = QStringLiteral("1.02");
        m_appVersion = QStringLiteral("1.8.3");
        m_fpgaVersion = QStringLiteral("2.0");
    } else {
        m_blVersion = QStringLiteral("2.11");
        m_appVersion = QStringLiteral("3.4.0");
        m_fpgaVersion = QStringLiteral("5.2");
    }
    m_sw = {"1", "1", "20", "1", "0", "0", "0"};
    m_hw = {"0", "0", "5", "0", "2", "1.5"};
    if (m_model == Model::Gnx234) {
        m_sw << "0"
             << "0";
        m_hw << "0";
    }
    m_slots.resize(slotCount());
    m_flash.resize(m_model == Model::Gnx134 ? slotCount() : 1);

    // The receiver stands somewhere in south-west Europe, facing any way.
    m_lat = (43.0 + m_rng.bounded(300) / 100.0) * 60000.0;
    m_lon = (-1.0 + m_rng.bounded(400) / 100.0) * 60000.0;
    m_heading = m_rng.bounded(360);
    for (int i = 0; i < 8; ++i) {
        const bool long28 = i % 3 == 2;
        const quint32 id =
            long28 ? 0x1000000u + m_rng.bounded(0xEFFFFFFu) : 0x10000u + m_rng.bounded(0xEFFFFu);
        m_foreignIds << QString::number(id, 16).toUpper().rightJustified(long28 ? 7 : 5, QLatin1Char('0'));
    }

    if (options.scenario)
        startScenario(options.scenario, options.seed, qMax(0, options.flashRecords));
    else {
        seedPlatforms(qBound(0, options.platforms, slotCount()));
        seedFlash(qMax(0, options.flashRecords));
    }
    setLiveIntervalMs(options.liveIntervalMs);
    m_revision = 0;
}

// ---------------------------------------------------------------------------------------------------
// Transport side

void Device::receive(const QByteArray& bytes)
{
    m_inBuffer += bytes;
    for (;;) {
        int end = -1;
        for (int i = 0; i < m_inBuffer.size(); ++i) {
            if (m_inBuffer[i] == '\r' || m_inBuffer[i] == '\n') {
                end = i;
                break;
            }
        }
        if (end < 0)
            break;
        const QByteArray line = m_inBuffer.left(end);
        m_inBuffer.remove(0, end + 1);
        if (!line.isEmpty())
            handleLine(line);
    }
    if (m_inBuffer.size() > maxLineBytes)
        m_inBuffer.clear();
}

QList<Device::OutUnit> Device::takeOutput()
{
    QList<OutUnit> out;
    out.swap(m_out);
    return out;
}

void Device::advance(qint64 ms)
{
    if (ms <= 0)
        return;
    const qint64 target = m_nowMs + ms;
    while (m_liveIntervalMs > 0 && m_nextLiveAtMs >= 0 && m_nextLiveAtMs <= target) {
        m_nowMs = m_nextLiveAtMs;
        m_nextLiveAtMs += m_liveIntervalMs;
        liveTick();
    }
    m_nowMs = target;
}

qint64 Device::msUntilNextEvent() const
{
    if (m_liveIntervalMs <= 0 || m_nextLiveAtMs < 0)
        return -1;
    return qMax<qint64>(0, m_nextLiveAtMs - m_nowMs);
}

// ---------------------------------------------------------------------------------------------------
// Control

void Device::setLiveIntervalMs(int ms)
{
    m_liveIntervalMs = qMax(0, ms);
    m_nextLiveAtMs = m_liveIntervalMs > 0 ? m_nowMs + m_liveIntervalMs : -1;
}

void Device::setMode(Mode mode)
{
    m_mode = mode;
    m_upload = {};
    changed();
}

void Device::overrideNextReply(const QString& mnemonic, const QStringList& params,
                               const QString& replyMnemonic)
{
    m_overrides.insert(mnemonic.toUpper(), {replyMnemonic.isEmpty() ? mnemonic : replyMnemonic, params});
}

void Device::sendRawLine(const QString& payload, bool correctChecksum)
{
    const QByteArray p = payload.toLatin1();
    QByteArray line = Frame::frame(p);
    if (!correctChecksum)
        line = '$' + p + '*' + Frame::hex2(quint8(Frame::checksum(p) ^ 0x5A)) + "\r\n";
    emitUnsolicited(line);
}

void Device::sendRawBytes(const QByteArray& bytes)
{
    emitUnsolicited(bytes, false);
}

void Device::setClock(const QDateTime& utc)
{
    m_clockBase = utc.toUTC();
    m_clockSetAtMs = m_nowMs;
    changed();
}

QDateTime Device::clock() const
{
    return m_clockBase.addMSecs(m_nowMs - m_clockSetAtMs);
}

bool Device::emitNpr(int platformIndex, bool favourite)
{
    if (m_mode != Mode::App || m_stalled)
        return false;
    QList<int> used;
    for (int i = 0; i < m_slots.size(); ++i)
        if (!m_slots[i].isEmpty())
            used << i;
    int slot = -1;
    if (platformIndex >= 0) {
        if (platformIndex >= m_slots.size() || m_slots[platformIndex].isEmpty())
            return false;
        slot = platformIndex;
    } else if (favourite) {
        if (used.isEmpty())
            return false;
        slot = used[int(m_rng.bounded(quint32(used.size())))];
    }
    RxReport report = makeReport(slot, favourite, int(m_rng.bounded(quint32(m_foreignIds.size()))), clock());
    const QByteArray payload = report.nprPayload(m_model);
    const bool quirk = m_quirk && m_model == Model::Gnx134 && !favourite;
    emitUnsolicited(quirk ? Frame::frameGnx134Quirk(payload) : Frame::frame(payload));
    store(report);
    return true;
}

// ---------------------------------------------------------------------------------------------------
// Snapshots

QStringList Device::softwareSetup() const
{
    const QDateTime now = clock();
    QStringList out = m_sw.mid(0, 7);
    out << QString::number(now.date().year() - 2000) << QString::number(now.date().month())
        << QString::number(now.date().day()) << QString::number(now.time().hour())
        << QString::number(now.time().minute());
    out << m_sw.mid(7);
    return out;
}

QStringList Device::platformSlot(int index) const
{
    if (index < 0 || index >= m_slots.size())
        return {};
    return m_slots[index];
}

QByteArray Device::flashBytes() const
{
    QByteArray out;
    for (const auto& list : m_flash)
        for (const auto& r : list)
            out += r.bytes;
    return out;
}

QByteArray Device::platformFlashBytes(int index) const
{
    QByteArray out;
    if (m_model != Model::Gnx134 || index < 0 || index >= m_flash.size())
        return out;
    for (const auto& r : m_flash[index])
        out += r.bytes;
    return out;
}

int Device::flashRecordCount() const
{
    int n = 0;
    for (const auto& list : m_flash)
        n += list.size();
    return n;
}

qint64 Device::flashCapacity() const
{
    return m_model == Model::Gnx134 ? gnx134SlotCapacity * slotCount() : gnx234Capacity;
}

qint64 Device::usedFlash(int list) const
{
    qint64 n = 0;
    for (const auto& r : m_flash[list])
        n += r.bytes.size();
    return n;
}

QByteArray Device::readFlash(qint64 start, qint64 length) const
{
    const qint64 capacity = flashCapacity();
    if (start < 0 || length <= 0 || start >= capacity)
        return {};
    const qint64 end = qMin(capacity, start + length);
    const QByteArray records = flashBytes();
    QByteArray out = records.mid(int(qMin<qint64>(start, records.size())), int(end - start));
    out.append(QByteArray(int(end - start - out.size()), char(0xFF)));
    return out;
}

// ---------------------------------------------------------------------------------------------------
// Platforms, live reports and flash contents

void Device::seedPlatforms(int count)
{
    // Slot pattern: signed, wrapped, centi-degree, 28-bit minutes, no format.
    static const int pattern[5] = {2, 3, 0, 1, -1};
    static const char* words[5] = {"Buoy", "Float", "Drifter", "Tag", "Beacon"};
    for (int i = 0; i < count; ++i) {
        const int f = pattern[i % 5];
        const bool long28 = f == 1;
        const quint32 idValue =
            long28 ? 0x1000000u + m_rng.bounded(0xEFFFFFFu) : 0x10000u + m_rng.bounded(0xEFFFFu);
        const QString id =
            QString::number(idValue, 16).toUpper().rightJustified(long28 ? 7 : 5, QLatin1Char('0'));
        const QString label =
            QStringLiteral("%1 %2").arg(QLatin1String(words[i % 5])).arg(i + 1, 2, 10, QLatin1Char('0'));
        m_slots[i] = slotParams(i, id, label, f, 60 + 10 * int(m_rng.bounded(15)));
    }
}

QStringList Device::slotParams(int i, const QString& id, const QString& label, int format, int period) const
{
    const auto& formats = PositionFormat::builtins();
    const bool long28 = id.size() == 7;
    QStringList p{QString::number(i), QString(), long28 ? "2" : "1", id, label};
    if (format >= 0) {
        const PositionFormat& fmt = formats[format];
        p << "1" << fmt.name;
        for (qint32 v : fmt.lat.values())
            p << QString::number(v);
        for (qint32 v : fmt.lon.values())
            p << QString::number(v);
        p << QString::number(fmt.payloadLength) << QString::number(fmt.indexPos)
          << QString::number(fmt.gpsCheck ? 1 : 0);
    } else {
        p << "0" << QString();
        for (int k = 0; k < 21; ++k)
            p << "0";
    }
    p << QString::number(period);
    if (m_model == Model::Gnx134) {
        p << "5";
    } else {
        const bool narrow = i % 5 == 1;
        p << QString::number(i % 3 == 2 ? 4 : 0) << QString::number(i % 3) << (narrow ? "0" : "1")
          << (narrow ? "401645000" : "0");
    }
    if (format >= 0) {
        const PositionFormat& fmt = formats[format];
        p << QString::number(fmt.encryptionType) << QString::number(fmt.polynom, 16)
          << QString::number(fmt.crcPos) << QString::number(fmt.crcLen) << QString::number(fmt.dataPos)
          << QString::number(fmt.dataLen);
    } else {
        p << "0"
          << "0"
          << "0"
          << "0"
          << "0"
          << "1";
    }
    return p;
}

void Device::seedFlash(int count)
{
    QList<int> used;
    for (int i = 0; i < m_slots.size(); ++i)
        if (!m_slots[i].isEmpty())
            used << i;
    if (m_model == Model::Gnx134 && used.isEmpty())
        return; // this generation only records favourites
    const QDateTime now = clock();
    for (int i = 0; i < count; ++i) {
        const QDateTime t = now.addSecs(-qint64(count - i) * 97);
        const bool favourite = !used.isEmpty() && (m_model == Model::Gnx134 || m_rng.bounded(10) < 7);
        const int slot = favourite ? used[i % used.size()] : -1;
        store(makeReport(slot, favourite, int(m_rng.bounded(quint32(m_foreignIds.size()))), t));
    }
}

Device::Track& Device::track(int key)
{
    auto it = m_tracks.find(key);
    if (it == m_tracks.end()) {
        Track t;
        t.lat = m_lat + (int(m_rng.bounded(301)) - 150) * 600.0; // within 1.5 degree
        t.lon = m_lon + (int(m_rng.bounded(301)) - 150) * 600.0;
        it = m_tracks.insert(key, t);
    }
    return it.value();
}

int Device::bearingTo(double lat, double lon) const
{
    const double dLat = (lat - m_lat) / 60000.0;
    const double dLon = (lon - m_lon) / 60000.0 * std::cos(qDegreesToRadians(m_lat / 60000.0));
    const double deg = qRadiansToDegrees(std::atan2(dLon, dLat));
    return (int(std::lround(deg)) % 360 + 360) % 360;
}

RxReport Device::makeReport(int slot, bool favourite, int foreign, const QDateTime& time)
{
    if (m_scenario && slot >= 0 && slot < int(m_scenario->platforms().size()))
        return makeScenarioReport(slot, time);
    const bool v1 = m_model == Model::Gnx134;
    const QStringList* sp = slot >= 0 ? &m_slots[slot] : nullptr;
    RxReport r;
    r.platformIndex = favourite ? slot : -1;
    r.time = time;
    r.time.setTime(QTime(time.time().hour(), time.time().minute(), time.time().second()));
    r.platformId = sp ? (*sp)[3] : m_foreignIds[foreign];
    Track& tr = track(sp ? slot : 1000 + foreign);
    tr.lat = qBound(-5400000.0, tr.lat + (int(m_rng.bounded(41)) - 20) * 10.0, 5400000.0);
    tr.lon = qBound(-10800000.0, tr.lon + (int(m_rng.bounded(41)) - 20) * 10.0, 10800000.0);

    int band = v1 ? 0 : m_sw.value(7).toInt();
    if (sp && !v1)
        band = (*sp)[29].toInt();
    if (tr.nominalFrequency == 0)
        tr.nominalFrequency =
            quint32(bandLowKHz[qBound(0, band, 8)]) * 1000u + 10000u + m_rng.bounded(60000u);
    r.frequency = tr.nominalFrequency + m_rng.bounded(601u) - 300u;
    r.flags = 3;
    r.direction = (bearingTo(tr.lat, tr.lon) + int(m_rng.bounded(7)) - 3 + 360) % 360;
    tr.meanDirection = tr.meanDirection < 0 ? r.direction : (tr.meanDirection * 4 + r.direction) / 5;
    r.v1FlashValue = v1 && favourite ? int(std::lround(tr.meanDirection)) % 360 : 0;
    r.band = v1 ? 0 : band;
    r.extraCode = v1 || r.platformId.size() == 7 ? 0 : 2;
    r.level = -130 + int(m_rng.bounded(26));
    r.period = favourite && sp ? (*sp)[28].toUInt() : 0;
    drift();
    r.latitude = qint32(std::lround(m_lat));
    r.longitude = qint32(std::lround(m_lon));
    r.gnxDirection = int(m_heading);

    r.payload = payloadFor(sp, r.platformId, tr.lat, tr.lon);
    return r;
}

QByteArray Device::payloadFor(const QStringList* sp, const QString& platformId, double lat, double lon)
{
    const bool v1 = m_model == Model::Gnx134;
    const bool long28 = platformId.size() == 7;
    const bool hasFormat = sp && (*sp)[5] == QLatin1String("1");
    PositionFormat fmt;
    if (hasFormat) {
        QList<qint32> latField, lonField;
        for (int i = 7; i <= 15; ++i)
            latField << (*sp)[i].toInt();
        for (int i = 16; i <= 24; ++i)
            lonField << (*sp)[i].toInt();
        fmt.lat = CoordinateField::fromValues(latField);
        fmt.lon = CoordinateField::fromValues(lonField);
        fmt.payloadLength = (*sp)[25].toInt();
    }
    int size = hasFormat ? fmt.payloadBytes() : (long28 ? 9 : 8);
    size = qBound(long28 ? 2 : 1, size, v1 ? FlashLayout::gnx134MaxPayload : FlashLayout::gnx234MaxPayload);
    QByteArray payload(size, '\0');
    for (auto& c : payload)
        c = char(m_rng.bounded(256));
    if (hasFormat) {
        encodeCoordinate(payload, fmt.lat, qint64(std::lround(lat)), 90);
        encodeCoordinate(payload, fmt.lon, qint64(std::lround(lon)), 180);
    }
    if (long28)
        payload[0] = char(platformId.right(2).toUInt(nullptr, 16));
    return payload;
}

void Device::store(const RxReport& r)
{
    // The record cannot hold it: the real receiver keeps the limit, and so do we, but say so.
    if ((r.longitude > FlashLayout::longitudeMax || r.longitude < FlashLayout::longitudeMin) &&
        !m_longitudeWarned.contains(r.platformId)) {
        m_longitudeWarned.insert(r.platformId);
        fprintf(stderr,
                "gnxsim: warning: the receiver at longitude %.5f cannot be stored in a flash record "
                "(it holds %.2f to %.2f degrees); the records of platform %s keep the limit\n",
                r.longitude / 60000.0, FlashLayout::longitudeMin / 60000.0,
                FlashLayout::longitudeMax / 60000.0, qPrintable(r.platformId));
    }
    if (m_model == Model::Gnx134) {
        if (r.platformIndex < 0)
            return; // only favourites have a place
        const QByteArray bytes = FlashLayout::gnx134Record(r);
        if (usedFlash(r.platformIndex) + bytes.size() <= gnx134SlotCapacity)
            m_flash[r.platformIndex].append({r.platformId, bytes});
    } else {
        const QByteArray bytes = FlashLayout::gnx234Record(r);
        if (usedFlash(0) + bytes.size() + 1 <= gnx234Capacity) // room for the end mark
            m_flash[0].append({r.platformId, bytes});
    }
    changed();
}

void Device::liveTick()
{
    if (m_mode != Mode::App)
        return;
    if (m_scenario) {
        if (emitNpr(m_nextScenarioSlot, true))
            ++m_liveReports;
        m_nextScenarioSlot = (m_nextScenarioSlot + 1) % int(m_scenario->platforms().size());
        return;
    }
    bool anyUsed = false;
    for (const auto& s : m_slots)
        anyUsed = anyUsed || !s.isEmpty();
    const bool favourite = anyUsed && m_rng.bounded(10) < 7;
    if (emitNpr(-1, favourite))
        ++m_liveReports;
}

// ---------------------------------------------------------------------------------------------------
// Persistence

QJsonObject Device::toJson() const
{
    QJsonObject o;
    o["model"] = m_model == Model::Gnx134 ? "gnx134" : "gnx234";
    o["mode"] = m_mode == Mode::App ? "app" : "bl";
    o["applicationVersion"] = m_appVersion;
    o["clockOffsetMs"] = double(QDateTime::currentDateTimeUtc().msecsTo(clock()));
    o["softwareSetup"] = QJsonArray::fromStringList(m_sw);
    o["hardwareSetup"] = QJsonArray::fromStringList(m_hw);
    QJsonArray slotArray;
    for (const auto& s : m_slots)
        slotArray.append(QJsonArray::fromStringList(s));
    o["slots"] = slotArray;
    QJsonArray flash;
    for (const auto& list : m_flash) {
        QJsonArray records;
        for (const auto& r : list)
            records.append(QJsonObject{{"id", r.id}, {"data", QString::fromLatin1(r.bytes.toBase64())}});
        flash.append(records);
    }
    o["flash"] = flash;
    return o;
}

static QStringList strings(const QJsonValue& v)
{
    QStringList out;
    for (const auto& e : v.toArray())
        out << e.toString();
    return out;
}

bool Device::fromJson(const QJsonObject& o, QString* error)
{
    auto fail = [&](const QString& text) {
        if (error)
            *error = text;
        return false;
    };
    const QString model = m_model == Model::Gnx134 ? "gnx134" : "gnx234";
    if (o.value("model").toString() != model)
        return fail(QStringLiteral("state is for another model"));
    const QStringList sw = strings(o.value("softwareSetup")), hw = strings(o.value("hardwareSetup"));
    const QJsonArray slotArray = o.value("slots").toArray(), flash = o.value("flash").toArray();
    if (sw.size() != m_sw.size() || hw.size() != m_hw.size() || slotArray.size() != m_slots.size() ||
        flash.size() != m_flash.size())
        return fail(QStringLiteral("state does not match the model"));
    for (const auto& s : slotArray) {
        const QStringList p = strings(s);
        if (!p.isEmpty() && p.size() != ipCount(m_model))
            return fail(QStringLiteral("bad platform slot in state"));
    }
    m_sw = sw;
    m_hw = hw;
    for (int i = 0; i < slotArray.size(); ++i)
        m_slots[i] = strings(slotArray[i]);
    for (int i = 0; i < flash.size(); ++i) {
        m_flash[i].clear();
        for (const auto& r : flash[i].toArray()) {
            const QJsonObject ro = r.toObject();
            m_flash[i].append(
                {ro.value("id").toString(), QByteArray::fromBase64(ro.value("data").toString().toLatin1())});
        }
    }
    m_mode = o.value("mode").toString() == QLatin1String("bl") ? Mode::Bl : Mode::App;
    m_appVersion = o.value("applicationVersion").toString(m_appVersion);
    setClock(QDateTime::currentDateTimeUtc().addMSecs(qint64(o.value("clockOffsetMs").toDouble())));
    m_tracks.clear();
    m_revision = 0;
    return true;
}

} // namespace gnxsim
