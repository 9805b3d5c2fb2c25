// kp::LocalizedStrings: the host's own translations of the library's texts, read from gettext
// catalogues (the Linux convention) for any locale the caller names, without touching the
// process's locale. The library's formatters ask them first and use their own locale data
// (or English) for what they do not hold.
//
// Catalogues are `<folder>/<language>[_<REGION>]/LC_MESSAGES/<domain>.mo`, UTF-8. A locale uses
// the first catalogue found, the folders in order and in each the region's catalogue before
// the language's; texts it lacks come from the library's own sources. Plural entries
// choose their form by the catalogue's own Plural-Forms rule, so a Russian catalogue gives
// "1 час", "3 часа", "5 часов". A catalogue that cannot be read counts as absent.
//
// The texts the library asks for (msgctxt, msgid / msgid_plural; "{0}" is the number, written
// with the locale's digits):
//   relative time  "now", "yesterday", "tomorrow", and plural entries such as
//                  "{0} minute ago" / "{0} minutes ago" and "in {0} minute" / "in {0} minutes"
//                  for minute, hour, day, month and year
//   "compass point" "N", "NNE", ... "NNW" and "north", "north-northeast", ... "north-northwest"
//   "unit"         "{0} Bft" / "Beaufort force {0}" (plural entries)
//
// Thread safety: every member may be called from any thread; catalogues are read once per
// locale and then shared.
//
// Example:
//   kp::LocalizedStrings::setShared(std::make_shared<kp::LocalizedStrings>(
//       "weatherapp", std::vector<std::filesystem::path>{"/usr/share/locale"}));
//   auto text = kp::LocalizedStrings::shared()->text("nb_NO", "NNE", "compass point");   // "NNØ"
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kp/platform/export.h"

namespace kp {

class KP_EXPORT LocalizedStrings {
 public:
  // The texts of gettext domain `domain`, looked up in `folders`.
  explicit LocalizedStrings(std::string domain, std::vector<std::filesystem::path> folders = {"/usr/share/locale"});

  // The gettext domain.
  [[nodiscard]] const std::string& domain() const noexcept;

  // The translation of `id` (in `context`, when not empty) for `locale`; nothing when no
  // catalogue holds it.
  [[nodiscard]] std::optional<std::string> text(std::string_view locale, std::string_view id,
                                                std::string_view context = {}) const;
  // The plural form for `count` of the entry whose singular id is `singular`.
  [[nodiscard]] std::optional<std::string> pluralText(std::string_view locale, std::string_view singular,
                                                      long long count, std::string_view context = {}) const;

  // The strings the formatters use unless given others; none until the host sets them.
  [[nodiscard]] static std::shared_ptr<const LocalizedStrings> shared();
  // Replaces the strings shared() returns.
  static void setShared(std::shared_ptr<const LocalizedStrings> strings);

 private:
  class Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace kp
