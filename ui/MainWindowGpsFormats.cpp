// Main window, "Favorite platforms" tab, continued: the GPS formats list and editor, and the
// GPS formats file.
#include "ui/MainWindow.h"

#include "mrl/ui/Dialogs.h"
#include "mrl/utils/Exception.h"
#include "ui/FavoritesTab.h"
#include "ui_MainWindow.h"
#include "utils/GpsFormat.h"

#include <QLineEdit>
#include <QSignalBlocker>

#include <exception>

namespace OrviaGonioManager::Ui {

using Utils::GpsFormat;
using Utils::GpsFormat_t;
using namespace FavoritesTab;

namespace {

const QString kGpsFormatsFile = QStringLiteral("../Data/format.vtl");
const QString kNoGpsFormat = QStringLiteral("No GPS Format");

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

} // namespace

void MainWindow::clearGpsFormatsList()
{
    {
        const QSignalBlocker blocker(ui_->tableWidgetGpsFormats);
        ui_->tableWidgetGpsFormats->setRowCount(0);
    }
    clearGpsFormatEditor(ui_.get());
    ui_->comboBoxPlatformsGpsFormats->clear();
    ui_->comboBoxPlatformsGpsFormats->addItem(kNoGpsFormat);
}

void MainWindow::slotReloadGpsFormatsFile()
{
    guard([&] { reloadGpsFormatsFile(); });
}

// A missing or unreadable file still lets the platforms be listed; its error is shown after and
// stops nothing. The receiver's failures go to the caller.
void MainWindow::reloadGpsFormatsFile()
{
    clearGpsFormatsList();
    std::exception_ptr fileError;
    try {
        GpsFormat::instance()->readGpsFormatsFile(kGpsFormatsFile);
    } catch (const MRL::Utils::Exception&) {
        fileError = std::current_exception();
    }
    if (gnxLink_->isConnected())
        loadPlatformsTable();
    if (fileError)
        guard([&] { std::rethrow_exception(fileError); });
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
