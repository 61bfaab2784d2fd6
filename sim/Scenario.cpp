#include "sim/Scenario.h"

#include "sim/PositionFormat.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include <GeographicLib/Geodesic.hpp>

#include <algorithm>
#include <cmath>

namespace gnxsim {

namespace {

using GeographicLib::Geodesic;

bool readPoint(const QJsonValue& v, Scenario::Point* p)
{
    const QJsonArray a = v.toArray();
    if (a.size() != 2 || !a[0].isDouble() || !a[1].isDouble())
        return false;
    p->lat = a[0].toDouble();
    p->lon = a[1].toDouble();
    return std::abs(p->lat) <= 90 && std::abs(p->lon) <= 180;
}

double wrap360(double d)
{
    const double r = std::fmod(d, 360.0);
    return r < 0 ? r + 360.0 : r;
}

} // namespace

std::shared_ptr<const Scenario> Scenario::load(const QString& fileName, QString* error)
{
    QFile file(fileName);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read %1: %2").arg(fileName, file.errorString());
        return nullptr;
    }
    auto s = fromJson(file.readAll(), error);
    if (!s)
        *error = QStringLiteral("%1: %2").arg(fileName, *error);
    return s;
}

std::shared_ptr<const Scenario> Scenario::fromJson(const QByteArray& json, QString* error)
{
    QJsonParseError parse;
    const QJsonObject o = QJsonDocument::fromJson(json, &parse).object();
    if (parse.error != QJsonParseError::NoError) {
        *error = QStringLiteral("not JSON at byte %1: %2").arg(parse.offset).arg(parse.errorString());
        return nullptr;
    }
    auto s = std::make_shared<Scenario>();
    const auto fail = [&](const QString& text) {
        *error = text;
        return nullptr;
    };
    const QJsonObject receiver = o.value("receiver").toObject();
    for (const QJsonValue& v : receiver.value("path").toArray()) {
        Point p;
        if (!readPoint(v, &p))
            return fail(
                QStringLiteral("receiver.path[%1] is not [latitude, longitude]").arg(s->m_path.size()));
        s->m_path.push_back(p);
    }
    if (s->m_path.empty())
        return fail(QStringLiteral("receiver.path needs at least one point"));
    s->m_speed = receiver.value("speed").toDouble(10);
    if (s->m_speed <= 0)
        return fail(QStringLiteral("receiver.speed must be positive (m/s)"));
    s->m_fixedHeading = receiver.contains("heading");
    s->m_heading = wrap360(receiver.value("heading").toDouble());
    s->m_relative = receiver.value("directionRelative").toBool(false);
    s->m_bias = o.value("bias").toDouble(0);
    s->m_noise = o.value("noise").toDouble(0);
    if (s->m_noise < 0)
        return fail(QStringLiteral("noise must not be negative"));
    s->m_legStart.push_back(0);
    for (size_t i = 1; i < s->m_path.size(); ++i) {
        double d = 0;
        Geodesic::WGS84().Inverse(s->m_path[i - 1].lat, s->m_path[i - 1].lon, s->m_path[i].lat,
                                  s->m_path[i].lon, d);
        s->m_legStart.push_back(s->m_legStart.back() + d);
    }
    const QRegularExpression id(QStringLiteral("^([0-9A-F]{5}|[0-9A-F]{7})$"));
    for (const QJsonValue& v : o.value("platforms").toArray()) {
        const QJsonObject po = v.toObject();
        Platform p;
        const int n = int(s->m_platforms.size());
        p.id = po.value("id").toString().toUpper();
        if (!id.match(p.id).hasMatch())
            return fail(QStringLiteral("platforms[%1].id must be 5 or 7 hexadecimal characters").arg(n));
        p.label = po.value("label").toString(p.id);
        if (!readPoint(po.value("position"), &p.position))
            return fail(QStringLiteral("platforms[%1].position is not [latitude, longitude]").arg(n));
        p.format = po.value("format").toString();
        const auto& formats = PositionFormat::builtins();
        if (!p.format.isEmpty() && std::none_of(formats.begin(), formats.end(),
                                                [&](const PositionFormat& f) { return f.name == p.format; }))
            return fail(QStringLiteral("platforms[%1].format \"%2\" is not a built-in GPS format")
                            .arg(n)
                            .arg(p.format));
        p.period = po.value("period").toInt(60);
        if (p.period <= 0)
            return fail(QStringLiteral("platforms[%1].period must be positive (s)").arg(n));
        s->m_platforms.push_back(p);
    }
    if (s->m_platforms.empty() || s->m_platforms.size() > kMaxPlatforms)
        return fail(QStringLiteral("platforms needs 1 to %1 platforms").arg(kMaxPlatforms));
    return s;
}

double Scenario::duration() const
{
    return m_legStart.back() / m_speed;
}

Scenario::Pose Scenario::pose(double seconds) const
{
    const double length = m_legStart.back();
    double along = length > 0 ? std::fmod(std::max(0.0, seconds) * m_speed, 2 * length) : 0;
    const bool back = along > length;
    if (back)
        along = 2 * length - along;
    size_t leg = 0;
    while (leg + 2 < m_path.size() && m_legStart[leg + 1] < along)
        ++leg;
    Pose p;
    if (m_path.size() == 1) {
        p.position = m_path[0];
        p.heading = m_heading;
        return p;
    }
    const Point& a = m_path[leg];
    const Point& b = m_path[leg + 1];
    const Geodesic& g = Geodesic::WGS84();
    double s12 = 0, azi1 = 0, azi2 = 0;
    g.Inverse(a.lat, a.lon, b.lat, b.lon, s12, azi1, azi2);
    double azi = 0;
    g.Direct(a.lat, a.lon, azi1, along - m_legStart[leg], p.position.lat, p.position.lon, azi);
    p.heading = m_fixedHeading ? m_heading : wrap360(back ? azi + 180 : azi);
    return p;
}

Scenario::Observation Scenario::observe(double seconds, int platform, std::mt19937& rng) const
{
    Observation o;
    o.pose = pose(seconds);
    o.platform = platform;
    const Point& t = m_platforms[size_t(platform)].position;
    double s12 = 0, azi1 = 0, azi2 = 0;
    Geodesic::WGS84().Inverse(o.pose.position.lat, o.pose.position.lon, t.lat, t.lon, s12, azi1, azi2);
    o.trueBearing = wrap360(azi1);
    double d = o.trueBearing + m_bias;
    if (m_noise > 0)
        d += std::normal_distribution<double>(0.0, m_noise)(rng);
    o.direction = wrap360(m_relative ? d - o.pose.heading : d);
    return o;
}

} // namespace gnxsim
