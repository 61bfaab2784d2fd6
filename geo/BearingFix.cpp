#include "geo/BearingFix.h"

#include "geo/Circular.h"

#include <GeographicLib/Geodesic.hpp>
#include <GeographicLib/Gnomonic.hpp>

#include <QtMath>
#include <algorithm>

#include <cmath>
#include <optional>

namespace OrviaGonioManager::Geo::BearingFix {

namespace {

constexpr double kSettled = 0.01;       // metres
constexpr double kMaxRange = 2000000.0; // metres: beyond this the bearings hardly cross
constexpr double kSamePoint = 1.0;      // metres
constexpr int kMaxIterations = 30;

struct Vec
{
    double x = 0, y = 0;
};

// A line in the projection: a unit normal and its offset, n.X = c.
struct PlaneLine
{
    Vec p; // the point the bearing was taken at
    Vec n;
    double c = 0;
    double w = 1;
};

struct Solution
{
    Vec x;
    double a = 0, b = 0, d = 0; // the normal matrix [a b; b d]
};

const GeographicLib::Gnomonic& gnomonic()
{
    static const GeographicLib::Gnomonic g(GeographicLib::Geodesic::WGS84());
    return g;
}

GeoPoint unproject(const GeoPoint& centre, const Vec& v)
{
    GeoPoint p;
    gnomonic().Reverse(centre.latitude, centre.longitude, v.x, v.y, p.latitude, p.longitude);
    return p;
}

// The geodesic from the point along its bearing, as a straight line of the projection. Its
// direction there follows from the projection's scales at the point: 1/rk^2 along the radius from
// the centre and 1/rk across it. The residual (measured bearing minus the bearing to the centre)
// comes with it, since the geodesic back to the centre leaves the point at azi + 180.
std::optional<PlaneLine> planeLine(const GeoPoint& centre, const BearingLine& l, double* residual)
{
    Vec p;
    double azi = 0, rk = 0;
    gnomonic().Forward(centre.latitude, centre.longitude, l.from.latitude, l.from.longitude, p.x, p.y, azi,
                       rk);
    const double r = std::sqrt(p.x * p.x + p.y * p.y);
    if (std::isnan(r) || rk <= 0)
        return std::nullopt;
    *residual = wrap180(l.bearing - azi - 180.0);
    if (r < kSamePoint) {
        *residual = 0; // the estimate sits on the point: its bearing cannot say where it points
        return std::nullopt;
    }
    const double radial = std::atan2(p.x, p.y); // from north, clockwise, in the plane
    const double alpha = qDegreesToRadians(l.bearing - azi);
    const double heading = radial + std::atan2(rk * std::sin(alpha), std::cos(alpha));
    PlaneLine pl;
    pl.p = p;
    pl.n = {-std::cos(heading), std::sin(heading)}; // normal to (sin, cos)
    pl.c = pl.n.x * p.x + pl.n.y * p.y;
    pl.w = 1.0 / (r * r);
    return pl;
}

std::optional<Solution> leastSquares(const std::vector<PlaneLine>& lines)
{
    Solution s;
    double bx = 0, by = 0, total = 0;
    for (const PlaneLine& l : lines) {
        s.a += l.w * l.n.x * l.n.x;
        s.b += l.w * l.n.x * l.n.y;
        s.d += l.w * l.n.y * l.n.y;
        bx += l.w * l.n.x * l.c;
        by += l.w * l.n.y * l.c;
        total += l.w;
    }
    const double det = s.a * s.d - s.b * s.b;
    if (total <= 0 || det <= 1e-12 * total * total)
        return std::nullopt;
    s.x = {(s.d * bx - s.b * by) / det, (s.a * by - s.b * bx) / det};
    return s;
}

GeoPoint centroid(const std::vector<BearingLine>& lines, const std::vector<size_t>& active)
{
    // Through unit vectors, so that the date line does not split the points.
    double x = 0, y = 0, z = 0;
    for (size_t i : active) {
        const double la = qDegreesToRadians(lines[i].from.latitude),
                     lo = qDegreesToRadians(lines[i].from.longitude);
        x += std::cos(la) * std::cos(lo);
        y += std::cos(la) * std::sin(lo);
        z += std::sin(la);
    }
    return {qRadiansToDegrees(std::atan2(z, std::hypot(x, y))), qRadiansToDegrees(std::atan2(y, x))};
}

// Enough different points, counted up to enough: within a metre is one point.
bool enoughPoints(const std::vector<BearingLine>& lines, const std::vector<size_t>& active, int* count)
{
    std::vector<GeoPoint> seen;
    for (size_t i : active) {
        const bool known = std::any_of(seen.begin(), seen.end(), [&](const GeoPoint& p) {
            return Geodesy::distance(p, lines[i].from) < kSamePoint;
        });
        if (!known)
            seen.push_back(lines[i].from);
        if (int(seen.size()) >= kMinPoints)
            break;
    }
    *count = int(seen.size());
    return *count >= kMinPoints;
}

// The widest angle between two of the lines, as lines: 0 to 90.
double spread(const std::vector<BearingLine>& lines, const std::vector<size_t>& active)
{
    double widest = 0;
    for (size_t i = 0; i < active.size(); ++i)
        for (size_t j = i + 1; j < active.size(); ++j) {
            const double d = std::fmod(std::abs(lines[active[i]].bearing - lines[active[j]].bearing), 180.0);
            widest = std::max(widest, std::min(d, 180.0 - d));
            if (widest >= kMinSpread)
                return widest;
        }
    return widest;
}

constexpr size_t kSeedLines = 64; // enough for a first estimate, whatever the count

struct Estimate
{
    GeoPoint centre;               // of the projection
    GeoPoint position;             // the solution
    Solution normal;               // in the projection
    std::vector<PlaneLine> plane;  // per active line that has one
    std::vector<int> lineOf;       // per active line: its plane line, or -1
    std::vector<double> residuals; // degrees, per active line, against the centre
    std::vector<double> distances; // metres, per active line that has a plane line

    double shift() const { return std::hypot(normal.x.x, normal.x.y); }
};

// Lines of the active bearings in the projection centred on centre, solved.
std::optional<Estimate> step(const std::vector<BearingLine>& lines, const std::vector<size_t>& active,
                             const GeoPoint& centre, bool weighted)
{
    Estimate e;
    e.centre = centre;
    e.plane.reserve(active.size());
    for (size_t i : active) {
        double residual = 0;
        auto pl = planeLine(centre, lines[i], &residual);
        e.residuals.push_back(residual);
        e.lineOf.push_back(pl ? int(e.plane.size()) : -1);
        if (!pl)
            continue;
        e.distances.push_back(1.0 / std::sqrt(pl->w));
        if (!weighted)
            pl->w = 1.0;
        e.plane.push_back(*pl);
    }
    const auto s = leastSquares(e.plane);
    if (!s)
        return std::nullopt;
    e.normal = *s;
    e.position = unproject(centre, s->x);
    return e;
}

// Weighted steps, each in the projection centred on the last estimate, until it settles. Without
// a seed, the first estimate comes from plain lines through a sample of the bearings.
std::optional<Estimate> iterate(const std::vector<BearingLine>& lines, const std::vector<size_t>& active,
                                const GeoPoint& start, bool seeded)
{
    GeoPoint centre = start;
    if (!seeded) {
        std::vector<size_t> sample;
        for (size_t k = 0; k < kSeedLines && k < active.size(); ++k)
            sample.push_back(active[k * active.size() / std::min(active.size(), kSeedLines)]);
        auto seed = step(lines, sample, start, false);
        if (!seed)
            seed = step(lines, active, start, false);
        if (!seed)
            return std::nullopt;
        centre = seed->position;
    }
    std::optional<Estimate> e;
    for (int it = 0; it < kMaxIterations; ++it) {
        e = step(lines, active, centre, true);
        if (!e || e->shift() < kSettled)
            break;
        centre = e->position;
    }
    return e;
}

// The same lines without those left out, solved again in the same projection: leaving out a few
// bearings moves the estimate far too little to need another.
std::optional<Estimate> without(const Estimate& e, const std::vector<bool>& keep)
{
    Estimate out;
    out.centre = e.centre;
    for (size_t k = 0; k < keep.size(); ++k) {
        if (!keep[k])
            continue;
        out.residuals.push_back(e.residuals[k]);
        const int line = e.lineOf[k];
        out.lineOf.push_back(line < 0 ? -1 : int(out.plane.size()));
        if (line >= 0) {
            out.plane.push_back(e.plane[size_t(line)]);
            out.distances.push_back(e.distances[size_t(line)]);
        }
    }
    const auto s = leastSquares(out.plane);
    if (!s)
        return std::nullopt;
    out.normal = *s;
    out.position = unproject(out.centre, s->x);
    // Residuals in the plane: the perpendicular miss over the distance.
    for (size_t k = 0; k < out.residuals.size(); ++k) {
        if (out.lineOf[k] < 0)
            continue;
        const PlaneLine& l = out.plane[size_t(out.lineOf[k])];
        const double d = l.n.x * s->x.x + l.n.y * s->x.y - l.c;
        const double dx = s->x.x - l.p.x, dy = s->x.y - l.p.y;
        const double r = std::max(kSamePoint, std::sqrt(dx * dx + dy * dy));
        out.residuals[k] = qRadiansToDegrees(std::asin(std::clamp(d / r, -1.0, 1.0)));
    }
    return out;
}

// The factor on one standard deviation that holds the confidence in two dimensions when the
// variance is estimated with dof degrees of freedom: sqrt(2 F(2, dof)), in closed form.
double ellipseScale(int dof)
{
    return std::sqrt(dof * (std::pow(1.0 - kConfidence, -2.0 / dof) - 1.0));
}

void setEllipse(Fix& f, const Estimate& e, double variance, int dof)
{
    const Solution& n = e.normal;
    const double det = n.a * n.d - n.b * n.b;
    // Covariance, metres squared: variance times the inverse of the normal matrix.
    const double cxx = variance * n.d / det, cyy = variance * n.a / det, cxy = -variance * n.b / det;
    const double mid = (cxx + cyy) / 2, half = std::hypot((cxx - cyy) / 2, cxy);
    const double major = std::sqrt(std::max(0.0, mid + half)), minor = std::sqrt(std::max(0.0, mid - half));
    const double k = ellipseScale(dof);
    f.semiMajor = k * major;
    f.semiMinor = k * minor;
    // x is east and y north: the angle from east turns into an azimuth.
    const double fromEast = qRadiansToDegrees(0.5 * std::atan2(2 * cxy, cxx - cyy));
    f.orientation = std::fmod(wrap360(90.0 - fromEast), 180.0);
    f.cep = 0.5887 * (major + minor);
}

Fix noFix(Fix f, const QString& reason)
{
    f.ok = false;
    f.reason = reason;
    return f;
}

} // namespace

Fix solve(const std::vector<BearingLine>& lines)
{
    Fix f;
    f.residuals.assign(lines.size(), 0.0);
    f.status.assign(lines.size(), Fix::Used);
    std::vector<size_t> active;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].use)
            active.push_back(i);
        else
            f.status[i] = Fix::Excluded;
    }
    f.used = int(active.size());
    int points = 0;
    if (!enoughPoints(lines, active, &points))
        return noFix(
            f, QStringLiteral("heard from %1 point(s); at least %2 are needed").arg(points).arg(kMinPoints));
    const double widest = spread(lines, active);
    if (widest < kMinSpread)
        return noFix(f, QStringLiteral("the bearings are within %1° of each other; at least %2° are needed")
                            .arg(widest, 0, 'f', 1)
                            .arg(kMinSpread));
    std::optional<Estimate> e = iterate(lines, active, centroid(lines, active), false);
    if (!e)
        return noFix(f, QStringLiteral("the bearings do not cross"));
    for (;;) {
        double sum = 0;
        for (double r : e->residuals)
            sum += r * r;
        const double rms = std::sqrt(sum / double(active.size()));
        std::vector<size_t> keep;
        std::vector<bool> kept;
        for (size_t k = 0; k < active.size(); ++k) {
            const bool out = rms > 0 && std::abs(e->residuals[k]) > kOutlierRms * rms;
            kept.push_back(!out);
            if (out)
                f.status[active[k]] = Fix::Outlier;
            else
                keep.push_back(active[k]);
        }
        if (keep.size() == active.size())
            break;
        std::optional<Estimate> next;
        if (enoughPoints(lines, keep, &points) && spread(lines, keep) >= kMinSpread)
            next = without(*e, kept);
        if (!next) {
            for (size_t i : active)
                f.status[i] = Fix::Used; // too few would be left: keep them all
            break;
        }
        active = keep;
        e = next;
    }
    double sum = 0;
    for (size_t k = 0; k < active.size(); ++k) {
        f.residuals[active[k]] = e->residuals[k];
        sum += e->residuals[k] * e->residuals[k];
    }
    f.rms = std::sqrt(sum / double(active.size()));
    for (size_t i = 0; i < lines.size(); ++i)
        if (f.status[i] != Fix::Used)
            f.residuals[i] = wrap180(lines[i].bearing - Geodesy::bearing(lines[i].from, e->position));
    f.used = int(active.size());
    f.outliers = int(std::count(f.status.begin(), f.status.end(), Fix::Outlier));
    for (size_t i : active)
        if (std::abs(f.residuals[i]) > 90.0)
            return noFix(f, QStringLiteral("the bearings cross behind the receiver"));
    const double farthest = *std::max_element(e->distances.begin(), e->distances.end());
    if (farthest > kMaxRange)
        return noFix(f, QStringLiteral("the bearings cross %1 km away").arg(farthest / 1000, 0, 'f', 0));
    f.position = e->position;
    const int dof = f.used - 2;
    setEllipse(f, *e, qDegreesToRadians(f.rms) * qDegreesToRadians(f.rms) * double(f.used) / dof, dof);
    f.ok = true;
    return f;
}

} // namespace OrviaGonioManager::Geo::BearingFix
