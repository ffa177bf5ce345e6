#include "nvb/sim_orbits.h"

#include <array>
#include <cmath>
#include <numbers>

namespace nvbtool::sim {

namespace {

constexpr double kDegree = std::numbers::pi / 180.0;
constexpr double kEllipsoidRadius = 6378137.0;
constexpr double kEllipsoidFlattening = 1.0 / 298.257223563;
constexpr double kEccentricitySquared = kEllipsoidFlattening * (2.0 - kEllipsoidFlattening);

// Earth's rotation angle at the start of a run; any value gives a plausible sky.
constexpr double kRotationAtStart = 1.2345;

// GLONASS frequency channel of orbital slots 1 to 24: satellites half an orbit apart in
// one plane share a channel, since they are never above the same receiver together.
constexpr std::array<std::int8_t, 24> kGlonassChannels = {1,  -4, 5, 6,  1, -4, 5, 6, -2, -7, 0, -1,
                                                          -2, -7, 0, -1, 4, -3, 3, 2, 4,  -3, 3, 2};

// Galileo and BeiDou-3 MEO satellite numbers in service, eight to a plane.
constexpr std::array<std::uint8_t, 24> kGalileoIds = {1,  2,  3,  4,  5,  7,  8,  9,  10, 11, 12, 13,
                                                      14, 15, 19, 21, 24, 25, 26, 27, 30, 31, 33, 36};
constexpr std::array<std::uint8_t, 24> kBeiDouMeoIds = {19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30,
                                                        32, 33, 34, 35, 36, 37, 41, 42, 43, 44, 45, 46};

Orbit makeOrbit(Constellation constellation, std::uint8_t svId, double radius, double inclinationDeg, double nodeDeg,
                double argumentOfLatitudeDeg) {
    Orbit orbit;
    orbit.constellation = constellation;
    orbit.svId = svId;
    orbit.radius = radius;
    orbit.meanMotion = std::sqrt(kEarthGravity / (radius * radius * radius));
    const double node = nodeDeg * kDegree;
    const double inclination = inclinationDeg * kDegree;
    orbit.nodeAxis = {std::cos(node), std::sin(node), 0.0};
    orbit.inPlaneAxis = {-std::sin(node) * std::cos(inclination), std::cos(node) * std::cos(inclination),
                         std::sin(inclination)};
    orbit.argumentOfLatitude0 = argumentOfLatitudeDeg * kDegree;
    return orbit;
}

}  // namespace

Site makeSite(double latitudeDeg, double longitudeDeg, double height) {
    Site site;
    site.latitudeDeg = latitudeDeg;
    site.longitudeDeg = longitudeDeg;
    site.height = height;
    const double lat = latitudeDeg * kDegree;
    const double lon = longitudeDeg * kDegree;
    const double primeVertical =
        kEllipsoidRadius / std::sqrt(1.0 - kEccentricitySquared * std::sin(lat) * std::sin(lat));
    site.position = {(primeVertical + height) * std::cos(lat) * std::cos(lon),
                     (primeVertical + height) * std::cos(lat) * std::sin(lon),
                     (primeVertical * (1.0 - kEccentricitySquared) + height) * std::sin(lat)};
    site.east = {-std::sin(lon), std::cos(lon), 0.0};
    site.north = {-std::sin(lat) * std::cos(lon), -std::sin(lat) * std::sin(lon), std::cos(lat)};
    site.up = {std::cos(lat) * std::cos(lon), std::cos(lat) * std::sin(lon), std::sin(lat)};
    return site;
}

double metresPerDegreeLatitude(const Site& site) {
    const double s = std::sin(site.latitudeDeg * kDegree);
    const double meridian =
        kEllipsoidRadius * (1.0 - kEccentricitySquared) / std::pow(1.0 - kEccentricitySquared * s * s, 1.5);
    return (meridian + site.height) * kDegree;
}

double metresPerDegreeLongitude(const Site& site) {
    const double lat = site.latitudeDeg * kDegree;
    const double primeVertical =
        kEllipsoidRadius / std::sqrt(1.0 - kEccentricitySquared * std::sin(lat) * std::sin(lat));
    return (primeVertical + site.height) * std::cos(lat) * kDegree;
}

std::vector<Orbit> constellationOrbits(Constellation constellation) {
    std::vector<Orbit> orbits;
    switch (constellation) {
        case Constellation::Gps:
            // Six planes of five or six satellites, 55 degrees, half a sidereal day.
            for (int i = 0; i < 32; ++i) {
                const int plane = i % 6;
                const int slot = i / 6;
                const int inPlane = plane < 2 ? 6 : 5;
                orbits.push_back(makeOrbit(constellation, static_cast<std::uint8_t>(i + 1), 26559.7e3, 55.0,
                                           17.0 + 60.0 * plane, 360.0 / inPlane * slot + 23.0 * plane));
            }
            break;
        case Constellation::Glonass:
            // Three planes of eight at 64.8 degrees, slots 45 degrees apart.
            for (int i = 0; i < 24; ++i) {
                const int plane = i / 8;
                Orbit orbit = makeOrbit(constellation, static_cast<std::uint8_t>(i + 1), 25508.2e3, 64.8,
                                        43.0 + 120.0 * plane, -45.0 * (i % 8) + 15.0 * plane);
                orbit.fdmaChannel = kGlonassChannels[static_cast<std::size_t>(i)];
                orbits.push_back(orbit);
            }
            break;
        case Constellation::Galileo:
            // Walker 24/3/1 at 56 degrees, the highest of the four.
            for (std::size_t i = 0; i < kGalileoIds.size(); ++i) {
                const int plane = static_cast<int>(i / 8);
                orbits.push_back(makeOrbit(constellation, kGalileoIds[i], 29599.8e3, 56.0, 71.0 + 120.0 * plane,
                                           45.0 * static_cast<double>(i % 8) + 15.0 * plane));
            }
            break;
        case Constellation::BeiDou:
            // The medium orbits only: Walker 24/3/1 at 55 degrees.
            for (std::size_t i = 0; i < kBeiDouMeoIds.size(); ++i) {
                const int plane = static_cast<int>(i / 8);
                orbits.push_back(makeOrbit(constellation, kBeiDouMeoIds[i], 27906.1e3, 55.0, 101.0 + 120.0 * plane,
                                           45.0 * static_cast<double>(i % 8) + 15.0 * plane + 7.5));
            }
            break;
    }
    return orbits;
}

Look lookAt(const Orbit& orbit, const Site& site, double t) {
    const double u = orbit.argumentOfLatitude0 + orbit.meanMotion * t;
    const Vec3 inertial = orbit.radius * (std::cos(u) * orbit.nodeAxis + std::sin(u) * orbit.inPlaneAxis);
    const Vec3 inertialVelocity =
        (orbit.radius * orbit.meanMotion) * (-std::sin(u) * orbit.nodeAxis + std::cos(u) * orbit.inPlaneAxis);

    // Into the earth-fixed frame; the velocity there also loses the frame's rotation.
    const double theta = kRotationAtStart + kEarthRotation * t;
    const double c = std::cos(theta);
    const double s = std::sin(theta);
    const Vec3 position{c * inertial.x + s * inertial.y, -s * inertial.x + c * inertial.y, inertial.z};
    const Vec3 velocity{c * inertialVelocity.x + s * inertialVelocity.y + kEarthRotation * position.y,
                        -s * inertialVelocity.x + c * inertialVelocity.y - kEarthRotation * position.x,
                        inertialVelocity.z};

    Look look;
    const Vec3 toSatellite = position - site.position;
    look.range = std::sqrt(dot(toSatellite, toSatellite));
    look.lineOfSight = (1.0 / look.range) * toSatellite;
    look.rangeRate = dot(look.lineOfSight, velocity);
    look.sinElevation = dot(look.lineOfSight, site.up);
    look.elevationDeg = std::asin(look.sinElevation) / kDegree;
    double azimuth = std::atan2(dot(look.lineOfSight, site.east), dot(look.lineOfSight, site.north)) / kDegree;
    if (azimuth < 0.0) azimuth += 360.0;
    look.azimuthDeg = azimuth;
    const Vec3 lineOfSightRate = (1.0 / look.range) * (velocity - look.rangeRate * look.lineOfSight);
    look.sinElevationRate = dot(lineOfSightRate, site.up);
    return look;
}

namespace {

// A mapping that stays finite at the horizon.
constexpr double kMappingA = 1.001;
constexpr double kMappingB = 0.002001;

double zenithDelay(const Site& site) {
    return 2.3 * std::exp(-0.000116 * site.height);
}

}  // namespace

double troposphereDelay(const Site& site, double sinElevation) {
    return zenithDelay(site) * kMappingA / std::sqrt(kMappingB + sinElevation * sinElevation);
}

double troposphereRate(const Site& site, double sinElevation, double sinElevationRate) {
    const double q = kMappingB + sinElevation * sinElevation;
    return -zenithDelay(site) * kMappingA * sinElevation * sinElevationRate / (q * std::sqrt(q));
}

}  // namespace nvbtool::sim
