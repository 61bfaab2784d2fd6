#pragma once

#include "geo/TileMath.h"
#include "store/TileSource.h"

#include <QCache>
#include <QImage>
#include <QObject>
#include <QPointer>
#include <QSet>

class QPainter;


namespace OrviaGonioManager::Ui {

// The raster tiles under the map: it draws what it has of the tiles a view covers, asks the
// source for the rest, and meanwhile draws a coarser tile it has, enlarged. Images are decoded
// once and kept up to a memory budget.
class TileLayer : public QObject
{
    Q_OBJECT

public:
    explicit TileLayer(QObject* parent = nullptr);

    // Not owned; null: no tiles.
    void setSource(Store::TileSource* source);
    Store::TileSource* source() const { return source_; }

    // worldToScreen maps zoom-0 world pixels (x may run past the antimeridian, to either side)
    // to the widget. Returns how many tiles, or parts of coarser ones, were drawn.
    int draw(QPainter& p, const QTransform& worldToScreen, double zoom, const QRectF& screen);
    // The whole zoom the view asks tiles at.
    static int tileZoom(double zoom);

signals:
    // A tile came: draw again.
    void changed();

private:
    void onReady(const Geo::TileId& id, const QByteArray& data);
    void onMissing(const Geo::TileId& id);
    void ask(const Geo::TileId& id);
    void forget();

    QPointer<Store::TileSource> source_;
    QCache<Geo::TileId, QImage> images_; // cost: kilobytes
    QSet<Geo::TileId> asked_;
    QSet<Geo::TileId> missing_;
};

} // namespace OrviaGonioManager::Ui
