// Main window, "Favorite platforms" tab: the receiver's favourite platforms and the GPS formats.
#include "ui/MainWindow.h"

#include "com/PlatformCodec.h"
#include "com/PlatformsFile.h"
#include "mrl/ui/Dialogs.h"
#include "mrl/utils/Exception.h"
#include "ui/FavoritesTab.h"
#include "ui_MainWindow.h"
#include "utils/GpsFormat.h"
#include "utils/JobProgress.h"
#include "utils/OutputFile.h"

#include <QFile>
#include <QSignalBlocker>
#include <QTextStream>

namespace OrviaGonioManager::Ui {

using Com::GnxLink;
using Utils::GpsFormat;
using Utils::GpsFormat_t;
using namespace FavoritesTab;

namespace {

const QString kPlatformsFileTitle = QStringLiteral("Select platforms file (CSV format)");
const QString kPlatformsFileFilter = QStringLiteral("Platforms Files (*.csv *.txt);;All files (*)");

enum PlatformColumn
{
    COLUMN_INDEX = 0,
    COLUMN_ID,
    COLUMN_LABEL,
    COLUMN_GPSFORMAT,
};

// The whole record of a slot rides on the row's index item, so that the editor, the exports and
// script saving need no device read.
enum PlatformRole
{
    ROLE_REPETITION = Qt::UserRole,
    ROLE_BAND,
    ROLE_MODULATION,
    ROLE_FREQUENCYMODE,
    ROLE_NARROWFREQUENCY,
    ROLE_MEANDIRECTION,
};

QString formatName(const GnxLink::PlatformInfo& platform)
{
    return platform.gpsFormat ? platform.gpsFormat->name : QString();
}

void setRow(QTableWidget* table, int row, const GnxLink::PlatformInfo& p)
{
    auto* index = new QTableWidgetItem;
    index->setData(Qt::DisplayRole, p.index); // numeric, so that sorting follows the slots
    index->setData(ROLE_REPETITION, p.repetitionPeriod);
    index->setData(ROLE_BAND, p.band);
    index->setData(ROLE_MODULATION, p.modulation);
    index->setData(ROLE_FREQUENCYMODE, p.frequencyMode);
    index->setData(ROLE_NARROWFREQUENCY, p.narrowFrequency);
    index->setData(ROLE_MEANDIRECTION, p.meanDirectionValues);
    table->setItem(row, COLUMN_INDEX, index);
    table->setItem(row, COLUMN_ID, new QTableWidgetItem(p.id));
    table->setItem(row, COLUMN_LABEL, new QTableWidgetItem(p.label));
    table->setItem(row, COLUMN_GPSFORMAT, new QTableWidgetItem(formatName(p)));
}

// The record of a row; the format is looked up by the name the row shows.
GnxLink::PlatformInfo rowPlatform(const QTableWidget* table, int row)
{
    GnxLink::PlatformInfo p;
    const QTableWidgetItem* index = table->item(row, COLUMN_INDEX);
    p.index = index->data(Qt::DisplayRole).toInt();
    p.id = table->item(row, COLUMN_ID)->text();
    p.label = table->item(row, COLUMN_LABEL)->text();
    p.repetitionPeriod = index->data(ROLE_REPETITION).toInt();
    p.band = index->data(ROLE_BAND).toInt();
    p.modulation = index->data(ROLE_MODULATION).toInt();
    p.frequencyMode = index->data(ROLE_FREQUENCYMODE).toInt();
    p.narrowFrequency = index->data(ROLE_NARROWFREQUENCY).toInt();
    p.meanDirectionValues = index->data(ROLE_MEANDIRECTION).toInt();
    p.gpsFormat = GpsFormat::instance()->getGpsFormat(table->item(row, COLUMN_GPSFORMAT)->text());
    return p;
}

int rowOfSlot(const QTableWidget* table, int slot)
{
    for (int row = 0; row < table->rowCount(); ++row)
        if (table->item(row, COLUMN_INDEX)->data(Qt::DisplayRole).toInt() == slot)
            return row;
    return -1;
}

void sortBySlot(QTableWidget* table)
{
    table->setSortingEnabled(true);
    table->sortByColumn(COLUMN_INDEX, Qt::AscendingOrder);
}

// Reads every slot before touching the table, so that a failed read leaves it as it was; a
// cancelled one shows the slots it read.
void loadPlatforms(GnxLink& link, QTableWidget* table, Utils::JobProgress& job, bool cancellable = true)
{
    QList<GnxLink::PlatformInfo> used;
    const int slotCount = link.maxPlatformsNumber();
    const Utils::JobScope scope(job, QStringLiteral("Platform load"), slotCount, QStringLiteral("slots"),
                                cancellable);
    for (int i = 0; i < slotCount; ++i) {
        GnxLink::PlatformInfo p = link.getPlatformInfo(i);
        if (!p.id.isEmpty())
            used << p;
        if (!job.advance(i + 1))
            break;
    }
    const QSignalBlocker blocker(table);
    table->setSortingEnabled(false);
    table->clearSelection();
    table->setRowCount(int(used.size()));
    for (int row = 0; row < used.size(); ++row)
        setRow(table, row, used[row]);
    sortBySlot(table);
    table->resizeColumnsToContents();
}

// The format column is the name the row shows, even for a format deleted since.
QString csvLine(const QTableWidget* table, int row, GnxLink::GnxVersion_t version)
{
    return Com::PlatformCodec::csvFields(rowPlatform(table, row), table->item(row, COLUMN_GPSFORMAT)->text(),
                                         version)
        .join(QLatin1Char(','));
}

void showPlatform(::Ui::MainWindow* ui, const GnxLink::PlatformInfo& p, const QString& gpsFormatName)
{
    int entry = 0;
    if (!gpsFormatName.isEmpty()) {
        entry = formatEntry(ui->comboBoxPlatformsGpsFormats, gpsFormatName);
        if (entry < 0)
            throw inconsistency(gpsFormatName);
    }
    ui->lineEditPlatformsIndex->setText(QString::number(p.index));
    ui->lineEditPlatformsOrviaId->setText(p.id);
    ui->lineEditPlatformsLabel->setText(p.label);
    ui->comboBoxPlatformsGpsFormats->setCurrentIndex(entry);
    ui->comboBoxPlatformsOrviaBand->setCurrentIndex(p.band);
    ui->comboBoxPlatformsModulation->setCurrentIndex(p.modulation);
    ui->spinBoxPlatformsRepetitionPeriod->setValue(p.repetitionPeriod);
    ui->checkBoxPlatformNarrowEnabled->setChecked(p.frequencyMode == GnxLink::FREQUENCYMODE_NARROW);
    ui->doubleSpinBoxPlatformsNarrowFrequency->setValue(p.narrowFrequency / 1e6);
    ui->spinBoxPlatformsMeanDirectionValue->setValue(p.meanDirectionValues);
}

// The editor over the slot's current record; a wide platform keeps its stored narrow frequency,
// which the editor cannot show below its minimum.
GnxLink::PlatformInfo editedPlatform(const ::Ui::MainWindow* ui, GnxLink::PlatformInfo p)
{
    p.id = ui->lineEditPlatformsOrviaId->text().trimmed();
    p.label = ui->lineEditPlatformsLabel->text();
    p.gpsFormat = nullptr;
    if (ui->comboBoxPlatformsGpsFormats->currentIndex() > 0) {
        const QString name = ui->comboBoxPlatformsGpsFormats->currentText();
        p.gpsFormat = GpsFormat::instance()->getGpsFormat(name);
        if (!p.gpsFormat)
            throw inconsistency(name);
    }
    p.band = qMax(0, ui->comboBoxPlatformsOrviaBand->currentIndex());
    p.modulation = qMax(0, ui->comboBoxPlatformsModulation->currentIndex());
    p.repetitionPeriod = ui->spinBoxPlatformsRepetitionPeriod->value();
    const bool narrow = ui->checkBoxPlatformNarrowEnabled->isChecked();
    p.frequencyMode = narrow ? GnxLink::FREQUENCYMODE_NARROW : GnxLink::FREQUENCYMODE_WIDE;
    if (narrow)
        p.narrowFrequency = qint32(qRound64(ui->doubleSpinBoxPlatformsNarrowFrequency->value() * 1e6));
    p.meanDirectionValues = ui->spinBoxPlatformsMeanDirectionValue->value();
    return p;
}

} // namespace

void MainWindow::slotGetPlatformsInfo()
{
    guard([&] { loadPlatformsTable(); });
}

void MainWindow::loadPlatformsTable()
{
    // The connection's own load is not the user's to cut short: the RX tab looks messages up in it.
    loadPlatforms(*gnxLink_, ui_->tableWidgetPlatforms, *job_, !connecting_);
}

void MainWindow::clearPlatformsTable()
{
    {
        const QSignalBlocker blocker(ui_->tableWidgetPlatforms);
        ui_->tableWidgetPlatforms->setRowCount(0);
    }
    ui_->lineEditPlatformsIndex->clear();
    ui_->lineEditPlatformsOrviaId->clear();
    ui_->lineEditPlatformsLabel->clear();
}

void MainWindow::slotImportPlatformsInfo()
{
    guard([&] {
        if (!slotDeleteAllPlatforms())
            return;
        const QString fileName =
            MRL::Ui::Dialogs::instance().getOpenFileName(this, kPlatformsFileTitle, kPlatformsFileFilter);
        if (fileName.isEmpty())
            return;
        const QStringList lines = Com::PlatformsFile::readLines(fileName);
        QTableWidget* table = ui_->tableWidgetPlatforms;
        table->setSortingEnabled(false);
        try {
            const Utils::JobScope scope(*job_, QStringLiteral("Platform import"), lines.size(),
                                        QStringLiteral("platforms"));
            Com::PlatformsFile::importLines(*gnxLink_, lines, fileName,
                                            [this](int written) { return job_->advance(written); });
        } catch (...) {
            // What was written stays on the receiver: show it, if the receiver still answers.
            if (gnxLink_->isUsable())
                guard([&] { loadPlatforms(*gnxLink_, table, *job_); });
            sortBySlot(table);
            throw;
        }
        loadPlatforms(*gnxLink_, table, *job_);
    });
}

void MainWindow::slotExportPlatformsInfo()
{
    guard([&] {
        const QString fileName =
            MRL::Ui::Dialogs::instance().getSaveFileName(this, kPlatformsFileTitle, kPlatformsFileFilter);
        if (fileName.isEmpty())
            return;
        Utils::OutputFile file(fileName);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Text))
            throw MRL::Utils::Exception(QStringLiteral("Unable to open platforms file %1").arg(fileName), 2);
        const GnxLink::GnxVersion_t version = gnxLink_->version();
        QTableWidget* table = ui_->tableWidgetPlatforms;
        sortBySlot(table);
        QTextStream out(file.device());
        out << Com::PlatformsFile::header(version) << '\n';
        for (int row = 0; row < table->rowCount(); ++row)
            out << csvLine(table, row, version) << '\n';
        out.flush();
        if (!file.commit())
            throw MRL::Utils::Exception(QStringLiteral("Unable to write platforms file %1").arg(fileName), 2);
    });
}

bool MainWindow::slotDeleteAllPlatforms()
{
    bool done = false;
    guard([&] {
        if (!MRL::Ui::Dialogs::confirm(
                this, QStringLiteral("Delete all platforms?"),
                QStringLiteral("Are you sure you want to delete all favorite platform entries?")))
            return;
        // Every slot, not only the listed ones: the list may be older than the receiver.
        const int slotCount = gnxLink_->maxPlatformsNumber();
        for (int i = 0; i < slotCount; ++i)
            gnxLink_->deletePlatformInfo(i);
        clearPlatformsTable();
        done = true;
    });
    return done;
}

void MainWindow::slotDisplayPlatformsInfo()
{
    guard([&] {
        const int row = selectedRow(ui_->tableWidgetPlatforms);
        if (row < 0)
            return;
        showPlatform(ui_.get(), rowPlatform(ui_->tableWidgetPlatforms, row),
                     ui_->tableWidgetPlatforms->item(row, COLUMN_GPSFORMAT)->text());
    });
}

void MainWindow::slotSavePlatformsInfo()
{
    guard([&] {
        bool ok = false;
        const int index = ui_->lineEditPlatformsIndex->text().toInt(&ok);
        if (!ok || index < 0 || index >= gnxLink_->maxPlatformsNumber())
            throw MRL::Utils::Exception(QStringLiteral("Select a platform or create one first"), 2);
        QTableWidget* table = ui_->tableWidgetPlatforms;
        const int row = rowOfSlot(table, index);
        GnxLink::PlatformInfo stored;
        stored.index = index;
        if (row >= 0)
            stored = rowPlatform(table, row);
        const GnxLink::PlatformInfo edited = editedPlatform(ui_.get(), stored);

        // The receiver keys the slot's recorded messages by identifier: a new one re-creates it.
        const bool recreate = row >= 0 && edited.id.compare(stored.id, Qt::CaseInsensitive) != 0;
        if (recreate &&
            !MRL::Ui::Dialogs::confirm(
                this, QStringLiteral("Delete associated flash memory?"),
                QStringLiteral("This modification will need a delete and create operation on this platform."
                               "\n\nAll recorded message in flash memory associated to this platform will "
                               "be lost.\n\nAre you sure you want to continue?")))
            return;
        gnxLink_->setPlatformInfo(edited, recreate);
        if (gnxLink_->isRecording())
            return;

        // Show what the receiver kept.
        const GnxLink::PlatformInfo readBack = gnxLink_->getPlatformInfo(index);
        const QSignalBlocker blocker(table);
        table->setSortingEnabled(false);
        int target = rowOfSlot(table, index);
        if (readBack.id.isEmpty()) {
            if (target >= 0)
                table->removeRow(target);
            sortBySlot(table);
            return;
        }
        if (target < 0) {
            target = table->rowCount();
            table->insertRow(target);
        }
        setRow(table, target, readBack);
        sortBySlot(table);
        table->selectRow(rowOfSlot(table, index));
        showPlatform(ui_.get(), readBack, formatName(readBack));
    });
}

void MainWindow::slotCreatePlatformsInfo()
{
    guard([&] {
        QTableWidget* table = ui_->tableWidgetPlatforms;
        const int slotCount = gnxLink_->maxPlatformsNumber();
        int free = 0;
        while (free < slotCount && rowOfSlot(table, free) >= 0)
            ++free;
        if (free >= slotCount)
            throw MRL::Utils::Exception(
                QStringLiteral("Unable to create a platform, all %1 slots are used.").arg(slotCount), 2);
        {
            const QSignalBlocker blocker(table);
            table->clearSelection();
        }
        GnxLink::PlatformInfo fresh;
        fresh.index = free;
        fresh.frequencyMode = GnxLink::FREQUENCYMODE_WIDE;
        showPlatform(ui_.get(), fresh, QString());
        ui_->lineEditPlatformsOrviaId->setFocus();
    });
}

void MainWindow::slotDeletePlatformsInfo()
{
    guard([&] {
        QTableWidget* table = ui_->tableWidgetPlatforms;
        const int row = selectedRow(table);
        if (row < 0)
            return;
        if (!MRL::Ui::Dialogs::confirm(
                this, QStringLiteral("Delete platform?"),
                QStringLiteral("Are you sure you want to delete this favorite platform entry?")))
            return;
        gnxLink_->deletePlatformInfo(table->item(row, COLUMN_INDEX)->data(Qt::DisplayRole).toInt());
        const QSignalBlocker blocker(table);
        table->removeRow(row);
        table->clearSelection();
        ui_->lineEditPlatformsIndex->clear();
    });
}

} // namespace OrviaGonioManager::Ui
