// The receiver on a scenario: favourites at known positions, directions from true geodesic bearings.
#include "sim/Device.h"

#include <cmath>

namespace gnxsim {

void Device::startScenario(std::shared_ptr<const Scenario> scenario, quint32 seed, int flashRecords)
{
    m_scenario = std::move(scenario);
    m_noiseRng.seed(seed);
    const auto& platforms = m_scenario->platforms();
    const auto& formats = PositionFormat::builtins();
    for (size_t i = 0; i < platforms.size() && int(i) < slotCount(); ++i) {
        int format = -1;
        for (int f = 0; f < formats.size(); ++f)
            if (formats[f].name == platforms[i].format)
                format = f;
        m_slots[int(i)] =
            slotParams(int(i), platforms[i].id, platforms[i].label, format, platforms[i].period);
    }
    // The flash memory holds the drive so far; live reports carry on from its end.
    const double span = flashRecords > 0 ? m_scenario->duration() : 0.0;
    m_scenarioStart = clock().addMSecs(-qint64(span * 1000));
    for (int i = 0; i < flashRecords; ++i) {
        const QDateTime t = m_scenarioStart.addMSecs(qint64(span * 1000 * i / flashRecords));
        store(makeScenarioReport(i % int(platforms.size()), t));
    }
    const Scenario::Pose start = m_scenario->pose(m_scenarioStart.msecsTo(clock()) / 1000.0);
    m_lat = start.position.lat * 60000.0;
    m_lon = start.position.lon * 60000.0;
    m_heading = start.heading;
}

RxReport Device::makeScenarioReport(int slot, const QDateTime& time)
{
    const Scenario::Platform& platform = m_scenario->platforms()[size_t(slot)];
    const Scenario::Observation o =
        m_scenario->observe(m_scenarioStart.msecsTo(time) / 1000.0, slot, m_noiseRng);
    const QStringList& sp = m_slots[slot];
    RxReport r;
    r.platformIndex = slot;
    r.time = time;
    r.time.setTime(QTime(time.time().hour(), time.time().minute(), time.time().second()));
    r.platformId = platform.id;
    Track& tr = track(slot);
    tr.lat = platform.position.lat * 60000.0;
    tr.lon = platform.position.lon * 60000.0;
    if (tr.nominalFrequency == 0)
        tr.nominalFrequency = 401650000u + quint32(slot) * 7000u;
    r.frequency = tr.nominalFrequency;
    r.flags = 3;
    r.direction = int(std::lround(o.direction)) % 360;
    r.v1FlashValue = m_model == Model::Gnx134 ? r.direction : 0;
    r.band = m_model == Model::Gnx134 ? 0 : sp[29].toInt();
    r.extraCode = m_model == Model::Gnx134 || r.platformId.size() == 7 ? 0 : 2;
    r.level = -110;
    r.period = sp[28].toUInt();
    m_lat = o.pose.position.lat * 60000.0;
    m_lon = o.pose.position.lon * 60000.0;
    m_heading = o.pose.heading;
    r.latitude = qint32(std::lround(m_lat));
    r.longitude = qint32(std::lround(m_lon));
    r.gnxDirection = int(std::lround(m_heading)) % 360;
    r.payload = payloadFor(&sp, r.platformId, tr.lat, tr.lon);
    return r;
}

} // namespace gnxsim
