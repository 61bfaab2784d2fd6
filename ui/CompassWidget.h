#pragma once

#include "geo/Circular.h"

#include <QColor>
#include <QWidget>

#include <optional>
#include <vector>

namespace OrviaGonioManager::Ui {

// A compass rose: 0° at the top for north, angles clockwise. Each platform's latest bearings are
// needles that fade with age, its circular mean a bold needle with the circular spread as an arc;
// the bearing to steer to reach the selected platform is an arrow of its own. It scales with its
// size, and the legend, beside the rose or below it when there is no room, is never cut.
class CompassWidget : public QWidget
{
    Q_OBJECT

public:
    struct Series
    {
        QString name;
        QColor colour;
        std::vector<double> bearings; // true bearings, oldest first
        Geo::CircularStats stats;
    };

    explicit CompassWidget(QWidget* parent = nullptr);
    void setSeries(std::vector<Series> series, std::optional<double> heading);
    // The true bearing to go to, or none.
    void setSteer(std::optional<double> bearing);
    QSize sizeHint() const override { return {360, 360}; }
    // Where the legend goes for the current size and series: beside the rose or below it, in
    // columns; the rose takes the rest.
    struct Legend
    {
        QStringList texts;
        QRectF rect;
        int columns = 0;
        double columnWidth = 0;
        double lineHeight = 0;
    };
    Legend legend() const;
    QRectF legendRect() const;
    QStringList legendTexts() const;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    void drawRose(QPainter& p, const QPointF& centre, double radius, const QFont& big);
    void drawLegend(QPainter& p, const Legend& key);

    std::vector<Series> series_;
    std::optional<double> heading_;
    std::optional<double> steer_;
};

} // namespace OrviaGonioManager::Ui
