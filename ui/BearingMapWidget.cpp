#include "ui/BearingMapWidget.h"

#include "geo/TileMath.h"
#include "store/TileSource.h"
#include "ui/TileLayer.h"

#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QWheelEvent>

#include <cmath>

namespace OrviaGonioManager::Ui {

using Geo::GeoPoint;
namespace TileMath = Geo::TileMath;

namespace {

constexpr double kWorld = TileMath::kTileSize; // zoom-0 world pixels round the world
constexpr double kMinZoom = 0.0;
constexpr double kMaxZoom = 20.0;
constexpr double kZoomPerNotch = 0.5;

// A longitude continuous across the antimeridian for a world x that may run past either edge.
double longitudeAt(double worldX)
{
    const double turns = std::floor(worldX / kWorld);
    return TileMath::fromWorldPixel({worldX - turns * kWorld, 0.0}, 0).longitude + 360.0 * turns;
}

QString degreesText(double value, double step, char positive, char negative)
{
    const int decimals = std::clamp(int(std::ceil(-std::log10(step) - 1e-9)), 0, 6);
    return QStringLiteral("%1° %2")
        .arg(std::abs(value), 0, 'f', decimals)
        .arg(QLatin1Char(value < 0 ? negative : positive));
}

} // namespace

BearingMapWidget::BearingMapWidget(QWidget* parent) : QWidget(parent), tiles_(new TileLayer(this))
{
    setMinimumSize(240, 200);
    setObjectName(QStringLiteral("mapBearings"));
    setCursor(Qt::OpenHandCursor);
    setMouseTracking(true);
    connect(tiles_, &TileLayer::changed, this, qOverload<>(&QWidget::update));
}

void BearingMapWidget::setTileSource(Store::TileSource* source)
{
    tiles_->setSource(source);
    if (source)
        connect(source, &Store::TileSource::attributionChanged, this, qOverload<>(&QWidget::update));
    update();
}

Store::TileSource* BearingMapWidget::tileSource() const
{
    return tiles_->source();
}

void BearingMapWidget::setScene(Scene scene)
{
    scene_ = std::move(scene);
    project();
    if (!fitted_)
        fit();
    update();
}

void BearingMapWidget::setShownPlatforms(QSet<QString> platforms)
{
    shown_ = std::move(platforms);
    update();
}

QPointF BearingMapWidget::world(const GeoPoint& point) const
{
    QPointF w = TileMath::worldPixel(point, 0);
    w.setX(w.x() + kWorld * std::round((referenceX_ - w.x()) / kWorld));
    return w;
}

void BearingMapWidget::project()
{
    // The receiver's latest position is the reference: what is near it is drawn in one piece.
    const GeoPoint* reference = !scene_.track.empty()      ? &scene_.track.back()
                                : !scene_.fixes.empty()    ? &scene_.fixes.front().mark.at
                                : !scene_.payloads.empty() ? &scene_.payloads.front().at
                                                           : nullptr;
    if (reference)
        referenceX_ = TileMath::worldPixel(*reference, 0).x();
    projected_ = {};
    projected_.track.reserve(int(scene_.track.size()));
    for (const GeoPoint& g : scene_.track)
        projected_.track << world(g);
    for (const FixMark& f : scene_.fixes) {
        QPolygonF ring;
        for (const GeoPoint& g : f.ellipse)
            ring << world(g);
        projected_.ellipses.emplace_back(f.mark.platform, std::move(ring));
    }
    for (size_t i = 0; i < scene_.bearings.size(); ++i) {
        std::vector<QLineF> segments;
        for (const auto& line : scene_.bearings[i].lines)
            for (size_t k = 1; k < line.size(); ++k)
                segments.emplace_back(world(line[k - 1]), world(line[k]));
        projected_.bearings.emplace_back(i, std::move(segments));
    }
}

QTransform BearingMapWidget::worldToScreen() const
{
    const double s = std::pow(2.0, zoom_);
    QTransform t;
    t.translate(width() / 2.0, height() / 2.0);
    t.scale(s, s);
    t.translate(-centre_.x(), -centre_.y());
    return t;
}

QPointF BearingMapWidget::toScreen(const GeoPoint& point) const
{
    return worldToScreen().map(world(point));
}

GeoPoint BearingMapWidget::toGeo(const QPointF& screen) const
{
    const QPointF w = worldToScreen().inverted().map(screen);
    return {TileMath::fromWorldPixel(w, 0).latitude, TileMath::fromWorldPixel(w, 0).longitude};
}

GeoPoint BearingMapWidget::centre() const
{
    return TileMath::fromWorldPixel(centre_, 0);
}

void BearingMapWidget::setView(const GeoPoint& centre, double zoom)
{
    centre_ = world(centre);
    zoom_ = std::clamp(zoom, kMinZoom, kMaxZoom);
    fitted_ = true;
    update();
    emit viewChanged();
}

double BearingMapWidget::scale() const
{
    return TileMath::metresPerPixel(centre().latitude, zoom_);
}

std::array<double, 4> BearingMapWidget::visibleBox() const
{
    const QRectF w = worldToScreen().inverted().mapRect(QRectF(rect()));
    const double west = longitudeAt(w.left()), east = longitudeAt(w.right());
    const GeoPoint nw = TileMath::fromWorldPixel({0, w.top()}, 0),
                   se = TileMath::fromWorldPixel({0, w.bottom()}, 0);
    if (east - west >= 360.0)
        return {se.latitude, -180.0, nw.latitude, 180.0};
    const auto wrap = [](double lon) { return lon - 360.0 * std::floor((lon + 180.0) / 360.0); };
    return {se.latitude, wrap(west), nw.latitude, wrap(east)};
}

void BearingMapWidget::fit()
{
    QRectF box;
    const auto grow = [&](const QPointF& p) {
        box = box.isNull() ? QRectF(p, QSizeF(1e-9, 1e-9)) : box.united(QRectF(p, QSizeF(1e-9, 1e-9)));
    };
    for (const QPointF& p : projected_.track)
        grow(p);
    for (const Mark& m : scene_.payloads)
        grow(world(m.at));
    for (const auto& [platform, ring] : projected_.ellipses)
        for (const QPointF& p : ring)
            grow(p);
    for (const auto& [index, segments] : projected_.bearings)
        for (const QLineF& s : segments) {
            grow(s.p1());
            grow(s.p2());
        }
    if (box.isNull()) {
        centre_ = {kWorld / 2, kWorld / 2};
        zoom_ = 2.0;
    } else {
        fitted_ = true;
        centre_ = box.center();
        const double fitX = std::max(1, width() - 40) / std::max(box.width(), 1e-9);
        const double fitY = std::max(1, height() - 40) / std::max(box.height(), 1e-9);
        zoom_ = std::clamp(std::log2(std::min(fitX, fitY)), kMinZoom, 17.0);
    }
    update();
    emit viewChanged();
}

void BearingMapWidget::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.fillRect(rect(), palette().base());
    const QTransform t = worldToScreen();
    tilesDrawn_ = tiles_->draw(p, t, zoom_, QRectF(rect()));
    if (tilesDrawn_ == 0)
        drawGrid(p);
    drawOverlay(p, t);
    drawScaleBar(p);
    drawAttribution(p);
}

void BearingMapWidget::drawOverlay(QPainter& p, const QTransform& t) const
{
    // The many bearing lines in one call per platform, without antialiasing.
    for (const auto& [index, segments] : projected_.bearings) {
        const Lines& l = scene_.bearings[index];
        if (!shown_.contains(l.platform))
            continue;
        p.setPen(QPen(l.colour, 0));
        std::vector<QLineF> screen;
        screen.reserve(segments.size());
        for (const QLineF& s : segments)
            screen.push_back(t.map(s));
        p.drawLines(screen.data(), int(screen.size()));
    }
    p.setRenderHint(QPainter::Antialiasing);
    p.setPen(QPen(palette().text().color(), 2));
    // A long track as the screen shows it: a point a pixel or more from the last one drawn.
    QPolygonF track;
    for (const QPointF& w : projected_.track) {
        const QPointF at = t.map(w);
        if (track.isEmpty() ||
            std::abs(at.x() - track.last().x()) + std::abs(at.y() - track.last().y()) >= 1.0)
            track << at;
    }
    p.drawPolyline(track);
    if (!projected_.track.isEmpty()) {
        p.setBrush(palette().text());
        p.drawEllipse(t.map(projected_.track.last()), 4, 4);
    }
    for (const Mark& m : scene_.payloads) {
        if (!shown_.contains(m.platform))
            continue;
        p.setPen(QPen(m.colour, 1.5));
        p.setBrush(Qt::NoBrush);
        const QPointF at = t.map(world(m.at));
        p.drawRect(QRectF(at.x() - 3, at.y() - 3, 6, 6));
    }
    for (size_t i = 0; i < scene_.fixes.size(); ++i) {
        const FixMark& f = scene_.fixes[i];
        if (!shown_.contains(f.mark.platform))
            continue;
        p.setPen(QPen(f.mark.colour, 2));
        QColor fill = f.mark.colour;
        fill.setAlphaF(0.2);
        p.setBrush(fill);
        p.drawPolygon(t.map(projected_.ellipses[i].second));
        const QPointF at = t.map(world(f.mark.at));
        p.drawLine(at + QPointF(-6, -6), at + QPointF(6, 6));
        p.drawLine(at + QPointF(-6, 6), at + QPointF(6, -6));
        // Readable on any tile: the name on a halo of the base colour.
        QPainterPath text;
        text.addText(at + QPointF(8, -8), font(), f.mark.name);
        p.setPen(QPen(palette().base().color(), 3));
        p.setBrush(Qt::NoBrush);
        p.drawPath(text);
        p.fillPath(text, palette().text());
    }
}

void BearingMapWidget::drawGrid(QPainter& p) const
{
    const QRectF w = worldToScreen().inverted().mapRect(QRectF(rect()));
    const double west = longitudeAt(w.left()), east = longitudeAt(w.right());
    const double north = TileMath::fromWorldPixel({0, w.top()}, 0).latitude;
    const double south = TileMath::fromWorldPixel({0, w.bottom()}, 0).latitude;
    // A round step that puts a line every 80 pixels or more.
    const auto stepFor = [](double span, double pixels) {
        const double target = span * 80.0 / std::max(1.0, pixels);
        double step = std::pow(10.0, std::floor(std::log10(target)));
        for (double f : {2.0, 5.0, 10.0})
            if (step < target)
                step = std::pow(10.0, std::floor(std::log10(target))) * f;
        return std::min(step, 30.0);
    };
    const double lonStep = stepFor(east - west, width());
    const double latStep = stepFor(std::max(1e-9, north - south), height());
    const QTransform t = worldToScreen();
    QColor line = palette().text().color();
    line.setAlphaF(0.25);
    p.setPen(QPen(line, 1));
    for (double lon = std::ceil(west / lonStep) * lonStep; lon <= east; lon += lonStep) {
        const double x = t.map(QPointF((lon + 180.0) / 360.0 * kWorld, 0)).x();
        p.drawLine(QPointF(x, 0), QPointF(x, height()));
        const double shown = lon - 360.0 * std::floor((lon + 180.0) / 360.0);
        p.setPen(palette().text().color());
        p.drawText(QPointF(x + 3, height() - 24), degreesText(shown, lonStep, 'E', 'W'));
        p.setPen(QPen(line, 1));
    }
    for (double lat = std::ceil(south / latStep) * latStep; lat <= north; lat += latStep) {
        const double y = t.map(TileMath::worldPixel({lat, 0}, 0)).y();
        p.drawLine(QPointF(0, y), QPointF(width(), y));
        p.setPen(palette().text().color());
        p.drawText(QPointF(4, y - 3), degreesText(lat, latStep, 'N', 'S'));
        p.setPen(QPen(line, 1));
    }
}

void BearingMapWidget::drawScaleBar(QPainter& p) const
{
    // A round length near a fifth of the width.
    const double metresPerPixel = scale();
    const double target = metresPerPixel * width() / 5;
    const double power = std::pow(10.0, std::floor(std::log10(target)));
    double length = power;
    for (double step : {2.0, 5.0, 10.0})
        if (power * step <= target)
            length = power * step;
    const double pixels = length / metresPerPixel;
    const QPointF left(12, height() - 16);
    p.setRenderHint(QPainter::Antialiasing, false);
    p.setPen(QPen(palette().text().color(), 2));
    p.drawLine(left, left + QPointF(pixels, 0));
    p.drawLine(left, left + QPointF(0, -5));
    p.drawLine(left + QPointF(pixels, 0), left + QPointF(pixels, -5));
    const QString text =
        length >= 1000 ? QStringLiteral("%1 km").arg(length / 1000) : QStringLiteral("%1 m").arg(length);
    p.drawText(left + QPointF(4, -6), text);
}

void BearingMapWidget::drawAttribution(QPainter& p) const
{
    const Store::TileSource* source = tiles_->source();
    const QString text = source ? source->attribution() : QString();
    if (text.isEmpty())
        return;
    const QFontMetrics m(font());
    const QRect box = m.boundingRect(text).adjusted(-4, -2, 4, 2);
    const QRect at(width() - box.width() - 2, height() - box.height() - 2, box.width(), box.height());
    QColor back = palette().base().color();
    back.setAlphaF(0.75);
    p.fillRect(at, back);
    p.setPen(palette().text().color());
    p.drawText(at, Qt::AlignCenter, text);
}

void BearingMapWidget::wheelEvent(QWheelEvent* event)
{
    // The point under the pointer stays put.
    const QPointF before = worldToScreen().inverted().map(event->position());
    zoom_ = std::clamp(zoom_ + kZoomPerNotch * event->angleDelta().y() / 120.0, kMinZoom, kMaxZoom);
    centre_ += before - worldToScreen().inverted().map(event->position());
    fitted_ = true;
    update();
    emit viewChanged();
}

void BearingMapWidget::mousePressEvent(QMouseEvent* event)
{
    dragFrom_ = event->pos();
}

void BearingMapWidget::mouseMoveEvent(QMouseEvent* event)
{
    emit cursorMoved(toGeo(event->position()));
    if (!(event->buttons() & Qt::LeftButton))
        return;
    const QPoint d = event->pos() - dragFrom_;
    dragFrom_ = event->pos();
    centre_ -= QPointF(d) / std::pow(2.0, zoom_);
    fitted_ = true;
    update();
    emit viewChanged();
}

} // namespace OrviaGonioManager::Ui
