// Main window, "RX" tab: received messages, live or read back from flash memory, in a table
// model that keeps the messages and makes cell texts only for what is shown or exported.
#include "ui/MainWindow.h"

#include "mrl/ui/Dialogs.h"
#include "mrl/utils/DateTime.h"
#include "mrl/utils/Exception.h"
#include "ui_MainWindow.h"
#include "utils/FlashMemory.h"
#include "utils/FlashRead.h"
#include "utils/JobProgress.h"
#include "utils/OutputFile.h"

#include <QDebug>
#include <QHeaderView>
#include <QStringConverter>
#include <QTableView>
#include <QTextStream>

#include <exception>
#include <map>
#include <optional>

namespace OrviaGonioManager::Ui {

using Com::GnxLink;
using Utils::RxTableModel;

namespace {

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

} // namespace

void MainWindow::setUpRxTable()
{
    rxModel_ = new RxTableModel(this);
    QTableView* view = ui_->tableViewRx;
    view->setModel(rxModel_);
    view->setSelectionBehavior(QAbstractItemView::SelectItems);
    // One height for every row: a million rows cost the header nothing.
    view->verticalHeader()->setSectionResizeMode(QHeaderView::Fixed);
    // Columns fit the rows in sight, not a sample of a table that may hold a million.
    view->horizontalHeader()->setResizeContentsPrecision(0);
    // Every time has the same length and must be read whole, however the row came; the modulation
    // is never reported, so its header is all the room it needs.
    view->horizontalHeader()->setSectionResizeMode(RxTableModel::COL_TIME, QHeaderView::ResizeToContents);
    view->horizontalHeader()->setSectionResizeMode(RxTableModel::COL_MODULATION,
                                                   QHeaderView::ResizeToContents);
    QAbstractItemModel* platforms = ui_->tableWidgetPlatforms->model();
    const auto changed = [this] { favouritesChanged_ = true; };
    connect(platforms, &QAbstractItemModel::rowsInserted, this, changed);
    connect(platforms, &QAbstractItemModel::rowsRemoved, this, changed);
    connect(platforms, &QAbstractItemModel::rowsMoved, this, changed);
    connect(platforms, &QAbstractItemModel::dataChanged, this, changed);
    connect(platforms, &QAbstractItemModel::layoutChanged, this, changed);
    connect(platforms, &QAbstractItemModel::modelReset, this, changed);
}

// The first platforms row of each identifier names its messages.
void MainWindow::refreshFavourites()
{
    if (!favouritesChanged_)
        return;
    favouritesChanged_ = false;
    QHash<QString, RxTableModel::Favourite> favourites;
    const QTableWidget* platforms = ui_->tableWidgetPlatforms;
    for (int row = 0; row < platforms->rowCount(); ++row) {
        const QString id = cellText(platforms, row, kPlatformIdColumn);
        if (!favourites.contains(id))
            favourites.insert(id, {cellText(platforms, row, kPlatformIndexColumn),
                                   cellText(platforms, row, kPlatformLabelColumn),
                                   cellText(platforms, row, kPlatformGpsFormatColumn)});
    }
    rxModel_->setFavourites(std::move(favourites));
}

void MainWindow::showRxCoordinates(GnxLink::CoordType_t type)
{
    rxModel_->setCoordType(type);
}

void MainWindow::slotSetLiveRxEnabled(bool enabled)
{
    guard([&] { gnxLink_->setLiveRxEnabled(enabled); });
}

void MainWindow::slotClearRxTable()
{
    guard([&] { rxModel_->clear(); });
}

void MainWindow::slotExportRxTable()
{
    guard([&] {
        const QString fileName = MRL::Ui::Dialogs::instance().getSaveFileName(
            this, QStringLiteral("Select RX file (CSV format)"),
            QStringLiteral("RX Files (*.csv *.txt);;All files (*)"));
        if (fileName.isEmpty())
            return;
        Utils::OutputFile file(fileName);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Text))
            throw MRL::Utils::Exception(QStringLiteral("Unable to open RX file %1").arg(fileName), 2);
        // With any cell selected, the rows whose first cell is.
        const QItemSelectionModel* selection = ui_->tableViewRx->selectionModel();
        const bool selectionOnly = selection->hasSelection();
        const QStringList lines = rxModel_->exportLines(
            [&](int row) { return !selectionOnly || selection->isSelected(rxModel_->index(row, 0)); });
        QTextStream out(file.device());
        out.setEncoding(QStringConverter::Latin1);
        for (const QString& line : lines)
            out << line << '\n';
        out.flush();
        if (out.status() != QTextStream::Ok || !file.commit())
            throw MRL::Utils::Exception(QStringLiteral("Unable to write RX file %1").arg(fileName), 2);
    });
}

void MainWindow::slotReadFlashMemory()
{
    guard([&] {
        // The decoded messages enter together, then the table is sorted by time, newest first:
        // also when the dump turns out to be truncated part-way.
        std::vector<RxTableModel::Row> batch;
        struct EnterAtEnd
        {
            MainWindow* w;
            std::vector<RxTableModel::Row>& batch;
            ~EnterAtEnd()
            {
                w->flashBatch_ = nullptr;
                QTableView* view = w->ui_->tableViewRx;
                view->setSortingEnabled(false);
                w->keepRows(batch);
                w->rxModel_->addRows(std::move(batch));
                view->horizontalHeader()->setSortIndicator(RxTableModel::COL_TIME, Qt::DescendingOrder);
                view->setSortingEnabled(true);
                view->resizeColumnsToContents();
            }
        };

        std::map<int, QString> usedSlots;
        if (gnxLink_->version() == Com::GnxLink::GNX_V1) {
            if (ui_->tableWidgetPlatforms->rowCount() == 0)
                slotGetPlatformsInfo();
            usedSlots = usedPlatformSlots(ui_->tableWidgetPlatforms, gnxLink_->maxPlatformsNumber());
        }
        flashBatch_ = &batch;
        EnterAtEnd enterAtEnd{this, batch};
        Utils::readWholeFlash(*gnxLink_, *job_, usedSlots);
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
        refreshFavourites();
        RxTableModel::Row row =
            rxModel_->rowFor(orviaRxMessage, rxOrigin, gnxLink_->version(), gnxLink_->maxPlatformsNumber());
        if (flashBatch_ && rxOrigin == GnxLink::RXORIGIN_FLASH) {
            flashBatch_->push_back(std::move(row));
        } else {
            ui_->tableViewRx->setSortingEnabled(false);
            std::vector<RxTableModel::Row> one;
            one.push_back(std::move(row));
            keepRows(one);
            rxModel_->addRows(std::move(one));
        }

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

void MainWindow::slotFilterRxTable()
{
    guard([&] { rxModel_->setIdFilter(ui_->lineEditRxIdFilter->text()); });
}

void MainWindow::slotClearSelectionRxTable()
{
    guard([&] { ui_->tableViewRx->clearSelection(); });
}

} // namespace OrviaGonioManager::Ui
