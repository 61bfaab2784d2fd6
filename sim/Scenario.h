#pragma once

#include <QByteArray>
#include <QString>

#include <memory>
#include <random>
#include <vector>

namespace gnxsim {

// A drive past platforms whose true positions are known: the receiver moves along a path, and each
// direction it reports is the true geodesic bearing to the platform, plus a bias and Gaussian noise.
class Scenario
{
public:
    static constexpr size_t kMaxPlatforms = 16; // the favourite slots of the smaller receiver

    struct Point
    {
        double lat = 0, lon = 0; // degrees
    };
    struct Platform
    {
        QString id; // 5 or 7 hex characters
        QString label;
        Point position;
        QString format; // a built-in GPS format's name, or empty for none
        int period = 60;
    };
    struct Pose
    {
        Point position;
        double heading = 0; // degrees
    };
    // One direction as the receiver measures it, before it is rounded to a whole degree.
    struct Observation
    {
        Pose pose;
        int platform = 0;
        double trueBearing = 0;
        double direction = 0; // from north, or from the heading when relative
    };

    // Reads a scenario file; on error returns null and says what and where in error.
    static std::shared_ptr<const Scenario> load(const QString& fileName, QString* error);
    static std::shared_ptr<const Scenario> fromJson(const QByteArray& json, QString* error);

    const std::vector<Platform>& platforms() const { return m_platforms; }
    const std::vector<Point>& path() const { return m_path; }
    double bias() const { return m_bias; }
    double noise() const { return m_noise; }
    bool relative() const { return m_relative; }
    // Seconds from the start to the end of the path; the receiver then drives back, and so on.
    double duration() const;
    Pose pose(double seconds) const;
    // The receiver at seconds hears the platform; rng draws the noise.
    Observation observe(double seconds, int platform, std::mt19937& rng) const;

private:
    std::vector<Point> m_path;
    std::vector<double> m_legStart; // metres from the start at each path point
    double m_speed = 10;            // m/s
    bool m_fixedHeading = false;
    double m_heading = 0;
    bool m_relative = false;
    double m_bias = 0, m_noise = 0;
    std::vector<Platform> m_platforms;
};

} // namespace gnxsim
