#pragma once

#include "geo/Geodesy.h"

#include <QColor>
#include <QPolygonF>
#include <QSet>
#include <QTransform>
#include <QWidget>

#include <vector>

namespace OrviaGonioManager::Store {
class TileSource;
}

namespace OrviaGonioManager::Ui {

class TileLayer;

// The map in Web Mercator, as tile servers and MBTiles files cut it: raster tiles when a source
// gives them, else a grid of latitudes and longitudes with labels; over them the track, bearing
// lines (geodesics), payload positions, fixes and their ellipses. Pans with a drag, zooms with the
// wheel around the pointer, fits everything on request, and tells where the pointer is.
class BearingMapWidget : public QWidget
{
    Q_OBJECT

public:
    struct Lines
    {
        QString platform;
        QColor colour;
        std::vector<std::vector<Geo::GeoPoint>> lines; // each a geodesic through a few points
    };
    struct Mark
    {
        QString platform;
        Geo::GeoPoint at;
        QColor colour;
        QString name;
    };
    struct FixMark
    {
        Mark mark;
        std::vector<Geo::GeoPoint> ellipse;
    };
    struct Scene
    {
        std::vector<Geo::GeoPoint> track;
        std::vector<Mark> payloads;
        std::vector<Lines> bearings;
        std::vector<FixMark> fixes;
    };

    explicit BearingMapWidget(QWidget* parent = nullptr);
    void setScene(Scene scene);
    // The platforms drawn, out of those in the scene.
    void setShownPlatforms(QSet<QString> platforms);
    const Scene& scene() const { return scene_; }
    QSize sizeHint() const override { return {520, 420}; }

    // Not owned; null: the grid alone.
    void setTileSource(Store::TileSource* source);
    Store::TileSource* tileSource() const;

    // The view: the point at the centre and the zoom of the tiles' pyramid (fractional).
    void setView(const Geo::GeoPoint& centre, double zoom);
    Geo::GeoPoint centre() const;
    double zoom() const { return zoom_; }
    // Metres per pixel east-west at the centre.
    double scale() const;
    // The visible box: south, west, north, east (west > east across the antimeridian).
    std::array<double, 4> visibleBox() const;
    QPointF toScreen(const Geo::GeoPoint& point) const;
    Geo::GeoPoint toGeo(const QPointF& screen) const;
    // How many tiles the last drawing showed; 0 means the grid was drawn instead.
    int tilesDrawn() const { return tilesDrawn_; }

public slots:
    void fit();

signals:
    void cursorMoved(Geo::GeoPoint at);
    void viewChanged();

protected:
    void paintEvent(QPaintEvent* event) override;
    void wheelEvent(QWheelEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;

private:
    struct Projected
    {
        QPolygonF track;
        std::vector<std::pair<QString, QPolygonF>> ellipses;
        std::vector<std::pair<size_t, std::vector<QLineF>>> bearings; // scene index, segments
    };
    // Zoom-0 world pixels, x within half a world of the scene's reference longitude, so that a
    // scene across the antimeridian stays in one piece.
    QPointF world(const Geo::GeoPoint& point) const;
    QTransform worldToScreen() const;
    void project();
    void drawGrid(QPainter& p) const;
    void drawOverlay(QPainter& p, const QTransform& t) const;
    void drawScaleBar(QPainter& p) const;
    void drawAttribution(QPainter& p) const;

    Scene scene_;
    Projected projected_;
    QSet<QString> shown_;
    double referenceX_ = 128.0;    // world x of the scene's reference longitude
    QPointF centre_{128.0, 128.0}; // zoom-0 world pixels
    double zoom_ = 2.0;
    QPoint dragFrom_;
    bool fitted_ = false;
    TileLayer* tiles_;
    int tilesDrawn_ = 0;
};

} // namespace OrviaGonioManager::Ui
