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

void CompassWidget::setSteer(std::optional<double> bearing)
{
    steer_ = bearing;
    update();
}

QStringList CompassWidget::legendTexts() const
{
    QStringList out;
    for (const Series& s : series_)
        out << (s.stats.count > 0 ? QStringLiteral("%1  %2° ±%3°")
                                        .arg(s.name)
                                        .arg(s.stats.mean, 0, 'f', 0)
                                        .arg(std::min(180.0, s.stats.deviation), 0, 'f', 0)
                                  : s.name);
    if (steer_)
        out << QStringLiteral("Steer  %1°").arg(std::lround(*steer_) % 360);
    return out;
}

CompassWidget::Legend CompassWidget::legend() const
{
    Legend l;
    l.texts = legendTexts();
    if (l.texts.isEmpty())
        return l;
    const QFontMetricsF m(font());
    double widest = 0;
    for (const QString& t : l.texts)
        widest = std::max(widest, m.horizontalAdvance(t));
    l.lineHeight = m.height() + 2;
    l.columnWidth = std::min<double>(widest + 28, width());
    const int n = int(l.texts.size());
    // Beside the rose, in as many columns as its height needs, while the rose keeps most of the
    // width; otherwise below it, as many columns as fit across.
    const int perColumn = std::max(1, int((height() - 8) / l.lineHeight));
    l.columns = (n + perColumn - 1) / perColumn;
    if (l.columns * l.columnWidth <= width() * 0.45) {
        const int rows = std::min(n, perColumn);
        l.rect = QRectF(width() - l.columns * l.columnWidth, 0, l.columns * l.columnWidth,
                        rows * l.lineHeight + 8);
        return l;
    }
    l.columns = std::max(1, int(width() / l.columnWidth));
    const int rows = (n + l.columns - 1) / l.columns;
    const double h = std::min<double>(rows * l.lineHeight + 8, height());
    l.rect = QRectF(0, height() - h, width(), h);
    return l;
}

QRectF CompassWidget::legendRect() const
{
    return legend().rect;
}

void CompassWidget::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    p.fillRect(rect(), palette().base());
    const Legend key = legend();
    const QRectF roseArea = key.rect.isEmpty() ? QRectF(rect())
                            : key.rect.x() > 0 ? QRectF(0, 0, key.rect.x(), height())
                                               : QRectF(0, 0, width(), key.rect.y());
    QFont big = font();
    const double r0 = std::min(roseArea.width(), roseArea.height()) / 2;
    big.setPointSizeF(std::max(font().pointSizeF(), r0 / 14));
    const double margin = QFontMetricsF(big).height() + 6;
    const double r = r0 - margin;
    if (r > 10)
        drawRose(p, roseArea.center(), r, big);
    drawLegend(p, key);
}

void CompassWidget::drawRose(QPainter& p, const QPointF& c, double r, const QFont& big)
{
    p.setPen(QPen(palette().text().color(), 1));
    p.setBrush(Qt::NoBrush);
    p.drawEllipse(c, r, r);
    for (int deg = 0; deg < 360; deg += 10)
        p.drawLine(along(c, deg, r), along(c, deg, r - (deg % 90 == 0 ? 12 : deg % 30 == 0 ? 8 : 4)));
    p.setFont(big);
    const double h = QFontMetricsF(big).height();
    static const char* names[4] = {"N", "E", "S", "W"};
    for (int i = 0; i < 4; ++i) {
        const QPointF at = along(c, i * 90, r + h / 2 + 3);
        p.drawText(QRectF(at.x() - h, at.y() - h / 2, 2 * h, h), Qt::AlignCenter, QLatin1String(names[i]));
    }
    p.setFont(font());
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
    if (steer_) {
        // Where to go: a broad arrow in the highlight colour, unlike any platform's needle.
        const QColor colour = palette().highlight().color();
        p.setPen(QPen(colour, std::max(3.0, r / 40), Qt::DashLine, Qt::FlatCap));
        p.drawLine(c, along(c, *steer_, r * 0.8));
        p.setPen(Qt::NoPen);
        p.setBrush(colour);
        p.drawPolygon(QPolygonF{along(c, *steer_, r), along(c, *steer_ - 6, r * 0.78),
                                along(c, *steer_ + 6, r * 0.78)});
    }
}

void CompassWidget::drawLegend(QPainter& p, const Legend& key)
{
    const QFontMetricsF m(font());
    const int rows = key.columns > 0 ? (int(key.texts.size()) + key.columns - 1) / key.columns : 0;
    for (int i = 0; i < key.texts.size(); ++i) {
        const double x = key.rect.x() + (i / rows) * key.columnWidth;
        const double y = key.rect.y() + 4 + (i % rows) * key.lineHeight;
        const bool steer = i >= int(series_.size());
        const QColor swatch = steer ? palette().highlight().color() : series_[size_t(i)].colour;
        p.fillRect(QRectF(x + 4, y + key.lineHeight / 2 - 5, 12, 10), swatch);
        p.setPen(palette().text().color());
        const QRectF box(x + 22, y, key.columnWidth - 24, key.lineHeight);
        // Only a widget narrower than one line elides it.
        p.drawText(box, Qt::AlignLeft | Qt::AlignVCenter,
                   m.elidedText(key.texts[i], Qt::ElideMiddle, box.width()));
    }
}

} // namespace OrviaGonioManager::Ui
