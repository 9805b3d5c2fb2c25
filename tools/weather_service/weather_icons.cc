// Weather icons drawn from circles and strokes, anti-aliased by supersampling.
#include "weather_icons.h"

#include <openssl/sha.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <functional>
#include <vector>

#include "kp/platform/data.h"
#include "kp/platform/image.h"

namespace kp::weather {
namespace {

constexpr int kSize = 128;
constexpr int kSamples = 4;  // per axis and pixel

struct Colour {
  std::uint8_t r, g, b;
};

// Blends `colour` over the pixels where `inside` holds, weighted by the covered samples.
void paint(std::vector<std::uint8_t>& rgba, Colour colour, const std::function<bool(double, double)>& inside) {
  for (int y = 0; y < kSize; ++y) {
    for (int x = 0; x < kSize; ++x) {
      int covered = 0;
      for (int sy = 0; sy < kSamples; ++sy) {
        for (int sx = 0; sx < kSamples; ++sx) {
          covered += inside(x + (sx + 0.5) / kSamples, y + (sy + 0.5) / kSamples) ? 1 : 0;
        }
      }
      if (covered == 0) continue;
      const double a = static_cast<double>(covered) / (kSamples * kSamples);
      std::uint8_t* p = &rgba[(static_cast<std::size_t>(y) * kSize + x) * 4];
      const double below = p[3] / 255.0;
      const double out = a + below * (1 - a);
      auto mix = [&](std::uint8_t over, std::uint8_t under) {
        return static_cast<std::uint8_t>(std::lround((over * a + under * below * (1 - a)) / out));
      };
      p[0] = mix(colour.r, p[0]);
      p[1] = mix(colour.g, p[1]);
      p[2] = mix(colour.b, p[2]);
      p[3] = static_cast<std::uint8_t>(std::lround(out * 255));
    }
  }
}

bool inCircle(double x, double y, double cx, double cy, double r) {
  return (x - cx) * (x - cx) + (y - cy) * (y - cy) <= r * r;
}

void sun(std::vector<std::uint8_t>& rgba, double cx, double cy, double r) {
  constexpr Colour kRays{255, 190, 40};
  paint(rgba, kRays, [=](double x, double y) {
    const double d = std::hypot(x - cx, y - cy);
    if (d < r * 1.25 || d > r * 1.6) return false;
    const double angle = std::atan2(y - cy, x - cx) * 8 / (2 * M_PI);
    return std::abs(angle - std::round(angle)) < 0.12;
  });
  paint(rgba, {255, 205, 60}, [=](double x, double y) { return inCircle(x, y, cx, cy, r); });
}

void cloud(std::vector<std::uint8_t>& rgba, Colour colour) {
  paint(rgba, colour, [](double x, double y) {
    return inCircle(x, y, 46, 74, 20) || inCircle(x, y, 70, 62, 27) || inCircle(x, y, 92, 76, 18) ||
           (x >= 46 && x <= 92 && y >= 70 && y <= 94) || inCircle(x, y, 46, 80, 14) || inCircle(x, y, 92, 80, 14);
  });
}

Image draw(std::string_view condition) {
  std::vector<std::uint8_t> rgba(std::size_t{kSize} * kSize * 4, 0);
  if (condition == "clear") {
    sun(rgba, 64, 64, 28);
  } else if (condition == "partlyCloudy") {
    sun(rgba, 48, 46, 22);
    cloud(rgba, {225, 230, 236});
  } else if (condition == "cloudy") {
    cloud(rgba, {160, 170, 182});
  } else if (condition == "rain") {
    cloud(rgba, {140, 150, 164});
    paint(rgba, {50, 120, 220}, [](double x, double y) {
      if (y < 100 || y > 122) return false;
      for (double start : {48.0, 66.0, 84.0}) {
        if (std::abs((x - start) + (y - 100) * 0.35) < 2.2) return true;
      }
      return false;
    });
  } else {  // snow
    cloud(rgba, {170, 180, 192});
    paint(rgba, {120, 170, 230}, [](double x, double y) {
      return inCircle(x, y, 50, 108, 4) || inCircle(x, y, 68, 116, 4) || inCircle(x, y, 86, 106, 4) ||
             inCircle(x, y, 60, 122, 3) || inCircle(x, y, 80, 123, 3);
    });
  }
  return Image(kSize, kSize, std::move(rgba));
}

struct Icon {
  std::string_view name;
  std::string png;
  std::string etag;
};

const std::array<Icon, 5>& icons() {
  static const std::array<Icon, 5> made = [] {
    std::array<Icon, 5> out{Icon{"clear", {}, {}}, Icon{"partlyCloudy", {}, {}}, Icon{"cloudy", {}, {}},
                            Icon{"rain", {}, {}}, Icon{"snow", {}, {}}};
    for (Icon& icon : out) {
      icon.png = draw(icon.name).pngData().value_or(Data()).toString();
      std::array<unsigned char, SHA_DIGEST_LENGTH> digest{};
      SHA1(reinterpret_cast<const unsigned char*>(icon.png.data()), icon.png.size(), digest.data());
      icon.etag = "\"" + hexString(digest) + "\"";
    }
    return out;
  }();
  return made;
}

}  // namespace

std::optional<ServiceAnswer> iconAnswer(std::string_view path, const std::optional<std::string>& ifNoneMatch) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos || !path.substr(0, slash).ends_with("/icons")) return std::nullopt;
  std::string_view file = path.substr(slash + 1);
  ServiceAnswer answer;
  if (!file.ends_with(".png")) file = {};
  file.remove_suffix(file.empty() ? 0 : 4);
  for (const Icon& icon : icons()) {
    if (icon.name != file || icon.png.empty()) continue;
    answer.headers = {{"ETag", icon.etag}, {"Cache-Control", "max-age=86400"}};
    if (ifNoneMatch == icon.etag) {
      answer.status = 304;
      return answer;
    }
    answer.contentType = "image/png";
    answer.body = icon.png;
    return answer;
  }
  answer.status = 404;
  answer.contentType = "text/plain";
  answer.body = "No such icon.\n";
  return answer;
}

}  // namespace kp::weather
