#pragma once

#include <QObject>
#include <QString>

class QMenu;
class QWidget;

namespace OrviaGonioManager::Store {
class TileSource;
}

namespace OrviaGonioManager::Ui {

class BearingMapWidget;

// Where the Bearings map takes its tiles: an MBTiles file, a tile server (off unless the user sets
// one) with its disk cache, or none (a grid). The choice is kept in the Bearings window's own
// preferences under these keys, so that an installation or a test can preset it.
class MapSource : public QObject
{
    Q_OBJECT

public:
    static constexpr const char* kMbTilesKey = "map/mbtiles";             // a file's path
    static constexpr const char* kTileUrlKey = "map/tileUrl";             // https://…/{z}/{x}/{y}.png
    static constexpr const char* kAttributionKey = "map/tileAttribution"; // the server's, shown on the map
    static constexpr const char* kCacheKey = "map/cache";                 // the server's tiles, a folder

    MapSource(BearingMapWidget* map, QWidget* dialogParent);

    // "Open MBTiles file...", "Tile server...", "Save this area for offline use...", "No tiles".
    QMenu* menu() const { return menu_; }
    Store::TileSource* source() const { return source_; }
    // From the preferences: what the user chose last time.
    void load();

signals:
    // A fault of the file or the server, or the outcome of a save, in words for the user.
    void message(QString text);

private:
    void openFile();
    void chooseServer();
    void saveArea();
    void noTiles();
    void apply();

    BearingMapWidget* map_;
    QWidget* dialogParent_;
    Store::TileSource* source_;
    QMenu* menu_;
};

} // namespace OrviaGonioManager::Ui
