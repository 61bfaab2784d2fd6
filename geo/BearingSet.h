#pragma once

#include "geo/AntennaCheck.h"
#include "geo/BearingFix.h"
#include "utils/RxTableModel.h"

#include <QSet>
#include <QString>

#include <map>
#include <optional>
#include <vector>

namespace OrviaGonioManager::Geo {

// One direction of arrival with everything it came from, so that no one has to guess which
// angle it is.
struct Bearing
{
    QString platformId;
    QString label;
    qint64 time = 0; // ms since the epoch, UTC
    GeoPoint receiver;
    bool receiverValid = false;      // the receiver knew its position
    QString noPosition;              // why the receiver's position is not used, when it is not
    double direction = 0.0;          // as the receiver measured it
    double heading = 0.0;            // the receiver's heading then
    bool relative = false;           // direction was taken as relative to the heading
    double trueBearing = 0.0;        // from north: direction, or direction + heading
    bool favourite = false;          // in a favourite slot
    std::optional<GeoPoint> payload; // the position the platform sent
    bool use = true;                 // false: left out by the user

    QString key() const;
};

// The bearings of the messages the RX table shows, by platform, with their fixes and the antenna
// check. Pure data: the window draws it, the tests and the benchmark call it.
class BearingSet
{
public:
    struct Platform
    {
        QString id;
        QString label;
        bool favourite = false;
        std::vector<Bearing> bearings; // oldest first

        // "Label (ID)", or the identifier alone.
        QString name() const { return label.isEmpty() ? id : QStringLiteral("%1 (%2)").arg(label, id); }
    };

    // Taken as from north unless relative.
    static Bearing fromRow(const Utils::RxTableModel::Row& row, bool relative);

    void setRelative(bool relative);
    bool relative() const { return relative_; }
    // Everything the table shows, hidden rows left out.
    void rebuild(const Utils::RxTableModel& model);
    // These rows (gnxctl reads them back from a file), taken in time order as the table's are.
    void rebuild(const std::vector<Utils::RxTableModel::Row>& rows);
    void clear();
    void add(const Utils::RxTableModel::Row& row);

    // Bearings the user left out, by key; kept across rebuilds.
    void setUse(const QString& key, bool use);

    const std::map<QString, Platform>& platforms() const { return platforms_; }
    // The receiver's positions, oldest first, repeated positions once.
    const std::vector<GeoPoint>& track() const { return track_; }

    // The lines of bearing of a platform, from the points where the receiver knew its position.
    static std::vector<BearingLine> lines(const Platform& platform);
    Fix fix(const QString& platformId) const;
    std::map<QString, Fix> fixes() const;
    // Every platform's lines: all a fix needs, small enough to hand to another thread.
    using AllLines = std::vector<std::pair<QString, std::vector<BearingLine>>>;
    AllLines allLines() const;
    static std::map<QString, Fix> solve(const AllLines& lines);
    AntennaCheck antennaCheck(int currentOffset) const;

private:
    void sortAll();

    bool relative_ = false;
    std::map<QString, Platform> platforms_;
    std::vector<GeoPoint> track_;
    std::vector<std::pair<qint64, GeoPoint>> trackPoints_;
    QSet<QString> excluded_;
};

} // namespace OrviaGonioManager::Geo
