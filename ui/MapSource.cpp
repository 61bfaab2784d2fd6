#include "ui/MapSource.h"

#include "geo/TileMath.h"
#include "store/TileSource.h"
#include "ui/BearingMapWidget.h"
#include "ui/BearingsWindow.h"
#include "ui/SaveAreaDialog.h"
#include "ui/TileLayer.h"

#include <QDialog>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>

namespace OrviaGonioManager::Ui {

MapSource::MapSource(BearingMapWidget* map, QWidget* dialogParent)
    : QObject(map), map_(map), dialogParent_(dialogParent), source_(new Store::TileSource(this)),
      menu_(new QMenu(dialogParent))
{
    menu_->setObjectName(QStringLiteral("menuBearingsMap"));
    menu_->addAction(QStringLiteral("Open MBTiles file..."), this, &MapSource::openFile);
    menu_->addAction(QStringLiteral("Tile server..."), this, &MapSource::chooseServer);
    menu_->addAction(QStringLiteral("Save this area for offline use..."), this, &MapSource::saveArea);
    menu_->addSeparator();
    menu_->addAction(QStringLiteral("No tiles"), this, &MapSource::noTiles);
    connect(source_, &Store::TileSource::sourceError, this, &MapSource::message);
    map_->setTileSource(source_);
}

void MapSource::load()
{
    apply();
}

void MapSource::apply()
{
    QSettings s = BearingsWindow::preferences();
    source_->setMbTiles(s.value(QLatin1String(kMbTilesKey)).toString());
    source_->setServer(s.value(QLatin1String(kTileUrlKey)).toString(),
                       s.value(QLatin1String(kAttributionKey)).toString(),
                       s.value(QLatin1String(kCacheKey)).toString());
    map_->update();
}

void MapSource::openFile()
{
    QSettings s = BearingsWindow::preferences();
    const QString file = QFileDialog::getOpenFileName(
        dialogParent_, QStringLiteral("Open MBTiles file"), s.value(QLatin1String(kMbTilesKey)).toString(),
        QStringLiteral("MBTiles files (*.mbtiles);;All files (*)"));
    if (file.isEmpty())
        return;
    s.setValue(QLatin1String(kMbTilesKey), file);
    apply();
}

void MapSource::chooseServer()
{
    QSettings s = BearingsWindow::preferences();
    QDialog dialog(dialogParent_);
    dialog.setWindowTitle(QStringLiteral("Tile server"));
    auto* url = new QLineEdit(s.value(QLatin1String(kTileUrlKey)).toString(), &dialog);
    url->setObjectName(QStringLiteral("lineEditMapTileUrl"));
    url->setPlaceholderText(QStringLiteral("https://tile.example.org/{z}/{x}/{y}.png"));
    auto* attribution = new QLineEdit(s.value(QLatin1String(kAttributionKey)).toString(), &dialog);
    attribution->setObjectName(QStringLiteral("lineEditMapAttribution"));
    auto* note = new QLabel(
        QStringLiteral(
            "Tiles come from this server only when no MBTiles file has them, two at a time, and are "
            "kept in the cache for use without a network. Follow the server's usage policy: most "
            "public servers forbid bulk downloads. Leave the address empty to use no server."),
        &dialog);
    note->setWordWrap(true);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, &dialog);
    connect(buttons, &QDialogButtonBox::accepted, &dialog, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, &dialog, &QDialog::reject);
    auto* form = new QFormLayout(&dialog);
    form->addRow(QStringLiteral("Address"), url);
    form->addRow(QStringLiteral("Attribution"), attribution);
    form->addRow(note);
    form->addRow(buttons);
    dialog.resize(560, dialog.sizeHint().height());
    if (dialog.exec() != QDialog::Accepted)
        return;
    s.setValue(QLatin1String(kTileUrlKey), url->text().trimmed());
    s.setValue(QLatin1String(kAttributionKey), attribution->text().trimmed());
    apply();
}

void MapSource::saveArea()
{
    QSettings s = BearingsWindow::preferences();
    const QString url = s.value(QLatin1String(kTileUrlKey)).toString();
    if (url.isEmpty()) {
        emit message(
            QStringLiteral("Saving an area needs a tile server: choose one under Map, Tile server."));
        return;
    }
    const auto box = map_->visibleBox();
    Store::AreaSaver::Area area{box[0], box[1], box[2], box[3], 0, 0};
    const int z = TileLayer::tileZoom(map_->zoom());
    area.minZoom = z;
    area.maxZoom = std::min(z + 2, 19);
    SaveAreaDialog dialog(area, url, s.value(QLatin1String(kAttributionKey)).toString(), dialogParent_);
    const bool saved = dialog.exec() == QDialog::Accepted;
    if (!dialog.outcome().isEmpty())
        emit message(dialog.outcome());
    if (saved && !dialog.output().isEmpty()) {
        s.setValue(QLatin1String(kMbTilesKey), dialog.output());
        apply();
    }
}

void MapSource::noTiles()
{
    QSettings s = BearingsWindow::preferences();
    s.remove(QLatin1String(kMbTilesKey));
    s.remove(QLatin1String(kTileUrlKey));
    apply();
}

} // namespace OrviaGonioManager::Ui
