#include "ui/CompassWidget.h"

#include <QPainter>

#include <QtMath>

#include <cmath>
#include <vector>

namespace OrviaGonioManager::Ui {

namespace {

// A point at radius r along a bearing, with y growing downwards on screen.
QPointF along(const QPointF& centre, double bearing, double r)
{
    const double a = qDegreesToRadians(bearing);
    return centre + QPointF(r * std::sin(a), -r * std::cos(a));
}

} // namespace

CompassWidget::CompassWidget(QWidget* parent) : QWidget(parent)
{
    setMinimumSize(200, 200);
    setObjectName(QStringLiteral("compassBearings"));
}

void CompassWidget::setSeries(std::vector<Series> series, std::optional<double> heading)
{
    series_ = std::move(series);
    heading_ = heading;
    update();
}

void CompassWidget::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    p.fillRect(rect(), palette().base());
    const int legendWidth = series_.empty() ? 0 : std::min(width() / 2, 190);
    const QRectF roseArea(0, 0, width() - legendWidth, height());
    const double r = std::min(roseArea.width(), roseArea.height()) / 2 - 24;
    if (r <= 10)
        return;
    const QPointF c = roseArea.center();

    p.setPen(QPen(palette().text().color(), 1));
    p.drawEllipse(c, r, r);
    for (int deg = 0; deg < 360; deg += 10)
        p.drawLine(along(c, deg, r), along(c, deg, r - (deg % 90 == 0 ? 12 : deg % 30 == 0 ? 8 : 4)));
    static const char* names[4] = {"N", "E", "S", "W"};
    for (int i = 0; i < 4; ++i) {
        const QPointF at = along(c, i * 90, r + 12);
        p.drawText(QRectF(at.x() - 10, at.y() - 10, 20, 20), Qt::AlignCenter, QLatin1String(names[i]));
    }

    // Needles fade in steps: the newest is the most opaque. Many of them are drawn without
    // smoothing, where it would cost more than it shows.
    constexpr int kFadeSteps = 5;
    size_t needles = 0;
    for (const Series& s : series_)
        needles += s.bearings.size();
    p.setRenderHint(QPainter::Antialiasing, needles <= 200);
    for (const Series& s : series_) {
        const size_t n = s.bearings.size();
        std::vector<QLineF> steps[kFadeSteps];
        for (size_t i = 0; i < n; ++i)
            steps[std::min<size_t>(kFadeSteps - 1, i * kFadeSteps / n)].emplace_back(
                c, along(c, s.bearings[i], r * 0.9));
        for (int k = 0; k < kFadeSteps; ++k) {
            QColor colour = s.colour;
            colour.setAlphaF(0.15 + 0.6 * (k + 1) / kFadeSteps);
            p.setPen(QPen(colour, 1.5));
            p.drawLines(steps[k].data(), int(steps[k].size()));
        }
        p.setRenderHint(QPainter::Antialiasing);
        if (s.stats.count == 0 || s.stats.resultant <= 0)
            continue;
        // The spread as an arc along the rim, mean plus and minus one circular deviation. Qt's
        // arcs start at three o'clock, turn counter-clockwise and count sixteenths of a degree.
        const double spread = std::min(180.0, s.stats.deviation);
        QColor arc = s.colour;
        arc.setAlphaF(0.5);
        p.setPen(QPen(arc, 6, Qt::SolidLine, Qt::FlatCap));
        p.setBrush(Qt::NoBrush);
        const double ar = r - 5;
        p.drawArc(QRectF(c.x() - ar, c.y() - ar, 2 * ar, 2 * ar),
                  int(std::lround((90 - s.stats.mean - spread) * 16)), int(std::lround(2 * spread * 16)));
        p.setPen(QPen(s.colour, 4, Qt::SolidLine, Qt::RoundCap));
        p.drawLine(c, along(c, s.stats.mean, r * 0.95));
        p.setRenderHint(QPainter::Antialiasing, needles <= 200);
    }

    if (heading_) {
        // The receiver's heading: a triangle outside the rim.
        QPolygonF mark{along(c, *heading_, r + 2), along(c, *heading_ - 4, r + 16),
                       along(c, *heading_ + 4, r + 16)};
        p.setPen(Qt::NoPen);
        p.setBrush(palette().text());
        p.drawPolygon(mark);
    }

    int y = 8;
    for (const Series& s : series_) {
        p.fillRect(QRectF(width() - legendWidth + 4, y + 3, 12, 10), s.colour);
        p.setPen(palette().text().color());
        const QString text = s.stats.count > 0 ? QStringLiteral("%1  %2° ±%3°")
                                                     .arg(s.name)
                                                     .arg(s.stats.mean, 0, 'f', 0)
                                                     .arg(std::min(180.0, s.stats.deviation), 0, 'f', 0)
                                               : s.name;
        p.drawText(QRectF(width() - legendWidth + 20, y, legendWidth - 22, 16),
                   Qt::AlignLeft | Qt::AlignVCenter, text);
        y += 18;
    }
}

} // namespace OrviaGonioManager::Ui
