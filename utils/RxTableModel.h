#pragma once

#include "com/GnxLink.h"

#include <QAbstractTableModel>
#include <QHash>
#include <QStringList>

#include <array>
#include <functional>
#include <vector>

namespace OrviaGonioManager::Utils {

// The RX table: every received message, newest first, live ones entering at the top. It keeps the
// messages and makes their cell texts only when a cell is shown or exported. The model's rows are
// those the ID filter lets through; the whole table, hidden rows included, is reached through
// allRowCount(), cellText() and isHidden().
class RxTableModel : public QAbstractTableModel
{
    Q_OBJECT

public:
    enum Column
    {
        COL_ORIGIN = 0,
        COL_INDEX,
        COL_LABEL,
        COL_TIME,
        COL_ID,
        COL_FREQUENCY,
        COL_DIRECTION,
        COL_BAND,
        COL_MODULATION, // left empty: not in the reports
        COL_LEVEL,
        COL_PERIOD,
        COL_GNX_LATITUDE,
        COL_GNX_LONGITUDE,
        COL_GNX_DIRECTION,
        COL_PAYLOAD_LATITUDE,
        COL_PAYLOAD_LONGITUDE,
        COL_PAYLOAD,
        COLUMN_COUNT
    };

    // A favourite platform as the platforms table shows it.
    struct Favourite
    {
        QString index;
        QString label;
        QString gpsFormat;
    };

    // What a row keeps of its message; Index, Label and the payload position are fixed when it enters.
    struct Row
    {
        Com::OrviaRxMessage_t message;
        QString index;
        QString label;
        double payloadLatitude = 0.0;
        double payloadLongitude = 0.0;
        bool payloadPosition = false;
        bool flash = false;
        bool withAverage = false; // GNX134 favourite: the direction shows the platform's mean

        // Beside the table (Bearings, gnxctl, stations) a platform is its number: the favourite
        // with the same number, and the payload position as PlatformNumber reads the bytes.
        struct ByNumber
        {
            QString platform; // shortest form
            QString label;
            bool favourite = false;
            double payloadLatitude = 0.0;
            double payloadLongitude = 0.0;
            bool payloadPosition = false;
        } byNumber;
    };

    explicit RxTableModel(QObject* parent = nullptr);

    static QStringList headerTexts();
    // The row a message makes, and its cell texts.
    // favourite has the message's identifier text; sameNumber its number (favourite when null).
    static Row makeRow(const Com::OrviaRxMessage_t& message, Com::GnxLink::RxOrigin_t origin,
                       const Favourite* favourite, Com::GnxLink::GnxVersion_t version, int slotCount,
                       const Favourite* sameNumber = nullptr);
    // The row with its label and payload position taken by number, as the tools beside the table
    // show it.
    static Row byNumber(const Row& row);
    static QString cellText(const Row& row, int column, Com::GnxLink::CoordType_t coordType);

    // The identifier -> favourite lookup for messages to come.
    void setFavourites(QHash<QString, Favourite> favourites);
    // Rows entered one by one (live) or together (flash), each as if put at the top in turn.
    void addRows(std::vector<Row> rows);
    Row rowFor(const Com::OrviaRxMessage_t& message, Com::GnxLink::RxOrigin_t origin,
               Com::GnxLink::GnxVersion_t version, int slotCount) const;
    void clear();
    void setIdFilter(const QString& filter);
    void setCoordType(Com::GnxLink::CoordType_t type);

    // The whole table in display order, hidden rows included.
    int allRowCount() const { return int(rows_.size()); }
    QString cellText(int row, int column) const;
    const Row& rowAt(int row) const { return rows_[rows_.size() - 1 - size_t(row)]; }
    bool isHidden(int row) const;
    // Header, then the rows shown (the model's rows), those selected only when selected() says so.
    QStringList exportLines(const std::function<bool(int modelRow)>& selected) const;
    // One row of the export.
    static QString exportLine(const Row& row, Com::GnxLink::CoordType_t coordType);
    Com::GnxLink::CoordType_t coordType() const { return coordType_; }

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;
    // Stable, as a table of text cells sorts: equal cells keep their order.
    void sort(int column, Qt::SortOrder order = Qt::AscendingOrder) override;

private:
    bool passes(const Row& row) const;
    int storageIndex(int modelRow) const;
    int modelRow(int storageIndex) const; // -1 when hidden
    std::vector<int> persistentStorage() const;
    void movePersistent(const std::vector<int>& storage);
    const Row& visibleRow(int modelRow) const;
    void rebuildVisible();

    // Oldest first: the top of the table is the back, so that a new row is a push_back.
    std::vector<Row> rows_;
    std::vector<int> visible_; // indexes into rows_, ascending
    QHash<QString, Favourite> favourites_;
    QHash<QString, Favourite> byNumber_; // by PlatformNumber::shortest
    QString filter_;
    Com::GnxLink::CoordType_t coordType_ = Com::GnxLink::COORDTYPE_DEG;
};

} // namespace OrviaGonioManager::Utils
