// Weather icons through image requests and the cache.
#include "icons.h"

#include <algorithm>
#include <cctype>

#include "kp/cache/cacheable.h"

namespace weatherapp {
namespace {

constexpr double kIconKeptForSeconds = 30 * 86400.0;

bool isPlainWord(const std::string& text) {
  return !text.empty() && text.size() <= 32 &&
         std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isalnum(c) != 0; });
}

GdkTexture* textureOf(const kp::Image& image) {
  const auto pixels = image.pixels();
  GBytes* bytes = g_bytes_new(pixels.data(), pixels.size());
  // The library's pixels are RGBA, not premultiplied: GTK's R8G8B8A8 format.
  GdkTexture* texture =
      gdk_memory_texture_new(static_cast<int>(image.pixelWidth()), static_cast<int>(image.pixelHeight()),
                             GDK_MEMORY_R8G8B8A8, bytes, std::size_t{image.pixelWidth()} * 4);
  g_bytes_unref(bytes);
  return texture;
}

}  // namespace

IconStore::IconStore(std::string baseUrl) : baseUrl_(std::move(baseUrl)) {
  while (!baseUrl_.empty() && baseUrl_.back() == '/') baseUrl_.pop_back();
}

IconStore::~IconStore() {
  for (auto& [condition, entry] : entries_) {
    for (GtkImage* image : entry.waiting) g_object_unref(image);
    if (entry.texture) g_object_unref(entry.texture);
  }
}

void IconStore::show(GtkImage* image, const std::string& condition) {
  if (!isPlainWord(condition)) return;
  Entry& entry = entries_[condition];
  if (entry.texture) {
    gtk_image_set_from_paintable(image, GDK_PAINTABLE(entry.texture));
    return;
  }
  if (entry.failed) return;
  entry.waiting.push_back(GTK_IMAGE(g_object_ref(image)));
  if (loading_) load(condition, entry);
}

void IconStore::startLoading() {
  if (loading_) return;
  loading_ = true;
  for (auto& [condition, entry] : entries_) {
    if (!entry.waiting.empty()) load(condition, entry);
  }
}

void IconStore::load(const std::string& condition, Entry& entry) {
  if (entry.request) return;
  auto url = kp::Url::parse(baseUrl_ + "/icons/" + condition + ".png");
  if (!url) {
    loaded(condition, nullptr);
    return;
  }
  entry.request = kp::ImageRequest::make(std::move(*url));
  entry.request->generateCacheKey();
  entry.request->cacheConfig()->itemType = kp::CacheItemType::image;
  entry.request->cacheConfig()->maximumAge = kIconKeptForSeconds;
  (void)entry.request->execute([this, condition](const std::shared_ptr<kp::ImageRequestResult>& result) {
    loaded(condition, result ? result->dataAsImage() : nullptr);
  });
}

void IconStore::loaded(const std::string& condition, const kp::Image* image) {
  Entry& entry = entries_[condition];
  if (image) {
    entry.texture = textureOf(*image);
  } else {
    entry.failed = true;
  }
  for (GtkImage* waiting : entry.waiting) {
    if (entry.texture) gtk_image_set_from_paintable(waiting, GDK_PAINTABLE(entry.texture));
    g_object_unref(waiting);
  }
  entry.waiting.clear();
}

}  // namespace weatherapp
