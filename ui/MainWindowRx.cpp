// Main window, "RX" tab: received messages, live or read back from flash memory.
#include "ui/MainWindow.h"

#include "mrl/ui/Dialogs.h"
#include "mrl/utils/DateTime.h"
#include "mrl/utils/Exception.h"
#include "ui_MainWindow.h"
#include "utils/CoordinateText.h"
#include "utils/FlashMemory.h"
#include "utils/JobProgress.h"

#include <QDebug>
#include <QMetaEnum>
#include <QSaveFile>
#include <QStringConverter>
#include <QTableWidget>
#include <QTextStream>

#include <map>
#include <optional>

namespace OrviaGonioManager::Ui {

namespace {

using Com::GnxLink;
using Com::OrviaRxMessage_t;

enum RxColumn
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
    RX_COLUMN_COUNT
};

// Platforms table columns, read by their text.
constexpr int kPlatformIndexColumn = 0;
constexpr int kPlatformIdColumn = 1;
constexpr int kPlatformLabelColumn = 2;
constexpr int kPlatformGpsFormatColumn = 3;

QString cellText(const QTableWidget* table, int row, int column)
{
    const QTableWidgetItem* item = table->item(row, column);
    return item ? item->text() : QString();
}

int rowWithId(const QTableWidget* platforms, const QString& id)
{
    for (int row = 0; row < platforms->rowCount(); ++row)
        if (cellText(platforms, row, kPlatformIdColumn) == id)
            return row;
    return -1;
}

template <typename Enum> QString enumText(int value, const char* prefix)
{
    const char* key = QMetaEnum::fromType<Enum>().valueToKey(value);
    if (!key)
        return QString::number(value);
    return QString::fromLatin1(key).remove(QLatin1String(prefix));
}

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

// Coordinate cells keep their degrees under this role, so that they can be redrawn.
constexpr int kDegreesRole = Qt::UserRole;

bool isCoordinateColumn(int column)
{
    return column == COL_GNX_LATITUDE || column == COL_GNX_LONGITUDE || column == COL_PAYLOAD_LATITUDE ||
           column == COL_PAYLOAD_LONGITUDE;
}

// The receiver's own position with five decimals, payload positions with six significant digits.
QString coordinateCell(int column, double degrees, GnxLink::CoordType_t type)
{
    const bool payload = column == COL_PAYLOAD_LATITUDE || column == COL_PAYLOAD_LONGITUDE;
    return Utils::CoordinateText::format(degrees, type, payload ? 'g' : 'f', payload ? 6 : 5);
}

struct RxRow
{
    QString cells[RX_COLUMN_COUNT];
    std::optional<double> degrees[RX_COLUMN_COUNT];

    void setCoordinate(int column, double value, GnxLink::CoordType_t type)
    {
        degrees[column] = value;
        cells[column] = coordinateCell(column, value, type);
    }
};

RxRow rxRowOf(const OrviaRxMessage_t& message, GnxLink::RxOrigin_t origin, const QTableWidget* platforms,
              GnxLink::GnxVersion_t version, int slotCount, GnxLink::CoordType_t coordType)
{
    RxRow r;
    r.cells[COL_ORIGIN] = origin == GnxLink::RXORIGIN_LIVE ? QStringLiteral("Live") : QStringLiteral("Flash");
    const int platformRow = rowWithId(platforms, message.platformId);
    if (platformRow >= 0) {
        r.cells[COL_INDEX] = cellText(platforms, platformRow, kPlatformIndexColumn);
        r.cells[COL_LABEL] = cellText(platforms, platformRow, kPlatformLabelColumn);
    }
    const QDateTime time = MRL::Utils::DateTime::fromMjd(message.mjd, message.secondsOfDay).toQDateTime();
    r.cells[COL_TIME] = time.toString(QStringLiteral("yyyy-MM-ddThh:mm:ss"));
    r.cells[COL_ID] = message.platformId;
    r.cells[COL_FREQUENCY] = QStringLiteral("%1").arg(message.frequency);

    // A GNX134 favourite report also carries the platform's mean direction.
    const bool favouriteV1 =
        version == GnxLink::GNX_V1 && message.platformIndex >= 0 && message.platformIndex != slotCount;
    r.cells[COL_DIRECTION] =
        favouriteV1 ? QStringLiteral("%1 (avg %2)").arg(message.direction).arg(message.v1FlashValue)
                    : QStringLiteral("%1").arg(message.direction);

    // A GNX134 message holds B1; no report carries the modulation.
    r.cells[COL_BAND] = enumText<GnxLink::OrviaBand_t>(message.band, "ORVIABAND_");
    r.cells[COL_LEVEL] = levelText(0, message.level); // no level code in the reports
    r.cells[COL_PERIOD] = QStringLiteral("%1").arg(message.period);
    const bool gnxPositionValid = message.flagBit0;
    if (gnxPositionValid) {
        r.setCoordinate(COL_GNX_LATITUDE, message.gnxLatitude, coordType);
        r.setCoordinate(COL_GNX_LONGITUDE, message.gnxLongitude, coordType);
    } else {
        r.cells[COL_GNX_LATITUDE] = r.cells[COL_GNX_LONGITUDE] = QStringLiteral("Invalid");
    }
    r.cells[COL_GNX_DIRECTION] = QStringLiteral("%1").arg(message.gnxDirection);

    const QString formatName =
        platformRow >= 0 ? cellText(platforms, platformRow, kPlatformGpsFormatColumn) : QString();
    if (!formatName.isEmpty()) {
        // Restores the filler byte that 28-bit identifiers put in front of the data.
        QByteArray payload = message.payload;
        if (message.platformId.size() == 7)
            payload.prepend('\0');
        double latitude = 0.0;
        double longitude = 0.0;
        if (Utils::GpsFormat::instance()->decodePosition(formatName, payload, latitude, longitude)) {
            r.setCoordinate(COL_PAYLOAD_LATITUDE, latitude, coordType);
            r.setCoordinate(COL_PAYLOAD_LONGITUDE, longitude, coordType);
        }
    }
    r.cells[COL_PAYLOAD] = QString::fromLatin1(message.payload.toHex().toUpper());
    return r;
}

void applyIdFilter(QTableWidget* table, int row, const QString& filter)
{
    table->setRowHidden(row, !cellText(table, row, COL_ID).contains(filter, Qt::CaseSensitive));
}

// Used favourite slots (index -> identifier) as the platforms table shows them.
std::map<int, QString> usedPlatformSlots(const QTableWidget* platforms, int slotCount)
{
    std::map<int, QString> used;
    for (int row = 0; row < platforms->rowCount(); ++row) {
        const QString id = cellText(platforms, row, kPlatformIdColumn);
        bool ok = false;
        const int index = cellText(platforms, row, kPlatformIndexColumn).toInt(&ok);
        if (!id.isEmpty() && ok && index >= 0 && index < slotCount)
            used.emplace(index, id);
    }
    return used;
}

QStringList exportLines(const QTableWidget* table)
{
    QStringList header;
    for (int column = 0; column < table->columnCount(); ++column) {
        const QTableWidgetItem* item = table->horizontalHeaderItem(column);
        header << (item ? item->text() : QString());
    }
    QStringList lines{header.join(',')};
    const bool selectionOnly = !table->selectedItems().isEmpty();
    for (int row = 0; row < table->rowCount(); ++row) {
        if (table->isRowHidden(row))
            continue;
        const QTableWidgetItem* first = table->item(row, 0);
        if (selectionOnly && !(first && first->isSelected()))
            continue;
        QStringList cells;
        for (int column = 0; column < table->columnCount(); ++column)
            cells << cellText(table, row, column);
        lines << cells.join(',');
    }
    return lines;
}

} // namespace

void MainWindow::slotSetLiveRxEnabled(bool enabled)
{
    guard([&] { gnxLink_->setLiveRxEnabled(enabled); });
}

void MainWindow::slotClearRxTable()
{
    guard([&] { ui_->tableWidgetRx->setRowCount(0); });
}

void MainWindow::slotExportRxTable()
{
    guard([&] {
        const QString fileName = MRL::Ui::Dialogs::instance().getSaveFileName(
            this, QStringLiteral("Select RX file (CSV format)"),
            QStringLiteral("RX Files (*.csv *.txt);;All files (*)"));
        if (fileName.isEmpty())
            return;
        QSaveFile file(fileName);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Text | QIODevice::Truncate))
            throw MRL::Utils::Exception(QStringLiteral("Unable to open RX file %1").arg(fileName), 2);
        QTextStream out(&file);
        out.setEncoding(QStringConverter::Latin1);
        for (const QString& line : exportLines(ui_->tableWidgetRx))
            out << line << '\n';
        out.flush();
        if (out.status() != QTextStream::Ok || !file.commit())
            throw MRL::Utils::Exception(QStringLiteral("Unable to write RX file %1").arg(fileName), 2);
    });
}

void MainWindow::slotReadFlashMemory()
{
    guard([&] {
        QTableWidget* table = ui_->tableWidgetRx;
        // Sorted by time even when a dump turns out to be truncated part-way.
        struct SortAtEnd
        {
            QTableWidget* table;
            ~SortAtEnd()
            {
                table->resizeColumnsToContents();
                table->setSortingEnabled(true);
                table->sortByColumn(COL_TIME, Qt::DescendingOrder);
            }
        };

        Utils::FlashMemory* flash = Utils::FlashMemory::instance();
        if (gnxLink_->version() == Com::GnxLink::GNX_V1) {
            if (ui_->tableWidgetPlatforms->rowCount() == 0)
                slotGetPlatformsInfo();
            const auto usedSlots =
                usedPlatformSlots(ui_->tableWidgetPlatforms, gnxLink_->maxPlatformsNumber());
            SortAtEnd sortAtEnd{table};
            const Utils::JobScope job(*job_, QStringLiteral("Flash read"), qint64(usedSlots.size()),
                                      QStringLiteral("platforms"));
            int done = 0;
            for (const auto& [index, id] : usedSlots) {
                flash->decodePlatformDump(quint32(index), id, gnxLink_->readPlatformFlashMemory(index));
                if (!job_->advance(++done))
                    break;
            }
        } else {
            // The job begins once CMD_IFP has told how much there is to read.
            std::optional<Utils::JobScope> job;
            const QMetaObject::Connection progress =
                connect(gnxLink_, &GnxLink::sigFlashProgress, this, [&](qint64 read, qint64 total) {
                    if (!job)
                        job.emplace(*job_, QStringLiteral("Flash read"), total, QStringLiteral("bytes"));
                    if (!job_->advance(read))
                        gnxLink_->cancelRead();
                });
            QByteArray dump;
            try {
                dump = gnxLink_->readFlashMemory();
            } catch (...) {
                disconnect(progress);
                throw;
            }
            disconnect(progress);
            qInfo().noquote() << "Display messages in RX Table (This operation could be long)...";
            SortAtEnd sortAtEnd{table};
            try {
                flash->decodeDump(dump);
            } catch (const MRL::Utils::Exception&) {
                // A cancelled read ends inside a record: the whole ones before it are shown.
                if (!job_->isCancelled())
                    throw;
            }
        }
    });
}

void MainWindow::slotEraseFlashMemory()
{
    guard([&] {
        if (!MRL::Ui::Dialogs::confirm(
                this, QStringLiteral("Delete RX messages in flash memory?"),
                QStringLiteral("Are you sure you want to delete RX messages in flash memory?")))
            return;
        if (gnxLink_->version() != Com::GnxLink::GNX_V1) {
            gnxLink_->deleteFlashMemory();
            return;
        }
        if (ui_->tableWidgetPlatforms->rowCount() == 0)
            slotGetPlatformsInfo();
        const auto usedSlots = usedPlatformSlots(ui_->tableWidgetPlatforms, gnxLink_->maxPlatformsNumber());
        const Utils::JobScope job(*job_, QStringLiteral("Flash erase"), qint64(usedSlots.size()),
                                  QStringLiteral("platforms"));
        int done = 0;
        for (const auto& entry : usedSlots) {
            gnxLink_->deletePlatformFlashMemory(entry.first);
            if (!job_->advance(++done))
                break;
        }
    });
}

void MainWindow::slotOrviaMessageReceived(Com::OrviaRxMessage_t orviaRxMessage,
                                          Com::GnxLink::RxOrigin_t rxOrigin)
{
    guard([&] {
        const RxRow r = rxRowOf(orviaRxMessage, rxOrigin, ui_->tableWidgetPlatforms, gnxLink_->version(),
                                gnxLink_->maxPlatformsNumber(), rxCoordType_);
        QTableWidget* table = ui_->tableWidgetRx;
        table->setSortingEnabled(false);
        table->insertRow(0);
        for (int column = 0; column < RX_COLUMN_COUNT; ++column) {
            auto* item = new QTableWidgetItem(r.cells[column]);
            if (r.degrees[column])
                item->setData(kDegreesRole, *r.degrees[column]);
            table->setItem(0, column, item);
        }
        applyIdFilter(table, 0, ui_->lineEditRxIdFilter->text());

        if (ui_->checkBoxRxLogToFile->isChecked()) {
            const QDateTime time =
                MRL::Utils::DateTime::fromMjd(orviaRxMessage.mjd, orviaRxMessage.secondsOfDay).toQDateTime();
            sessionLog_.writeLine(time.date().toString(Qt::ISODate) + ' ' +
                                  time.time().toString(QStringLiteral("HH:mm:ss")) + ' ' +
                                  (rxOrigin == Com::GnxLink::RXORIGIN_LIVE ? "Received" : "Flash") +
                                  QStringLiteral(" : ") + gnxLink_->toNprLine(orviaRxMessage));
        }
    });
}

// Redraws the coordinate cells when the software setup's coordinate type changes.
void MainWindow::showRxCoordinates(GnxLink::CoordType_t type)
{
    if (type == rxCoordType_)
        return;
    rxCoordType_ = type;
    QTableWidget* table = ui_->tableWidgetRx;
    for (int row = 0; row < table->rowCount(); ++row)
        for (int column = 0; column < RX_COLUMN_COUNT; ++column) {
            QTableWidgetItem* item = isCoordinateColumn(column) ? table->item(row, column) : nullptr;
            const QVariant degrees = item ? item->data(kDegreesRole) : QVariant();
            if (degrees.isValid())
                item->setText(coordinateCell(column, degrees.toDouble(), type));
        }
}

void MainWindow::slotFilterRxTable()
{
    guard([&] {
        const QString filter = ui_->lineEditRxIdFilter->text();
        for (int row = 0; row < ui_->tableWidgetRx->rowCount(); ++row)
            applyIdFilter(ui_->tableWidgetRx, row, filter);
    });
}

void MainWindow::slotClearSelectionRxTable()
{
    guard([&] { ui_->tableWidgetRx->clearSelection(); });
}

} // namespace OrviaGonioManager::Ui
