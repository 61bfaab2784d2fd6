#include "ui/CompassWidget.h"

#include <QPainter>
#include <QPainterPath>

#include <cmath>

namespace OrviaGonioManager::Ui {

namespace {

constexpr double kPi = 3.14159265358979323846;

// A point at radius r along a bearing, with y growing downwards on screen.
QPointF along(const QPointF& centre, double bearing, double r)
{
    const double a = bearing * kPi / 180;
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
    const int legendWidth = series_.empty() ? 0 : std::min(width() / 3, 140);
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

    for (const Series& s : series_) {
        const size_t n = s.bearings.size();
        for (size_t i = 0; i < n; ++i) {
            QColor colour = s.colour;
            colour.setAlphaF(0.15 + 0.6 * double(i + 1) / double(n)); // the newest is the most opaque
            p.setPen(QPen(colour, 1.5));
            p.drawLine(c, along(c, s.bearings[i], r * 0.9));
        }
        if (s.stats.count == 0 || s.stats.resultant <= 0)
            continue;
        const double spread = std::min(180.0, s.stats.deviation);
        QColor arc = s.colour;
        arc.setAlphaF(0.25);
        QPainterPath wedge(c);
        // Qt's arcs start at three o'clock and turn counter-clockwise.
        wedge.arcTo(QRectF(c.x() - r * 0.95, c.y() - r * 0.95, r * 1.9, r * 1.9),
                    90 - (s.stats.mean + spread), 2 * spread);
        wedge.closeSubpath();
        p.fillPath(wedge, arc);
        p.setPen(QPen(s.colour, 4, Qt::SolidLine, Qt::RoundCap));
        p.drawLine(c, along(c, s.stats.mean, r * 0.95));
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
