#include "ui/BearingMapWidget.h"

#include <QMouseEvent>
#include <QPainter>
#include <QWheelEvent>

#include <cmath>

namespace OrviaGonioManager::Ui {

BearingMapWidget::BearingMapWidget(QWidget* parent) : QWidget(parent)
{
    setMinimumSize(240, 200);
    setObjectName(QStringLiteral("mapBearings"));
    setCursor(Qt::OpenHandCursor);
}

void BearingMapWidget::setScene(Scene scene)
{
    scene_ = std::move(scene);
    if (!fitted_)
        fit();
    update();
}

void BearingMapWidget::setShownPlatforms(QSet<QString> platforms)
{
    shown_ = std::move(platforms);
    update();
}

void BearingMapWidget::fit()
{
    QRectF box;
    const auto grow = [&](const QPointF& p) {
        box = box.isNull() ? QRectF(p, QSizeF(1, 1)) : box.united(QRectF(p, QSizeF(1, 1)));
    };
    for (const QPointF& p : scene_.track)
        grow(p);
    for (const Mark& m : scene_.payloads)
        grow(m.at);
    for (const FixMark& f : scene_.fixes)
        for (const QPointF& p : f.ellipse)
            grow(p);
    for (const Lines& l : scene_.bearings)
        for (const QLineF& line : l.lines) {
            grow(line.p1());
            grow(line.p2());
        }
    if (box.isNull()) {
        centre_ = {};
        metresPerPixel_ = 100;
    } else {
        fitted_ = true;
        centre_ = box.center();
        metresPerPixel_ = std::max(
            {box.width() / std::max(1, width() - 40), box.height() / std::max(1, height() - 40), 0.5});
    }
    update();
}

QTransform BearingMapWidget::transform() const
{
    // North up: y in metres grows upwards, on screen downwards.
    QTransform t;
    t.translate(width() / 2.0, height() / 2.0);
    t.scale(1 / metresPerPixel_, -1 / metresPerPixel_);
    t.translate(-centre_.x(), -centre_.y());
    return t;
}

QPointF BearingMapWidget::toScreen(const QPointF& metres) const
{
    return transform().map(metres);
}

QPointF BearingMapWidget::toMetres(const QPointF& screen) const
{
    return transform().inverted().map(screen);
}

void BearingMapWidget::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.fillRect(rect(), palette().base());
    const QTransform t = transform();

    // The many bearing lines in one call per platform, without antialiasing.
    for (const Lines& l : scene_.bearings) {
        if (!shown_.contains(l.platform))
            continue;
        p.setPen(QPen(l.colour.lighter(150), 0));
        std::vector<QLineF> screen;
        screen.reserve(l.lines.size());
        for (const QLineF& line : l.lines)
            screen.push_back(t.map(line));
        p.drawLines(screen.data(), int(screen.size()));
    }
    p.setRenderHint(QPainter::Antialiasing);
    p.setPen(QPen(palette().text().color(), 2));
    // A long track as the screen shows it: a point a pixel or more from the last one drawn.
    QPolygonF track;
    for (const QPointF& m : scene_.track) {
        const QPointF at = t.map(m);
        if (track.isEmpty() ||
            std::abs(at.x() - track.last().x()) + std::abs(at.y() - track.last().y()) >= 1.0)
            track << at;
    }
    p.drawPolyline(track);
    if (!scene_.track.isEmpty()) {
        p.setBrush(palette().text());
        p.drawEllipse(t.map(scene_.track.back()), 4, 4);
    }
    for (const Mark& m : scene_.payloads) {
        if (!shown_.contains(m.platform))
            continue;
        p.setPen(QPen(m.colour, 1));
        p.setBrush(Qt::NoBrush);
        const QPointF at = t.map(m.at);
        p.drawRect(QRectF(at.x() - 3, at.y() - 3, 6, 6));
    }
    for (const FixMark& f : scene_.fixes) {
        if (!shown_.contains(f.mark.platform))
            continue;
        p.setPen(QPen(f.mark.colour, 2));
        QColor fill = f.mark.colour;
        fill.setAlphaF(0.2);
        p.setBrush(fill);
        p.drawPolygon(t.map(f.ellipse));
        const QPointF at = t.map(f.mark.at);
        p.drawLine(at + QPointF(-6, -6), at + QPointF(6, 6));
        p.drawLine(at + QPointF(-6, 6), at + QPointF(6, -6));
        p.setPen(palette().text().color());
        p.drawText(at + QPointF(8, -8), f.mark.name);
    }
    drawScaleBar(p);
}

void BearingMapWidget::drawScaleBar(QPainter& p) const
{
    // A round length near a fifth of the width.
    const double target = metresPerPixel_ * width() / 5;
    const double power = std::pow(10.0, std::floor(std::log10(target)));
    double length = power;
    for (double step : {2.0, 5.0, 10.0})
        if (power * step <= target)
            length = power * step;
    const double pixels = length / metresPerPixel_;
    const QPointF left(12, height() - 16);
    p.setPen(QPen(palette().text().color(), 2));
    p.drawLine(left, left + QPointF(pixels, 0));
    p.drawLine(left, left + QPointF(0, -5));
    p.drawLine(left + QPointF(pixels, 0), left + QPointF(pixels, -5));
    const QString text =
        length >= 1000 ? QStringLiteral("%1 km").arg(length / 1000) : QStringLiteral("%1 m").arg(length);
    p.drawText(left + QPointF(4, -6), text);
}

void BearingMapWidget::wheelEvent(QWheelEvent* event)
{
    // The point under the pointer stays put.
    const QPointF before = toMetres(event->position());
    metresPerPixel_ *= std::pow(0.8, event->angleDelta().y() / 120.0);
    metresPerPixel_ = std::clamp(metresPerPixel_, 0.01, 1e6);
    centre_ += before - toMetres(event->position());
    fitted_ = true;
    update();
}

void BearingMapWidget::mousePressEvent(QMouseEvent* event)
{
    dragFrom_ = event->pos();
}

void BearingMapWidget::mouseMoveEvent(QMouseEvent* event)
{
    if (!(event->buttons() & Qt::LeftButton))
        return;
    const QPoint d = event->pos() - dragFrom_;
    dragFrom_ = event->pos();
    centre_ += QPointF(-d.x() * metresPerPixel_, d.y() * metresPerPixel_);
    fitted_ = true;
    update();
}

} // namespace OrviaGonioManager::Ui
