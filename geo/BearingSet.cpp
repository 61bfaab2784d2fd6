#include "geo/BearingSet.h"

#include "mrl/utils/DateTime.h"
#include "utils/FlashDecoder.h"
#include "utils/PlatformNumber.h"

#include <algorithm>
#include <atomic>
#include <thread>

namespace OrviaGonioManager::Geo {

QString Bearing::key() const
{
    return QStringLiteral("%1|%2|%3|%4|%5")
        .arg(platformId)
        .arg(time)
        .arg(direction)
        .arg(receiver.latitude, 0, 'f', 6)
        .arg(receiver.longitude, 0, 'f', 6);
}

Bearing BearingSet::fromRow(const Utils::RxTableModel::Row& row, bool relative)
{
    const Com::OrviaRxMessage_t& m = row.message;
    Bearing b;
    b.platformId = row.byNumber.platform.isEmpty() ? Utils::PlatformNumber::shortest(m.platformId)
                                                   : row.byNumber.platform;
    b.favourite = row.byNumber.favourite;
    b.label = row.byNumber.label;
    b.time = MRL::Utils::DateTime::fromMjd(m.mjd, m.secondsOfDay).toMSecsSinceEpoch();
    b.receiver = {m.gnxLatitude, m.gnxLongitude};
    // A receiver without a fix reports 0, 0.
    b.receiverValid = m.flagBit0 && (m.gnxLatitude != 0.0 || m.gnxLongitude != 0.0);
    if (!b.receiverValid)
        b.noPosition = QStringLiteral("No position");
    else if (row.flash && Utils::FlashDecoder::atLongitudeLimit(m.gnxLongitude)) {
        b.receiverValid = false;
        b.noPosition = QStringLiteral("Longitude at the flash record's limit");
    }
    b.direction = m.direction;
    b.heading = m.gnxDirection;
    b.relative = relative;
    b.trueBearing = relative ? wrap360(b.direction + b.heading) : b.direction;
    if (row.byNumber.payloadPosition)
        b.payload = GeoPoint{row.byNumber.payloadLatitude, row.byNumber.payloadLongitude};
    return b;
}

void BearingSet::setRelative(bool relative)
{
    relative_ = relative;
    for (auto& [id, p] : platforms_)
        for (Bearing& b : p.bearings) {
            b.relative = relative;
            b.trueBearing = relative ? wrap360(b.direction + b.heading) : b.direction;
        }
}

void BearingSet::clear()
{
    platforms_.clear();
    track_.clear();
    trackPoints_.clear();
}

void BearingSet::add(const Utils::RxTableModel::Row& row)
{
    Bearing b = fromRow(row, relative_);
    b.use = excluded_.isEmpty() || !excluded_.contains(b.key());
    if (b.receiverValid)
        trackPoints_.emplace_back(b.time, b.receiver);
    Platform& p = platforms_[b.platformId];
    p.id = b.platformId;
    if (!b.label.isEmpty())
        p.label = b.label;
    p.favourite = p.favourite || b.favourite;
    p.bearings.push_back(std::move(b));
}

void BearingSet::rebuild(const Utils::RxTableModel& model)
{
    clear();
    for (int row = model.allRowCount() - 1; row >= 0; --row)
        if (!model.isHidden(row))
            add(model.rowAt(row));
    sortAll();
}

void BearingSet::rebuild(const std::vector<Utils::RxTableModel::Row>& rows)
{
    clear();
    for (const Utils::RxTableModel::Row& row : rows)
        add(row);
    sortAll();
}

void BearingSet::sortAll()
{
    // Rows mostly come in time order already; a bearing is costly to move.
    const auto byTime = [](const Bearing& a, const Bearing& b) { return a.time < b.time; };
    for (auto& [id, p] : platforms_)
        if (!std::is_sorted(p.bearings.begin(), p.bearings.end(), byTime))
            std::stable_sort(p.bearings.begin(), p.bearings.end(), byTime);
    const auto pointsByTime = [](const auto& a, const auto& b) { return a.first < b.first; };
    if (!std::is_sorted(trackPoints_.begin(), trackPoints_.end(), pointsByTime))
        std::stable_sort(trackPoints_.begin(), trackPoints_.end(), pointsByTime);
    track_.clear();
    for (const auto& [time, point] : trackPoints_)
        if (track_.empty() || track_.back().latitude != point.latitude ||
            track_.back().longitude != point.longitude)
            track_.push_back(point);
}

void BearingSet::setUse(const QString& key, bool use)
{
    if (use)
        excluded_.remove(key);
    else
        excluded_.insert(key);
    for (auto& [id, p] : platforms_)
        for (Bearing& b : p.bearings)
            if (b.key() == key)
                b.use = use;
}

std::vector<BearingLine> BearingSet::lines(const Platform& platform)
{
    std::vector<BearingLine> out;
    out.reserve(platform.bearings.size());
    for (const Bearing& b : platform.bearings)
        if (b.receiverValid)
            out.push_back({b.receiver, b.trueBearing, b.use});
    return out;
}

Fix BearingSet::fix(const QString& platformId) const
{
    const auto it = platforms_.find(platformId);
    return it == platforms_.end() ? BearingFix::solve({}) : BearingFix::solve(lines(it->second));
}

std::map<QString, Fix> BearingSet::fixes() const
{
    return solve(allLines());
}

BearingSet::AllLines BearingSet::allLines() const
{
    AllLines out;
    out.reserve(platforms_.size());
    for (const auto& [id, p] : platforms_)
        out.emplace_back(id, lines(p));
    return out;
}

std::map<QString, Fix> BearingSet::solve(const AllLines& todo)
{
    // Platforms are independent: each core takes the next one.
    std::vector<Fix> done(todo.size());
    std::atomic<size_t> next{0};
    const auto work = [&] {
        for (size_t i = next++; i < todo.size(); i = next++)
            done[i] = BearingFix::solve(todo[i].second);
    };
    std::vector<std::thread> threads;
    const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
    for (unsigned t = 1; t < cores && t < todo.size(); ++t)
        threads.emplace_back(work);
    work();
    for (std::thread& t : threads)
        t.join();
    std::map<QString, Fix> out;
    for (size_t i = 0; i < todo.size(); ++i)
        out.emplace(todo[i].first, std::move(done[i]));
    return out;
}

AntennaCheck BearingSet::antennaCheck(int currentOffset) const
{
    std::vector<AntennaSample> samples;
    for (const auto& [id, p] : platforms_)
        for (const Bearing& b : p.bearings)
            if (b.use && b.receiverValid && b.payload)
                samples.push_back({b.receiver, *b.payload, b.trueBearing});
    return AntennaCheck::compute(samples, currentOffset);
}

} // namespace OrviaGonioManager::Geo
