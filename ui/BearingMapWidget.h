#pragma once

#include <QColor>
#include <QLineF>
#include <QPolygonF>
#include <QSet>
#include <QWidget>

#include <vector>

namespace OrviaGonioManager::Ui {

// An offline map in metres east and north of the receiver: no tiles, no network. Pans with a
// drag, zooms with the wheel around the pointer, and fits everything on request.
class BearingMapWidget : public QWidget
{
    Q_OBJECT

public:
    struct Lines
    {
        QString platform;
        QColor colour;
        std::vector<QLineF> lines; // metres
    };
    struct Mark
    {
        QString platform;
        QPointF at; // metres
        QColor colour;
        QString name;
    };
    struct FixMark
    {
        Mark mark;
        QPolygonF ellipse; // metres
    };
    struct Scene
    {
        QPolygonF track;
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
    // Metres per pixel.
    double scale() const { return metresPerPixel_; }

public slots:
    void fit();

protected:
    void paintEvent(QPaintEvent* event) override;
    void wheelEvent(QWheelEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;

private:
    QPointF toScreen(const QPointF& metres) const;
    QPointF toMetres(const QPointF& screen) const;
    QTransform transform() const;
    void drawScaleBar(QPainter& p) const;

    Scene scene_;
    QSet<QString> shown_;
    QPointF centre_;              // metres at the widget's centre
    double metresPerPixel_ = 100; // zoom
    QPoint dragFrom_;
    bool fitted_ = false;
};

} // namespace OrviaGonioManager::Ui
