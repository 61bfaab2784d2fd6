// Main window, "Favorite platforms" tab: the receiver's favourite platforms and the GPS formats.
#include "ui/MainWindow.h"

#include "mrl/ui/Dialogs.h"
#include "mrl/utils/Exception.h"
#include "ui_MainWindow.h"
#include "utils/GpsFormat.h"

#include <QFile>
#include <QLineEdit>
#include <QSaveFile>
#include <QSignalBlocker>
#include <QTextStream>

#include <exception>

namespace OrviaGonioManager::Ui {

using Com::GnxLink;
using Utils::GpsFormat;
using Utils::GpsFormat_t;

namespace {

const QString kGpsFormatsFile = QStringLiteral("../Data/format.vtl");
const QString kNoGpsFormat = QStringLiteral("No GPS Format");
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

MRL::Utils::Exception inconsistency(const QString& name)
{
    return MRL::Utils::Exception(QStringLiteral("GPS Fomat inconsistency for format %1").arg(name), 2);
}

// Entries after "No GPS Format"; -1 when absent.
int formatEntry(const QComboBox* combo, const QString& name)
{
    for (int i = 1; i < combo->count(); ++i)
        if (combo->itemText(i) == name)
            return i;
    return -1;
}

QString formatName(const GnxLink::PlatformInfo& platform)
{
    return platform.gpsFormat ? platform.gpsFormat->name : QString();
}

int columnCount(GnxLink::GnxVersion_t version)
{
    return int(GnxLink::platformTitles().value(int(version)).size());
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

int selectedRow(const QTableWidget* table)
{
    const QModelIndexList rows = table->selectionModel()->selectedRows();
    return rows.isEmpty() ? -1 : rows.first().row();
}

void sortBySlot(QTableWidget* table)
{
    table->setSortingEnabled(true);
    table->sortByColumn(COLUMN_INDEX, Qt::AscendingOrder);
}

// Reads every slot before touching the table, so that a failed read leaves it as it was.
void loadPlatforms(GnxLink& link, QTableWidget* table)
{
    QList<GnxLink::PlatformInfo> used;
    const int slotCount = link.maxPlatformsNumber();
    for (int i = 0; i < slotCount; ++i) {
        GnxLink::PlatformInfo p = link.getPlatformInfo(i);
        if (!p.id.isEmpty())
            used << p;
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
    const GnxLink::PlatformInfo p = rowPlatform(table, row);
    QStringList fields{p.id, p.label, table->item(row, COLUMN_GPSFORMAT)->text(),
                       QString::number(p.repetitionPeriod)};
    if (version == GnxLink::GNX_V1)
        fields << QString::number(p.meanDirectionValues);
    else
        fields << QString::number(p.band) << QString::number(p.modulation) << QString::number(p.frequencyMode)
               << QString::number(quint32(p.narrowFrequency));
    return fields.join(QLatin1Char(','));
}

GnxLink::PlatformInfo csvPlatform(const QStringList& fields, GnxLink::GnxVersion_t version,
                                  const QString& fileName)
{
    GnxLink::PlatformInfo p;
    p.id = fields[0];
    p.label = fields[1];
    if (!fields[2].isEmpty()) {
        p.gpsFormat = GpsFormat::instance()->getGpsFormat(fields[2]);
        if (!p.gpsFormat)
            throw MRL::Utils::Exception(
                QStringLiteral("Unable to read platform %1 from file %2, unknown GPS Format name %3.")
                    .arg(p.id, fileName, fields[2]),
                2);
    }
    p.repetitionPeriod = fields[3].toInt();
    if (version == GnxLink::GNX_V1) {
        p.meanDirectionValues = fields[4].toInt();
    } else {
        p.band = fields[4].toInt();
        p.modulation = fields[5].toInt();
        p.frequencyMode = fields[6].toInt();
        p.narrowFrequency = qint32(fields[7].toUInt());
    }
    return p;
}

// Lenient like the device replies: what is not a number is 0.
qint32 number(const QLineEdit* edit)
{
    return edit->text().trimmed().toInt();
}

struct CoordinateEdits
{
    QLineEdit *signPos, *signLen, *pos, *len, *t, *u, *v, *w, *ty;

    QList<QLineEdit*> all() const { return {signPos, signLen, pos, len, t, u, v, w, ty}; }
    void show(const Utils::GpsCoordinate_t& c) const
    {
        const QList<qint32> values{c.signPos, c.signLen, c.pos, c.len, c.T, c.U, c.V, c.W, c.TY};
        const QList<QLineEdit*> edits = all();
        for (int i = 0; i < edits.size(); ++i)
            edits[i]->setText(QString::number(values[i]));
    }
    Utils::GpsCoordinate_t read() const
    {
        return {number(signPos), number(signLen), number(pos), number(len), number(t),
                number(u),       number(v),       number(w),   number(ty)};
    }
};

CoordinateEdits latitudeEdits(const ::Ui::MainWindow* ui)
{
    return {ui->lineEditGpsFormatsLatSignPos, ui->lineEditGpsFormatsLatSignLen, ui->lineEditGpsFormatsLatPos,
            ui->lineEditGpsFormatsLatLen,     ui->lineEditGpsFormatsLatT,       ui->lineEditGpsFormatsLatU,
            ui->lineEditGpsFormatsLatV,       ui->lineEditGpsFormatsLatW,       ui->lineEditGpsFormatsLatTY};
}

CoordinateEdits longitudeEdits(const ::Ui::MainWindow* ui)
{
    return {
        ui->lineEditGpsFormatsLongSignPos, ui->lineEditGpsFormatsLongSignLen, ui->lineEditGpsFormatsLongPos,
        ui->lineEditGpsFormatsLongLen,     ui->lineEditGpsFormatsLongT,       ui->lineEditGpsFormatsLongU,
        ui->lineEditGpsFormatsLongV,       ui->lineEditGpsFormatsLongW,       ui->lineEditGpsFormatsLongTY};
}

QList<QLineEdit*> gpsFormatEdits(const ::Ui::MainWindow* ui)
{
    QList<QLineEdit*> edits{ui->lineEditGpsFormatsName,
                            ui->lineEditGpsFormatsType,
                            ui->lineEditGpsFormatsManufacturer,
                            ui->lineEditGpsFormatsDescription,
                            ui->lineEditGpsFormatsPayloadLen,
                            ui->lineEditGpsFormatsIndexPos,
                            ui->lineEditGpsFormatsEncryptionPolynom,
                            ui->lineEditGpsFormatsEncryptionDataPos,
                            ui->lineEditGpsFormatsEncryptionDataLen,
                            ui->lineEditGpsFormatsEncryptionCrcPos,
                            ui->lineEditGpsFormatsEncryptionCrcLen};
    edits << latitudeEdits(ui).all() << longitudeEdits(ui).all();
    return edits;
}

void clearGpsFormatEditor(::Ui::MainWindow* ui)
{
    for (QLineEdit* edit : gpsFormatEdits(ui))
        edit->clear();
    ui->checkBoxGpsFormatsGpsCheck->setChecked(false);
    ui->comboBoxGpsFormatsEncryptionType->setCurrentIndex(0);
}

void showGpsFormat(::Ui::MainWindow* ui, const GpsFormat_t& f)
{
    ui->lineEditGpsFormatsName->setText(f.name);
    ui->lineEditGpsFormatsType->setText(f.type);
    ui->lineEditGpsFormatsManufacturer->setText(f.manufacturer);
    ui->lineEditGpsFormatsDescription->setText(f.description);
    ui->lineEditGpsFormatsPayloadLen->setText(QString::number(f.payloadLength));
    ui->checkBoxGpsFormatsGpsCheck->setChecked(f.gpsCheck);
    ui->lineEditGpsFormatsIndexPos->setText(QString::number(f.indexPos));
    latitudeEdits(ui).show(f.latitude);
    longitudeEdits(ui).show(f.longitude);
    ui->comboBoxGpsFormatsEncryptionType->setCurrentIndex(int(f.encryptionType));
    ui->lineEditGpsFormatsEncryptionPolynom->setText(QString::number(f.polynom, 16));
    ui->lineEditGpsFormatsEncryptionDataPos->setText(QString::number(f.dataPos));
    ui->lineEditGpsFormatsEncryptionDataLen->setText(QString::number(f.dataLen));
    ui->lineEditGpsFormatsEncryptionCrcPos->setText(QString::number(f.crcPos));
    ui->lineEditGpsFormatsEncryptionCrcLen->setText(QString::number(f.crcLen));
}

GpsFormat_t editedGpsFormat(const ::Ui::MainWindow* ui)
{
    GpsFormat_t f;
    f.name = ui->lineEditGpsFormatsName->text();
    f.type = ui->lineEditGpsFormatsType->text();
    f.manufacturer = ui->lineEditGpsFormatsManufacturer->text();
    f.description = ui->lineEditGpsFormatsDescription->text();
    f.payloadLength = number(ui->lineEditGpsFormatsPayloadLen);
    f.latitude = latitudeEdits(ui).read();
    f.longitude = longitudeEdits(ui).read();
    f.encryptionType =
        GpsFormat::EncryptionType_t(qMax(0, ui->comboBoxGpsFormatsEncryptionType->currentIndex()));
    f.polynom = quint16(ui->lineEditGpsFormatsEncryptionPolynom->text().trimmed().toUInt(nullptr, 16));
    f.crcPos = number(ui->lineEditGpsFormatsEncryptionCrcPos);
    f.crcLen = number(ui->lineEditGpsFormatsEncryptionCrcLen);
    f.dataPos = number(ui->lineEditGpsFormatsEncryptionDataPos);
    f.dataLen = number(ui->lineEditGpsFormatsEncryptionDataLen);
    f.indexPos = number(ui->lineEditGpsFormatsIndexPos);
    f.gpsCheck = ui->checkBoxGpsFormatsGpsCheck->isChecked();
    return f;
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
    guard([&] { loadPlatforms(*gnxLink_, ui_->tableWidgetPlatforms); });
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
        QFile file(fileName);
        if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
            throw MRL::Utils::Exception(QStringLiteral("Unable to open platforms file %1").arg(fileName), 2);

        QTableWidget* table = ui_->tableWidgetPlatforms;
        table->setSortingEnabled(false);
        const GnxLink::GnxVersion_t version = gnxLink_->version();
        const int columns = columnCount(version);
        int taken = 0;
        try {
            QTextStream in(&file);
            while (!in.atEnd()) {
                const QString line = in.readLine();
                if (line.trimmed().isEmpty() || line.startsWith(QLatin1Char('#')))
                    continue;
                if (taken >= gnxLink_->maxPlatformsNumber())
                    throw MRL::Utils::Exception(
                        QStringLiteral("Unable to read import whole platform file %1, too many platforms.")
                            .arg(fileName),
                        2);
                const QStringList fields = line.split(QLatin1Char(','));
                if (fields.size() != columns)
                    throw MRL::Utils::Exception(
                        QStringLiteral(
                            "Unable to read platforms file %1, wrong number of columns. Columns shoud be %2.")
                            .arg(fileName)
                            .arg(columns),
                        2);
                GnxLink::PlatformInfo p = csvPlatform(fields, version, fileName);
                p.index = taken;
                gnxLink_->setPlatformInfo(p, false);
                ++taken;
            }
        } catch (...) {
            // What was written stays on the receiver: show it.
            guard([&] { loadPlatforms(*gnxLink_, table); });
            sortBySlot(table);
            throw;
        }
        loadPlatforms(*gnxLink_, table);
    });
}

void MainWindow::slotExportPlatformsInfo()
{
    guard([&] {
        const QString fileName =
            MRL::Ui::Dialogs::instance().getSaveFileName(this, kPlatformsFileTitle, kPlatformsFileFilter);
        if (fileName.isEmpty())
            return;
        QSaveFile file(fileName);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Text))
            throw MRL::Utils::Exception(QStringLiteral("Unable to open platforms file %1").arg(fileName), 2);
        const GnxLink::GnxVersion_t version = gnxLink_->version();
        QTableWidget* table = ui_->tableWidgetPlatforms;
        sortBySlot(table);
        QTextStream out(&file);
        out << QStringLiteral("#,") << GnxLink::platformTitles().value(int(version)).join(QLatin1Char(','))
            << '\n';
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
        const QSignalBlocker blocker(ui_->tableWidgetPlatforms);
        ui_->tableWidgetPlatforms->setRowCount(0);
        ui_->lineEditPlatformsIndex->clear();
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

void MainWindow::slotReloadGpsFormatsFile()
{
    guard([&] {
        {
            const QSignalBlocker blocker(ui_->tableWidgetGpsFormats);
            ui_->tableWidgetGpsFormats->setRowCount(0);
        }
        clearGpsFormatEditor(ui_.get());
        ui_->comboBoxPlatformsGpsFormats->clear();
        ui_->comboBoxPlatformsGpsFormats->addItem(kNoGpsFormat);
        // A missing or unreadable file still lets the platforms be listed; its error comes after.
        std::exception_ptr fileError;
        try {
            GpsFormat::instance()->readGpsFormatsFile(kGpsFormatsFile);
        } catch (const MRL::Utils::Exception&) {
            fileError = std::current_exception();
        }
        if (gnxLink_->isConnected())
            loadPlatforms(*gnxLink_, ui_->tableWidgetPlatforms);
        if (fileError)
            std::rethrow_exception(fileError);
    });
}

void MainWindow::slotSaveGpsFormatsFile()
{
    guard([&] {
        GpsFormat::instance()->writeGpsFormatsFile(kGpsFormatsFile);
        slotReloadGpsFormatsFile();
    });
}

void MainWindow::slotAddGpsFormat(Utils::GpsFormat_t* gpsFormat)
{
    guard([&] {
        if (!gpsFormat)
            return;
        QTableWidget* table = ui_->tableWidgetGpsFormats;
        // A new format may replace one of the same name (the collection is keyed by name).
        int row = 0;
        while (row < table->rowCount() && table->item(row, 0)->text() != gpsFormat->name)
            ++row;
        if (row == table->rowCount())
            table->insertRow(row);
        table->setItem(row, 0, new QTableWidgetItem(gpsFormat->name));
        table->setItem(row, 1, new QTableWidgetItem(GpsFormat::originText(gpsFormat->origin)));
        table->resizeColumnsToContents();
        if (formatEntry(ui_->comboBoxPlatformsGpsFormats, gpsFormat->name) < 0)
            ui_->comboBoxPlatformsGpsFormats->addItem(gpsFormat->name);
    });
}

void MainWindow::slotDisplayGpsFormatsInfo()
{
    guard([&] {
        const int row = selectedRow(ui_->tableWidgetGpsFormats);
        if (row < 0)
            return;
        const GpsFormat_t* f =
            GpsFormat::instance()->getGpsFormat(ui_->tableWidgetGpsFormats->item(row, 0)->text());
        if (!f)
            throw MRL::Utils::Exception(QStringLiteral("Unable to find format"), 2);
        showGpsFormat(ui_.get(), *f);
    });
}

void MainWindow::slotSaveGpsFormats()
{
    guard([&] {
        QTableWidget* table = ui_->tableWidgetGpsFormats;
        const int row = selectedRow(table);
        if (row < 0)
            return;
        const GpsFormat_t edited = editedGpsFormat(ui_.get());
        if (edited.name.isEmpty())
            throw MRL::Utils::Exception(QStringLiteral("Empty format name"), 2);
        const QString oldName = table->item(row, 0)->text();
        if (!GpsFormat::instance()->saveGpsFormat(oldName, edited))
            return;
        table->item(row, 1)->setText(QStringLiteral("From GNX GUI"));
        table->item(row, 0)->setText(edited.name);
        table->resizeColumnsToContents();
        const int entry = formatEntry(ui_->comboBoxPlatformsGpsFormats, oldName);
        if (entry < 0)
            throw inconsistency(oldName);
        ui_->comboBoxPlatformsGpsFormats->setItemText(entry, edited.name);
    });
}

void MainWindow::slotDeleteGpsFormats()
{
    guard([&] {
        QTableWidget* table = ui_->tableWidgetGpsFormats;
        const int row = selectedRow(table);
        if (row < 0)
            return;
        if (!MRL::Ui::Dialogs::confirm(this, QStringLiteral("Delete GPS format?"),
                                       QStringLiteral("Are you sure you want to delete this GPS format?")))
            return;
        const QString name = table->item(row, 0)->text();
        GpsFormat::instance()->deleteGpsFormat(name);
        {
            const QSignalBlocker blocker(table);
            table->removeRow(row);
            table->clearSelection();
        }
        clearGpsFormatEditor(ui_.get());
        const int entry = formatEntry(ui_->comboBoxPlatformsGpsFormats, name);
        if (entry < 0)
            throw inconsistency(name);
        ui_->comboBoxPlatformsGpsFormats->removeItem(entry);
    });
}

void MainWindow::slotCreateGpsFormats()
{
    guard([&] {
        // Shown in the editor at once, ready to be filled in.
        QString created;
        const QMetaObject::Connection c = connect(GpsFormat::instance(), &GpsFormat::sigNewGpsFormat, this,
                                                  [&](GpsFormat_t* f) { created = f->name; });
        GpsFormat::instance()->newGpsFormat();
        disconnect(c);
        QTableWidget* table = ui_->tableWidgetGpsFormats;
        for (int row = 0; row < table->rowCount(); ++row)
            if (table->item(row, 0)->text() == created)
                table->selectRow(row);
    });
}

} // namespace OrviaGonioManager::Ui
