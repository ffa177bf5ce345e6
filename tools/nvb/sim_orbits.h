#ifndef NVB_TOOL_SIM_ORBITS_H
#define NVB_TOOL_SIM_ORBITS_H

#include <cstdint>
#include <vector>

namespace nvbtool::sim {

inline constexpr double kSpeedOfLight = 299792458.0;       // m/s
inline constexpr double kEarthGravity = 3.986004418e14;    // m^3/s^2
inline constexpr double kEarthRotation = 7.2921151467e-5;  // rad/s

struct Vec3 {
    double x = 0.0;
    double y = 0.0;
    double z = 0.0;
};

inline Vec3 operator+(Vec3 a, Vec3 b) {
    return {a.x + b.x, a.y + b.y, a.z + b.z};
}
inline Vec3 operator-(Vec3 a, Vec3 b) {
    return {a.x - b.x, a.y - b.y, a.z - b.z};
}
inline Vec3 operator*(double s, Vec3 a) {
    return {s * a.x, s * a.y, s * a.z};
}
inline double dot(Vec3 a, Vec3 b) {
    return a.x * b.x + a.y * b.y + a.z * b.z;
}

// A fixed antenna: its geodetic coordinates, its earth-fixed position and local axes.
struct Site {
    double latitudeDeg = 0.0;
    double longitudeDeg = 0.0;
    double height = 0.0;  // metres above the ellipsoid
    Vec3 position;
    Vec3 east;
    Vec3 north;
    Vec3 up;
};

[[nodiscard]] Site makeSite(double latitudeDeg, double longitudeDeg, double height);

// Metres per degree of latitude and of longitude at the site.
[[nodiscard]] double metresPerDegreeLatitude(const Site& site);
[[nodiscard]] double metresPerDegreeLongitude(const Site& site);

enum class Constellation : std::uint8_t { Gps, Glonass, Galileo, BeiDou };

// One satellite on a circular orbit, fixed in inertial space but for its motion along it.
struct Orbit {
    Constellation constellation = Constellation::Gps;
    std::uint8_t svId = 0;
    std::int8_t fdmaChannel = 0;  // GLONASS only
    double radius = 0.0;          // metres
    double meanMotion = 0.0;      // rad/s
    Vec3 nodeAxis;                // unit vector to the ascending node
    Vec3 inPlaneAxis;             // unit vector 90 degrees on along the orbit
    double argumentOfLatitude0 = 0.0;
};

// The satellites of a constellation: the orbit radius and inclination of the real system,
// spread over several planes.
[[nodiscard]] std::vector<Orbit> constellationOrbits(Constellation constellation);

// How a satellite is seen from the site at time t (seconds since the start of the run).
struct Look {
    double range = 0.0;      // geometric, metres
    double rangeRate = 0.0;  // m/s
    double elevationDeg = 0.0;
    double azimuthDeg = 0.0;  // 0 to 360, clockwise from north
    double sinElevation = 0.0;
    double sinElevationRate = 0.0;  // per second
    Vec3 lineOfSight;               // unit vector from the site to the satellite
};

[[nodiscard]] Look lookAt(const Orbit& orbit, const Site& site, double t);

// Zenith delay of the troposphere mapped down to an elevation, and its rate of change.
[[nodiscard]] double troposphereDelay(const Site& site, double sinElevation);
[[nodiscard]] double troposphereRate(const Site& site, double sinElevation, double sinElevationRate);

}  // namespace nvbtool::sim

#endif
