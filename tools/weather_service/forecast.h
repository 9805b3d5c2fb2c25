// The local weather service's forecast model: plausible weather that is a pure function of
// place and time, so that answers repeat and tests can rely on them. The payload's shape is
// documented in weather_protocol.h.
//
// Temperatures follow latitude, season (mirrored south of the equator) and the local solar
// day; pressure, clouds, wind and rain drift smoothly with slow pseudo-random noise seeded by
// the place. Nothing here is meteorology: it only has to look like a forecast.
//
// Thread safety: pure functions.
#pragma once

#include <boost/json/value.hpp>
#include <cstdint>

namespace kp::weather {

// REQUIRES: latitude in [-90, 90], longitude in [-180, 180], both finite.
// The forecast for the place, issued at `hourStart` (seconds since 1970, a whole hour).
[[nodiscard]] boost::json::value makeForecast(double latitude, double longitude, std::int64_t hourStart);

}  // namespace kp::weather
