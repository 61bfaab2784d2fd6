#include "utils/RxTableModel.h"

#include "mrl/utils/DateTime.h"
#include "utils/CoordinateText.h"
#include "utils/GpsFormat.h"
#include "utils/PlatformNumber.h"

#include <QDateTime>
#include <QMetaEnum>

#include <algorithm>
#include <iterator>
#include <numeric>

namespace OrviaGonioManager::Utils {

using Com::GnxLink;
using Com::OrviaRxMessage_t;

namespace {

QDateTime timeOf(const OrviaRxMessage_t& m)
{
    return MRL::Utils::DateTime::fromMjd(m.mjd, m.secondsOfDay).toQDateTime();
}

QString timeText(const OrviaRxMessage_t& m)
{
    return timeOf(m).toString(QStringLiteral("yyyy-MM-ddThh:mm:ss"));
}

template <typename Enum> QString enumText(int value, const char* prefix)
{
    const char* key = QMetaEnum::fromType<Enum>().valueToKey(value);
    if (!key)
        return QString::number(value);
    return QString::fromLatin1(key).remove(QLatin1String(prefix));
}

// The reports carry no level code: the numeric level is shown. The codes are kept for the day one does.
QString levelText(int levelCode, qint32 level)
{
    switch (levelCode) {
    case 1:
        return QStringLiteral("< -135");
    case 2:
        return QStringLiteral("> 0");
    case 3:
        return QStringLiteral("< -112");
    case 4:
        return QStringLiteral("< -115");
    default:
        return QStringLiteral("%1").arg(level);
    }
}

// A payload position is always plain degrees, six significant digits, whatever the coordinate type.
QString payloadCoordinate(double degrees)
{
    return QString::number(degrees, 'g', 6);
}

} // namespace

RxTableModel::RxTableModel(QObject* parent) : QAbstractTableModel(parent) {}

QStringList RxTableModel::headerTexts()
{
    return {QStringLiteral("Origin"),
            QStringLiteral("Index"),
            QStringLiteral("Label"),
            QStringLiteral("Time"),
            QStringLiteral("Id"),
            QStringLiteral("Frequency (Hz)"),
            QString::fromUtf8("Direction (°)"),
            QStringLiteral("Band"),
            QStringLiteral("Modulation"),
            QStringLiteral("Level (dBm)"),
            QStringLiteral("Period (s)"),
            QString::fromUtf8("Latitude GNX (°)"),
            QString::fromUtf8("Longitude GNX (°)"),
            QString::fromUtf8("Direction GNX (°)"),
            QString::fromUtf8("Latitude payload (°)"),
            QString::fromUtf8("Longitude payload (°)"),
            QStringLiteral("Payload")};
}

RxTableModel::Row RxTableModel::makeRow(const OrviaRxMessage_t& message, GnxLink::RxOrigin_t origin,
                                        const Favourite* favourite, GnxLink::GnxVersion_t version,
                                        int slotCount, const Favourite* sameNumber)
{
    Row r;
    r.message = message;
    r.flash = origin == GnxLink::RXORIGIN_FLASH;
    // A GNX134 favourite report also carries the platform's mean direction.
    r.withAverage =
        version == GnxLink::GNX_V1 && message.platformIndex >= 0 && message.platformIndex != slotCount;
    if (favourite) {
        r.index = favourite->index;
        r.label = favourite->label;
        if (!favourite->gpsFormat.isEmpty()) {
            // Restores the filler byte that 28-bit identifiers put in front of the data.
            QByteArray payload = message.payload;
            if (message.platformId.size() == 7)
                payload.prepend('\0');
            r.payloadPosition = GpsFormat::instance()->decodePosition(favourite->gpsFormat, payload,
                                                                      r.payloadLatitude, r.payloadLongitude);
        }
    }

    Row::ByNumber& n = r.byNumber;
    n.platform = PlatformNumber::shortest(message.platformId);
    if (!sameNumber)
        sameNumber = favourite;
    if (!sameNumber)
        return r;
    n.favourite = true;
    n.label = sameNumber->label;
    if (sameNumber->gpsFormat.isEmpty())
        return r;
    // Most messages read the same bytes with the same format as the table: decoded once.
    const bool sameBytes = message.platformId.size() != 7 || message.extraCode != 2;
    if (sameNumber == favourite && sameBytes) {
        n.payloadPosition = r.payloadPosition;
        n.payloadLatitude = r.payloadLatitude;
        n.payloadLongitude = r.payloadLongitude;
    } else {
        n.payloadPosition = GpsFormat::instance()->decodePosition(sameNumber->gpsFormat,
                                                                  PlatformNumber::positionPayload(message),
                                                                  n.payloadLatitude, n.payloadLongitude);
    }
    return r;
}

RxTableModel::Row RxTableModel::byNumber(const Row& row)
{
    Row r = row;
    r.label = row.byNumber.label;
    r.payloadPosition = row.byNumber.payloadPosition;
    r.payloadLatitude = row.byNumber.payloadLatitude;
    r.payloadLongitude = row.byNumber.payloadLongitude;
    return r;
}

void RxTableModel::setFavourites(QHash<QString, Favourite> favourites)
{
    favourites_ = std::move(favourites);
    byNumber_.clear();
    // Two entries with one number: the lower slot is the one the receiver matches first.
    for (auto it = favourites_.cbegin(); it != favourites_.cend(); ++it) {
        const QString number = PlatformNumber::shortest(it.key());
        const auto known = byNumber_.constFind(number);
        if (known == byNumber_.cend() || it->index.toInt() < known->index.toInt())
            byNumber_.insert(number, *it);
    }
}

QString RxTableModel::cellText(const Row& r, int column, GnxLink::CoordType_t coordType)
{
    const OrviaRxMessage_t& m = r.message;
    const bool gnxPositionValid = m.flagBit0;
    switch (column) {
    case COL_ORIGIN:
        return r.flash ? QStringLiteral("Flash") : QStringLiteral("Live");
    case COL_INDEX:
        return r.index;
    case COL_LABEL:
        return r.label;
    case COL_TIME:
        return timeText(m);
    case COL_ID:
        return m.platformId;
    case COL_FREQUENCY:
        return QStringLiteral("%1").arg(m.frequency);
    case COL_DIRECTION:
        return r.withAverage ? QStringLiteral("%1 (avg %2)").arg(m.direction).arg(m.v1FlashValue)
                             : QStringLiteral("%1").arg(m.direction);
    case COL_BAND: // a GNX134 message holds B1
        return enumText<GnxLink::OrviaBand_t>(m.band, "ORVIABAND_");
    case COL_LEVEL:
        return levelText(0, m.level);
    case COL_PERIOD:
        return QStringLiteral("%1").arg(m.period);
    case COL_GNX_LATITUDE:
        return gnxPositionValid ? CoordinateText::format(m.gnxLatitude, coordType)
                                : QStringLiteral("Invalid");
    case COL_GNX_LONGITUDE:
        return gnxPositionValid ? CoordinateText::format(m.gnxLongitude, coordType)
                                : QStringLiteral("Invalid");
    case COL_GNX_DIRECTION:
        return QStringLiteral("%1").arg(m.gnxDirection);
    case COL_PAYLOAD_LATITUDE:
        return r.payloadPosition ? payloadCoordinate(r.payloadLatitude) : QString();
    case COL_PAYLOAD_LONGITUDE:
        return r.payloadPosition ? payloadCoordinate(r.payloadLongitude) : QString();
    case COL_PAYLOAD:
        return QString::fromLatin1(m.payload.toHex().toUpper());
    default:
        return QString();
    }
}

RxTableModel::Row RxTableModel::rowFor(const OrviaRxMessage_t& message, GnxLink::RxOrigin_t origin,
                                       GnxLink::GnxVersion_t version, int slotCount) const
{
    const auto it = favourites_.constFind(message.platformId);
    const auto same = byNumber_.constFind(PlatformNumber::shortest(message.platformId));
    return makeRow(message, origin, it == favourites_.cend() ? nullptr : &*it, version, slotCount,
                   same == byNumber_.cend() ? nullptr : &*same);
}

void RxTableModel::addRows(std::vector<Row> rows)
{
    int shown = 0;
    for (const Row& r : rows)
        shown += passes(r) ? 1 : 0;
    if (shown > 0)
        beginInsertRows({}, 0, shown - 1);
    const size_t first = rows_.size();
    if (rows_.empty()) {
        rows_ = std::move(rows); // a first flash read: its batch becomes the table
    } else {
        // Grown geometrically: an exact reserve for each live row would move the whole table each time.
        const size_t needed = rows_.size() + rows.size();
        if (rows_.capacity() < needed)
            rows_.reserve(std::max(needed, 2 * rows_.capacity()));
        std::move(rows.begin(), rows.end(), std::back_inserter(rows_));
    }
    for (size_t i = first; i < rows_.size(); ++i)
        if (passes(rows_[i]))
            visible_.push_back(int(i));
    if (shown > 0)
        endInsertRows();
}

void RxTableModel::clear()
{
    beginResetModel();
    rows_.clear();
    rows_.shrink_to_fit();
    visible_.clear();
    visible_.shrink_to_fit();
    endResetModel();
}

// A layout change, not a reset: the selection of the rows that stay shown is kept.
void RxTableModel::setIdFilter(const QString& filter)
{
    if (filter == filter_)
        return;
    emit layoutAboutToBeChanged();
    const std::vector<int> storage = persistentStorage();
    filter_ = filter;
    rebuildVisible();
    movePersistent(storage);
    emit layoutChanged();
}

void RxTableModel::setCoordType(GnxLink::CoordType_t type)
{
    if (type == coordType_)
        return;
    coordType_ = type;
    if (!visible_.empty())
        emit dataChanged(index(0, COL_GNX_LATITUDE), index(rowCount() - 1, COL_GNX_LONGITUDE));
}

bool RxTableModel::passes(const Row& row) const
{
    return filter_.isEmpty() || row.message.platformId.contains(filter_, Qt::CaseSensitive);
}

void RxTableModel::rebuildVisible()
{
    visible_.clear();
    for (int i = 0; i < int(rows_.size()); ++i)
        if (passes(rows_[size_t(i)]))
            visible_.push_back(i);
}

int RxTableModel::storageIndex(int modelRow) const
{
    return visible_[visible_.size() - 1 - size_t(modelRow)];
}

int RxTableModel::modelRow(int storageIndex) const
{
    const auto it = std::lower_bound(visible_.begin(), visible_.end(), storageIndex);
    return it != visible_.end() && *it == storageIndex ? int(visible_.end() - it) - 1 : -1;
}

std::vector<int> RxTableModel::persistentStorage() const
{
    std::vector<int> storage;
    for (const QModelIndex& i : persistentIndexList())
        storage.push_back(storageIndex(i.row()));
    return storage;
}

// Indexes kept by views (the selection) follow their rows; those of rows now hidden go.
void RxTableModel::movePersistent(const std::vector<int>& storage)
{
    const QModelIndexList before = persistentIndexList();
    QModelIndexList after;
    for (int i = 0; i < before.size(); ++i) {
        const int row = modelRow(storage[size_t(i)]);
        after << (row < 0 ? QModelIndex() : index(row, before[i].column()));
    }
    changePersistentIndexList(before, after);
}

const RxTableModel::Row& RxTableModel::visibleRow(int modelRow) const
{
    return rows_[size_t(storageIndex(modelRow))];
}

QString RxTableModel::cellText(int row, int column) const
{
    return cellText(rowAt(row), column, coordType_);
}

bool RxTableModel::isHidden(int row) const
{
    return !passes(rowAt(row));
}

QStringList RxTableModel::exportLines(const std::function<bool(int modelRow)>& selected) const
{
    QStringList lines{headerTexts().join(QLatin1Char(','))};
    for (int row = 0; row < rowCount(); ++row)
        if (selected(row))
            lines << exportLine(visibleRow(row), coordType_);
    return lines;
}

QString RxTableModel::exportLine(const Row& row, Com::GnxLink::CoordType_t coordType)
{
    QStringList cells;
    for (int column = 0; column < COLUMN_COUNT; ++column)
        cells << cellText(row, column, coordType);
    return cells.join(QLatin1Char(','));
}

int RxTableModel::rowCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : int(visible_.size());
}

int RxTableModel::columnCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : COLUMN_COUNT;
}

QVariant RxTableModel::data(const QModelIndex& index, int role) const
{
    if (role != Qt::DisplayRole || !index.isValid() || index.row() >= rowCount())
        return {};
    return cellText(visibleRow(index.row()), index.column(), coordType_);
}

QVariant RxTableModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (role != Qt::DisplayRole)
        return {};
    // Rows are numbered in the whole table, as a table that hides rows numbers them.
    if (orientation == Qt::Vertical)
        return section >= 0 && section < rowCount() ? int(rows_.size()) - storageIndex(section) : section + 1;
    return headerTexts().value(section);
}

void RxTableModel::sort(int column, Qt::SortOrder order)
{
    if (column < 0 || column >= COLUMN_COUNT || rows_.size() < 2)
        return;
    emit layoutAboutToBeChanged({}, QAbstractItemModel::VerticalSortHint);
    std::vector<int> storage = persistentStorage();

    // Keys in display order, top first. Times compare as their texts do; whole seconds say the same
    // from 1970 to 9999, and cost no text.
    constexpr qint64 kYear10000Ms = 253402300800000LL;
    const size_t n = rows_.size();
    std::vector<qint64> times;
    std::vector<QString> texts;
    bool byTime = column == COL_TIME;
    if (byTime) {
        times.resize(n);
        for (size_t d = 0; d < n && byTime; ++d) {
            const OrviaRxMessage_t& m = rows_[n - 1 - d].message;
            const qint64 ms = MRL::Utils::DateTime::fromMjd(m.mjd, m.secondsOfDay).toMSecsSinceEpoch();
            byTime = ms >= 0 && ms < kYear10000Ms;
            times[d] = ms / 1000;
        }
    }
    if (!byTime) {
        texts.resize(n);
        for (size_t d = 0; d < n; ++d)
            texts[d] = cellText(rows_[n - 1 - d], column, coordType_);
    }
    std::vector<int> order_(n);
    std::iota(order_.begin(), order_.end(), 0);
    const auto less = [&](int a, int b) {
        return byTime ? times[size_t(a)] < times[size_t(b)] : texts[size_t(a)].compare(texts[size_t(b)]) < 0;
    };
    if (order == Qt::AscendingOrder)
        std::stable_sort(order_.begin(), order_.end(), less);
    else
        std::stable_sort(order_.begin(), order_.end(), [&](int a, int b) { return less(b, a); });

    // order_[d] is the display position, before the sort, of the row now at display position d:
    // the row now at storage index n-1-d comes from storage index n-1-order_[d]. Permuted in place,
    // cycle by cycle, so that no second copy of the table is made.
    std::vector<int> from(n);  // new storage index -> old storage index
    std::vector<int> moved(n); // old storage index -> new storage index
    for (size_t d = 0; d < n; ++d) {
        from[n - 1 - d] = int(n - 1 - size_t(order_[d]));
        moved[size_t(from[n - 1 - d])] = int(n - 1 - d);
    }
    for (size_t start = 0; start < n; ++start) {
        if (from[start] < 0 || size_t(from[start]) == start)
            continue;
        Row held = std::move(rows_[start]);
        size_t at = start;
        while (size_t(from[at]) != start) {
            const size_t next = size_t(from[at]);
            rows_[at] = std::move(rows_[next]);
            from[at] = -1;
            at = next;
        }
        rows_[at] = std::move(held);
        from[at] = -1;
    }
    rebuildVisible();
    for (int& index : storage)
        index = moved[size_t(index)];
    movePersistent(storage);
    emit layoutChanged({}, QAbstractItemModel::VerticalSortHint);
}

} // namespace OrviaGonioManager::Utils
