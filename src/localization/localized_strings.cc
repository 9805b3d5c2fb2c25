// gettext catalogues per locale through Boost.Locale: one std::locale per locale identifier,
// generated once with the catalogues of the domain and never installed globally.
#include "kp/localization/localized_strings.h"

#include <algorithm>
#include <boost/locale/generator.hpp>
#include <boost/locale/message.hpp>
#include <climits>
#include <locale>
#include <map>
#include <mutex>

#include "localization/icu_support.h"
#include "platform/no_destructor.h"

namespace kp {
namespace {

using MessageFormat = boost::locale::message_format<char>;

// Locales per catalogue set; a host asks for a handful, but the bound keeps a caller that
// passes arbitrary identifiers from growing it without end.
constexpr std::size_t kMaximumLocales = 64;

// "sr_RS", "pt_BR": the catalogue lookup's name for the locale, which Boost.Locale splits
// into language and region to find the folders (so it must stay letters and one '_').
std::string catalogueLocale(std::string_view identifier) {
  const icu::Locale locale = internal::localeFor(identifier);
  std::string name = locale.getLanguage();
  if (name.empty()) return "C";
  if (const std::string region = locale.getCountry(); !region.empty()) name += "_" + region;
  return name + ".UTF-8";
}

}  // namespace

class LocalizedStrings::Impl {
 public:
  Impl(std::string domain, std::vector<std::filesystem::path> folders)
      : domain_(std::move(domain)), folders_(std::move(folders)) {}

  [[nodiscard]] const std::string& domain() const noexcept { return domain_; }

  template <class Lookup>
  std::optional<std::string> find(std::string_view localeId, Lookup lookup) const {
    const auto entry = entryFor(catalogueLocale(localeId));
    if (!entry->format || entry->domainId < 0) return std::nullopt;
    const char* found = lookup(*entry->format, entry->domainId);
    if (found == nullptr) return std::nullopt;
    return std::string(found);
  }

 private:
  struct Entry {
    std::locale locale;
    const MessageFormat* format = nullptr;
    int domainId = -1;
  };

  std::shared_ptr<const Entry> entryFor(const std::string& name) const {
    std::lock_guard lock(mutex_);
    if (auto it = entries_.find(name); it != entries_.end()) return it->second;
    if (entries_.size() >= kMaximumLocales) entries_.erase(entries_.begin());
    auto made = std::make_shared<Entry>();
    Entry& entry = *made;
    try {
      boost::locale::generator generator;
      for (const auto& folder : folders_) generator.add_messages_path(folder.string());
      generator.add_messages_domain(domain_);
      entry.locale = generator.generate(name);
      if (std::has_facet<MessageFormat>(entry.locale)) {
        entry.format = &std::use_facet<MessageFormat>(entry.locale);
        entry.domainId = entry.format->domain(domain_);
      }
    } catch (const std::exception&) {
      // A damaged catalogue is no catalogue.
      entry = Entry{};
    }
    entries_.emplace(name, made);
    return made;
  }

  std::string domain_;
  std::vector<std::filesystem::path> folders_;
  mutable std::mutex mutex_;
  // Callers hold their entry, so an eviction never pulls a facet from under a lookup.
  mutable std::map<std::string, std::shared_ptr<const Entry>> entries_;
};

LocalizedStrings::LocalizedStrings(std::string domain, std::vector<std::filesystem::path> folders)
    : impl_(std::make_shared<Impl>(std::move(domain), std::move(folders))) {}

const std::string& LocalizedStrings::domain() const noexcept { return impl_->domain(); }

std::optional<std::string> LocalizedStrings::text(std::string_view locale, std::string_view id,
                                                  std::string_view context) const {
  const std::string key(id);
  const std::string where(context);
  return impl_->find(locale, [&](const MessageFormat& format, int domainId) {
    return format.get(domainId, where.empty() ? nullptr : where.c_str(), key.c_str());
  });
}

std::optional<std::string> LocalizedStrings::pluralText(std::string_view locale, std::string_view singular,
                                                        long long count, std::string_view context) const {
  const std::string key(singular);
  const std::string where(context);
  // Plural rules look at the last digits; counts beyond int keep them.
  const long long magnitude = count < 0 ? -count : count;
  const int n = static_cast<int>(magnitude <= INT_MAX ? magnitude : 1'000'000'000 + magnitude % 1'000'000'000);
  return impl_->find(locale, [&](const MessageFormat& format, int domainId) {
    return format.get(domainId, where.empty() ? nullptr : where.c_str(), key.c_str(), n);
  });
}

namespace {
struct SharedStrings {
  std::mutex mutex;
  std::shared_ptr<const LocalizedStrings> strings;
};
SharedStrings& sharedStrings() {
  static internal::NoDestructor<SharedStrings> instance;
  return *instance;
}
}  // namespace

std::shared_ptr<const LocalizedStrings> LocalizedStrings::shared() {
  auto& s = sharedStrings();
  std::lock_guard lock(s.mutex);
  return s.strings;
}

void LocalizedStrings::setShared(std::shared_ptr<const LocalizedStrings> strings) {
  auto& s = sharedStrings();
  std::lock_guard lock(s.mutex);
  s.strings = std::move(strings);
}

}  // namespace kp
