#pragma once

#include "geo/Circular.h"

#include <QColor>
#include <QWidget>

#include <optional>
#include <vector>

namespace OrviaGonioManager::Ui {

// A compass rose: 0° at the top for north, angles clockwise. Each platform's latest bearings are
// needles that fade with age, its circular mean a bold needle with the circular spread as an arc.
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
    QSize sizeHint() const override { return {360, 360}; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    std::vector<Series> series_;
    std::optional<double> heading_;
};

} // namespace OrviaGonioManager::Ui
