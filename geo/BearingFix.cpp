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

constexpr double kSettled = 0.01;  // metres
constexpr double kSamePoint = 1.0; // metres
constexpr int kMaxIterations = 40;
constexpr int kMaxHalvings = 12;
constexpr double kLinearStep = 1e-3; // of the distance to the nearest point
constexpr size_t kSeedLines = 64;    // enough for a first estimate, whatever the count

struct Vec
{
    double x = 0, y = 0;
};

// A line in the gnomonic projection: a unit normal and its offset, n.X = c.
struct PlaneLine
{
    Vec n;
    double c = 0;
    double heading = 0; // radians, from north
};

const GeographicLib::Gnomonic& gnomonic()
{
    static const GeographicLib::Gnomonic g(GeographicLib::Geodesic::WGS84());
    return g;
}

// The geodesic from the point along its bearing, as a straight line of the projection. Its
// direction there follows from the projection's scales at the point: 1/rk^2 along the radius from
// the centre and 1/rk across it.
std::optional<PlaneLine> planeLine(const GeoPoint& centre, const BearingLine& l)
{
    Vec p;
    double azi = 0, rk = 0;
    gnomonic().Forward(centre.latitude, centre.longitude, l.from.latitude, l.from.longitude, p.x, p.y, azi,
                       rk);
    const double r = std::hypot(p.x, p.y);
    if (std::isnan(r) || rk <= 0 || r < kSamePoint)
        return std::nullopt;
    const double radial = std::atan2(p.x, p.y);
    const double alpha = qDegreesToRadians(l.bearing - azi);
    PlaneLine pl;
    pl.heading = radial + std::atan2(rk * std::sin(alpha), std::cos(alpha));
    pl.n = {-std::cos(pl.heading), std::sin(pl.heading)};
    pl.c = pl.n.x * p.x + pl.n.y * p.y;
    return pl;
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
bool enoughPoints(const std::vector<BearingLine>& lines, const std::vector<size_t>& pick, int* count)
{
    std::vector<GeoPoint> seen;
    for (size_t k = 0; k < pick.size() && int(seen.size()) < kMinPoints; ++k) {
        const GeoPoint& p = lines[pick[k]].from;
        if (std::none_of(seen.begin(), seen.end(),
                         [&](const GeoPoint& q) { return Geodesy::distance(p, q) < kSamePoint; }))
            seen.push_back(p);
    }
    *count = int(seen.size());
    return *count >= kMinPoints;
}

// The widest angle between two of the directions, taken as lines: 0 to 90.
double widest(const std::vector<double>& degrees)
{
    double w = 0;
    for (size_t i = 0; i < degrees.size(); ++i)
        for (size_t j = i + 1; j < degrees.size(); ++j) {
            const double d = std::fmod(std::abs(degrees[i] - degrees[j]), 180.0);
            w = std::max(w, std::min(d, 180.0 - d));
            if (w >= kMinSpread)
                return w;
        }
    return w;
}

// The plain intersection, unweighted, in a gnomonic projection centred on centre. Without one,
// spread holds the widest angle between the lines there.
std::optional<GeoPoint> intersect(const std::vector<BearingLine>& lines, const std::vector<size_t>& pick,
                                  const GeoPoint& centre, double* spread)
{
    double a = 0, b = 0, d = 0, bx = 0, by = 0;
    std::vector<double> headings;
    for (size_t i : pick) {
        const auto l = planeLine(centre, lines[i]);
        if (!l)
            continue;
        a += l->n.x * l->n.x;
        b += l->n.x * l->n.y;
        d += l->n.y * l->n.y;
        bx += l->n.x * l->c;
        by += l->n.y * l->c;
        headings.push_back(qRadiansToDegrees(l->heading));
    }
    const double det = a * d - b * b;
    const double total = double(headings.size());
    if (total < 2 || det <= 1e-9 * total * total) {
        *spread = widest(headings);
        return std::nullopt;
    }
    GeoPoint p;
    gnomonic().Reverse(centre.latitude, centre.longitude, (d * bx - b * by) / det, (a * by - b * bx) / det,
                       p.latitude, p.longitude);
    if (std::isnan(p.latitude) || std::isnan(p.longitude))
        return std::nullopt;
    return p;
}

// One bearing against a candidate position.
struct Obs
{
    double residual = 0;   // radians, measured minus the azimuth to the position
    double je = 0, jn = 0; // d residual / d east, north metres at the position
    double distance = 0;   // metres
    double back = 0;       // degrees: the line's direction at the position
    bool valid = false;    // false: the position sits on the point
};

struct State
{
    GeoPoint position;
    std::vector<Obs> obs;       // per active line
    double cost = 0;            // sum of squared residuals of the used lines
    double nearest = 1e300;     // metres, from a used line's point
    double a = 0, b = 0, d = 0; // J'J, per radian squared and metre squared
};

// Every active line against the position: the moved end of a geodesic turns its start by the
// sideways move over the reduced length.
State evaluate(const std::vector<BearingLine>& lines, const std::vector<size_t>& active,
               const std::vector<char>& used, const GeoPoint& at)
{
    State s;
    s.position = at;
    s.obs.resize(active.size());
    for (size_t k = 0; k < active.size(); ++k) {
        const BearingLine& l = lines[active[k]];
        Obs& o = s.obs[k];
        double azi1 = 0, azi2 = 0, m12 = 0;
        GeographicLib::Geodesic::WGS84().Inverse(l.from.latitude, l.from.longitude, at.latitude, at.longitude,
                                                 o.distance, azi1, azi2, m12);
        o.back = azi2;
        o.valid = o.distance >= kSamePoint && m12 > 0;
        if (!o.valid)
            continue;
        o.residual = qDegreesToRadians(wrap180(l.bearing - azi1));
        const double a2 = qDegreesToRadians(azi2);
        o.je = -std::cos(a2) / m12;
        o.jn = std::sin(a2) / m12;
        if (!used[k])
            continue;
        s.cost += o.residual * o.residual;
        s.nearest = std::min(s.nearest, o.distance);
        s.a += o.je * o.je;
        s.b += o.je * o.jn;
        s.d += o.jn * o.jn;
    }
    return s;
}

double det(const State& s)
{
    return s.a * s.d - s.b * s.b;
}

// Gauss-Newton in the tangent plane at the estimate, halving a step that does not lower the cost.
std::optional<State> solveFrom(const std::vector<BearingLine>& lines, const std::vector<size_t>& active,
                               const std::vector<char>& used, State s)
{
    for (int it = 0; it < kMaxIterations; ++it) {
        const double dt = det(s);
        if (!(dt > 1e-12 * (s.a + s.d) * (s.a + s.d)))
            return std::nullopt;
        double ge = 0, gn = 0;
        for (size_t k = 0; k < active.size(); ++k)
            if (used[k] && s.obs[k].valid) {
                ge += s.obs[k].je * s.obs[k].residual;
                gn += s.obs[k].jn * s.obs[k].residual;
            }
        double de = -(s.d * ge - s.b * gn) / dt, dn = -(s.a * gn - s.b * ge) / dt;
        const double first = std::hypot(de, dn);
        if (first >= kSettled && first < kLinearStep * s.nearest) {
            // So short a step that the residuals follow it linearly to within (step/distance)^2.
            s.position = Geodesy::destination(s.position, qRadiansToDegrees(std::atan2(de, dn)), first);
            s.cost = 0;
            for (size_t k = 0; k < active.size(); ++k) {
                Obs& o = s.obs[k];
                if (!o.valid)
                    continue;
                o.residual += o.je * de + o.jn * dn;
                if (used[k])
                    s.cost += o.residual * o.residual;
            }
            break;
        }
        bool moved = false;
        for (int h = 0; h <= kMaxHalvings; ++h, de /= 2, dn /= 2) {
            const double step = std::hypot(de, dn);
            if (step < kSettled)
                break;
            State next =
                evaluate(lines, active, used,
                         Geodesy::destination(s.position, qRadiansToDegrees(std::atan2(de, dn)), step));
            if (next.cost <= s.cost) {
                s = std::move(next);
                moved = step >= kSettled;
                break;
            }
        }
        if (!moved)
            break;
    }
    return s;
}

// P(|T| <= t) for Student's t with dof degrees of freedom, t = sqrt(dof) tan(theta), in closed form.
double studentCentral(double theta, int dof)
{
    const double c2 = std::cos(theta) * std::cos(theta);
    double sum = 1, term = 1;
    if (dof % 2 == 1) {
        if (dof == 1)
            return 2 * theta / M_PI;
        for (int k = 1; k <= (dof - 3) / 2; ++k)
            sum += (term *= c2 * (2.0 * k) / (2.0 * k + 1));
        return 2 / M_PI * (theta + std::sin(theta) * std::cos(theta) * sum);
    }
    for (int k = 1; k <= (dof - 2) / 2; ++k)
        sum += (term *= c2 * (2.0 * k - 1) / (2.0 * k));
    return std::sin(theta) * sum;
}

// The threshold for each of count bearings so that Gaussian data cross any with kOutlierRisk.
double threshold(int count, int dof)
{
    return studentT(-std::expm1(std::log1p(-kOutlierRisk) / count), dof);
}

// The leverage of a line: how much of its own residual the fit absorbs.
double leverage(const State& s, const Obs& o)
{
    return (s.d * o.je * o.je - 2 * s.b * o.je * o.jn + s.a * o.jn * o.jn) / det(s);
}

// Bearings left out whose residual Gaussian errors would not give, each worst first and solved again,
// then those left out tested again against the fix. Gives the final state.
State leaveOut(const std::vector<BearingLine>& lines, const std::vector<size_t>& active,
               std::vector<char>& used, State s)
{
    const int n = int(active.size());
    for (int round = 0; round < 2 * n + 4; ++round) {
        const int m = int(std::count(used.begin(), used.end(), 1));
        // The worst used line, by its residual over the scale of the others (externally studentised).
        int worst = -1;
        double worstT = 0;
        if (m >= kMinPoints + 1) {
            for (size_t k = 0; k < active.size(); ++k) {
                const Obs& o = s.obs[k];
                if (!used[k] || !o.valid)
                    continue;
                const double h = std::min(leverage(s, o), 0.999);
                const double others = (s.cost - o.residual * o.residual / (1 - h)) / (m - 3);
                const double t = std::abs(o.residual) / std::sqrt(std::max(others, 1e-30) * (1 - h));
                if (t > worstT)
                    worstT = t, worst = int(k);
            }
        }
        if (worst >= 0 && worstT > threshold(n, m - 3)) {
            used[size_t(worst)] = 0;
            std::vector<size_t> kept;
            for (size_t k = 0; k < active.size(); ++k)
                if (used[k])
                    kept.push_back(active[k]);
            int points = 0;
            auto next = enoughPoints(lines, kept, &points)
                            ? solveFrom(lines, active, used, evaluate(lines, active, used, s.position))
                            : std::nullopt;
            if (next) {
                s = std::move(*next);
                continue;
            }
            used[size_t(worst)] = 1; // too few would be left
            return s;
        }
        // Those left out against the fix of the others, as a new bearing would be.
        const double scale = s.cost / (m - 2), limit = threshold(n, m - 2);
        bool back = false;
        for (size_t k = 0; k < active.size(); ++k) {
            const Obs& o = s.obs[k];
            if (!used[k] && o.valid && scale > 0 &&
                std::abs(o.residual) / std::sqrt(scale * (1 + leverage(s, o))) <= limit)
                used[k] = back = true;
        }
        if (!back)
            return s;
        if (auto next = solveFrom(lines, active, used, evaluate(lines, active, used, s.position)))
            s = std::move(*next);
    }
    return s;
}

void setEllipse(Fix& f, const State& s, double variance, int dof)
{
    // Covariance, metres squared: the variance of an angle over J'J; x east, y north.
    const double dt = det(s);
    const double cxx = variance * s.d / dt, cyy = variance * s.a / dt, cxy = -variance * s.b / dt;
    const double mid = (cxx + cyy) / 2, half = std::hypot((cxx - cyy) / 2, cxy);
    const double major = std::sqrt(std::max(0.0, mid + half)), minor = std::sqrt(std::max(0.0, mid - half));
    // sqrt(2 F(2, dof)) at the confidence, in closed form: s is estimated from the residuals.
    const double k = std::sqrt(dof * (std::pow(1.0 - kConfidence, -2.0 / dof) - 1.0));
    f.semiMajor = k * major;
    f.semiMinor = k * minor;
    const double fromEast = qRadiansToDegrees(0.5 * std::atan2(2 * cxy, cxx - cyy));
    f.orientation = std::fmod(wrap360(90.0 - fromEast), 180.0);
    f.cep = 0.5887 * (major + minor);
}

// The widest angle at which the used lines cross at the position.
double spreadAt(const State& s, const std::vector<char>& used)
{
    std::vector<double> back;
    for (size_t k = 0; k < s.obs.size(); ++k)
        if (used[k] && s.obs[k].valid)
            back.push_back(s.obs[k].back);
    return widest(back);
}

bool mostlyBehind(const State& s, const std::vector<char>& used)
{
    int behind = 0, count = 0;
    for (size_t k = 0; k < s.obs.size(); ++k)
        if (used[k] && s.obs[k].valid) {
            ++count;
            behind += std::abs(s.obs[k].residual) > M_PI / 2;
        }
    return 2 * behind > count;
}

Fix noFix(Fix f, const QString& reason)
{
    f.ok = false;
    f.reason = reason;
    return f;
}

QString withinReason(double spread)
{
    return QStringLiteral("the bearings are within %1° of each other; at least %2° are needed")
        .arg(spread, 0, 'f', 1)
        .arg(kMinSpread);
}

} // namespace

double studentT(double tail, int dof)
{
    // P(|T| > t) falls with theta in (0, pi/2): bisection on theta.
    double lo = 0, hi = M_PI / 2;
    for (int i = 0; i < 60; ++i) {
        const double mid = (lo + hi) / 2;
        (1 - studentCentral(mid, dof) > tail ? lo : hi) = mid;
    }
    return std::sqrt(double(dof)) * std::tan((lo + hi) / 2);
}

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

    // Seed: the plain intersection of a sample, then of all, re-centred once on the first estimate.
    std::vector<size_t> sample;
    for (size_t k = 0; k < kSeedLines && k < active.size(); ++k)
        sample.push_back(active[k * active.size() / std::min(active.size(), kSeedLines)]);
    double spread = 0;
    std::optional<GeoPoint> seed = intersect(lines, sample, centroid(lines, active), &spread);
    if (!seed)
        seed = intersect(lines, active, centroid(lines, active), &spread);
    if (seed)
        if (const auto again = intersect(lines, sample, *seed, &spread))
            seed = again;
    if (!seed)
        return noFix(f, spread < kMinSpread ? withinReason(spread)
                                            : QStringLiteral("the bearings do not cross"));

    // Many bearings: the sample's own fix first, so that the whole set needs only the last steps.
    if (sample.size() < active.size()) {
        const std::vector<char> all(sample.size(), 1);
        if (const auto near = solveFrom(lines, sample, all, evaluate(lines, sample, all, *seed));
            near && !mostlyBehind(*near, all))
            seed = near->position;
    }
    std::vector<char> used(active.size(), 1);
    State first = evaluate(lines, active, used, *seed);
    if (spreadAt(first, used) < kMinSpread)
        return noFix(f, withinReason(spreadAt(first, used)));
    if (mostlyBehind(first, used))
        return noFix(f, QStringLiteral("the bearings cross behind the receiver"));
    std::optional<State> s = solveFrom(lines, active, used, std::move(first));
    if (!s)
        return noFix(f, QStringLiteral("the bearings do not cross"));
    const State e = leaveOut(lines, active, used, std::move(*s));

    double farthest = 0;
    for (size_t k = 0; k < active.size(); ++k) {
        const size_t i = active[k];
        f.residuals[i] = qRadiansToDegrees(e.obs[k].residual);
        if (!used[k]) {
            f.status[i] = Fix::Outlier;
            continue;
        }
        farthest = std::max(farthest, e.obs[k].distance);
    }
    f.used = int(std::count(used.begin(), used.end(), 1));
    f.outliers = int(active.size()) - f.used;
    f.rms = qRadiansToDegrees(std::sqrt(e.cost / f.used));
    for (size_t i = 0; i < lines.size(); ++i)
        if (f.status[i] == Fix::Excluded)
            f.residuals[i] = wrap180(lines[i].bearing - Geodesy::bearing(lines[i].from, e.position));
    const double crossing = spreadAt(e, used);
    if (crossing < kMinSpread)
        return noFix(f, withinReason(crossing));
    for (size_t k = 0; k < active.size(); ++k)
        if (used[k] && std::abs(f.residuals[active[k]]) > 90.0)
            return noFix(f, QStringLiteral("the bearings cross behind the receiver"));
    if (farthest > kMaxRange)
        return noFix(f, QStringLiteral("the bearings cross %1 km away").arg(farthest / 1000, 0, 'f', 0));
    f.position = e.position;
    const int dof = f.used - 2;
    setEllipse(f, e, e.cost / dof, dof);
    f.ok = true;
    return f;
}

} // namespace OrviaGonioManager::Geo::BearingFix
