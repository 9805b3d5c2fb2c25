// The weather icons the local weather service serves beside its methods, one PNG per
// condition at "<base>/icons/<condition>.png" (128 × 128 pixels, drawn here), so that
// clients have pictures to load and cache. They are plain files, outside the envelope and
// the encryption: 200 with "image/png", a strong ETag and a day of Cache-Control; 404 for a
// condition the service does not know; 304 for a matching If-None-Match.
//
// Thread safety: may be called from any thread; each icon is drawn once per process.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "weather_protocol.h"

namespace kp::weather {

// The answer for `path` (the request path without its query) when it names an icon
// ("…/icons/<name>.png"); nothing when it does not.
[[nodiscard]] std::optional<ServiceAnswer> iconAnswer(std::string_view path,
                                                      const std::optional<std::string>& ifNoneMatch);

}  // namespace kp::weather
