#include "ui/TileLayer.h"

#include "store/TileSource.h"

#include <QPainter>

#include <cmath>

namespace OrviaGonioManager::Ui {

using Geo::TileId;
namespace TileMath = Geo::TileMath;

namespace {

constexpr int kMemoryKb = 96 * 1024;   // decoded tiles: about 380 of 256 by 256
constexpr int kMaxTileZoom = 19;       // what tile servers serve
constexpr int kMaxEnlargedLevels = 10; // a coarser tile enlarged up to 1024 times

int wrap(int x, int z)
{
    const int n = 1 << z;
    return ((x % n) + n) % n;
}

} // namespace

TileLayer::TileLayer(QObject* parent) : QObject(parent)
{
    images_.setMaxCost(kMemoryKb);
}

void TileLayer::setSource(Store::TileSource* source)
{
    if (source_)
        disconnect(source_, nullptr, this, nullptr);
    source_ = source;
    forget();
    if (!source_)
        return;
    connect(source_, &Store::TileSource::tileReady, this, &TileLayer::onReady);
    connect(source_, &Store::TileSource::tileMissing, this, &TileLayer::onMissing);
}

void TileLayer::forget()
{
    images_.clear();
    asked_.clear();
    missing_.clear();
    emit changed();
}

int TileLayer::tileZoom(double zoom)
{
    return std::clamp(int(std::floor(zoom + 0.5)), 0, kMaxTileZoom);
}

void TileLayer::ask(const TileId& id)
{
    if (!source_ || asked_.contains(id) || missing_.contains(id) || images_.contains(id))
        return;
    asked_.insert(id);
    source_->request(id);
}

void TileLayer::onReady(const TileId& id, const QByteArray& data)
{
    asked_.remove(id);
    auto* image = new QImage(QImage::fromData(data));
    if (image->isNull()) {
        delete image;
        onMissing(id);
        return;
    }
    // Drawn often, converted once.
    *image = image->convertToFormat(QImage::Format_ARGB32_Premultiplied);
    images_.insert(id, image, std::max<qsizetype>(1, image->sizeInBytes() / 1024));
    emit changed();
}

void TileLayer::onMissing(const TileId& id)
{
    asked_.remove(id);
    missing_.insert(id);
    // A file made for a few zooms still shows its coarser tiles, enlarged.
    if (id.z > 0)
        ask({id.z - 1, id.x / 2, id.y / 2});
}

int TileLayer::draw(QPainter& p, const QTransform& worldToScreen, double zoom, const QRectF& screen)
{
    if (!source_)
        return 0;
    const int z = tileZoom(zoom);
    const int n = 1 << z;
    const double span = double(TileMath::kTileSize) / n; // a tile in zoom-0 world pixels
    const QRectF world = worldToScreen.inverted().mapRect(screen);
    const int x0 = int(std::floor(world.left() / span)), x1 = int(std::floor(world.right() / span));
    const int y0 = std::max(0, int(std::floor(world.top() / span)));
    const int y1 = std::min(n - 1, int(std::floor(world.bottom() / span)));
    p.save();
    p.setRenderHint(QPainter::SmoothPixmapTransform, std::abs(zoom - z) > 0.01);
    int drawn = 0;
    for (int y = y0; y <= y1; ++y)
        for (int x = x0; x <= x1; ++x) {
            const QRectF target = worldToScreen.mapRect(QRectF(x * span, y * span, span, span));
            const TileId id{z, wrap(x, z), y};
            if (const QImage* image = images_.object(id)) {
                p.drawImage(target, *image);
                ++drawn;
                continue;
            }
            ask(id);
            // Meanwhile, the part of the nearest coarser tile at hand.
            for (int k = 1; k <= std::min(z, kMaxEnlargedLevels); ++k) {
                const QImage* coarse = images_.object({z - k, id.x >> k, y >> k});
                if (!coarse)
                    continue;
                const double part = double(coarse->width()) / (1 << k);
                const QRectF from((id.x & ((1 << k) - 1)) * part, (y & ((1 << k) - 1)) * part, part, part);
                p.drawImage(target, *coarse, from);
                ++drawn;
                break;
            }
        }
    p.restore();
    return drawn;
}

} // namespace OrviaGonioManager::Ui
