// kpcore cache: inspects and maintains a cache folder (the database "centralcache.db" and the
// file folder beside it): statistics, the entries and one entry (read-only), wipes, the expired
// clean-up and the size trim.
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <iostream>
#include <set>
#include <sstream>
#include <vector>

#include "command.h"
#include "kp/cache/cache_controller.h"
#include "kp/cache/cache_inspector.h"
#include "kp/coding/archivable_image.h"
#include "kp/platform/application_info.h"

namespace {

namespace fs = std::filesystem;
using kpcore::CommandError;
using kpcore::printable;

constexpr const char* kUsage =
    "kpcore cache stats|list|expired [--dir DIR] [--json]\n"
    "       kpcore cache get KEY [--raw] [--dir DIR] [--json]\n"
    "       kpcore cache wipe [--group G] [--dir DIR] [--json]\n"
    "       kpcore cache curb --max BYTES [--dir DIR] [--json]\n"
    "  Without --dir it works on the application's caches folder.";

std::string humanSize(std::uint64_t bytes) {
  static constexpr const char* kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
  if (bytes < 1024) return std::to_string(bytes) + " B";
  double value = static_cast<double>(bytes) / 1024;
  int unit = 0;
  while (value >= 1024 && unit < 3) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
  return text;
}

// "45s", "12m", "3h", "5d": the largest whole unit.
std::string humanDuration(double seconds) {
  const double s = std::fabs(seconds);
  if (s < 60) return std::to_string(static_cast<long long>(s)) + "s";
  if (s < 3600) return std::to_string(static_cast<long long>(s / 60)) + "m";
  if (s < 86400) return std::to_string(static_cast<long long>(s / 3600)) + "h";
  return std::to_string(static_cast<long long>(s / 86400)) + "d";
}

// Sizes as bytes, or with a K, M or G suffix (powers of 1024): "512", "1.5M", "2GiB".
std::uint64_t parseSize(const std::string& text) {
  struct Unit {
    std::string_view suffix;
    double scale;
  };
  static constexpr Unit kUnits[] = {{"KiB", 1024.0}, {"MiB", 1024.0 * 1024}, {"GiB", 1024.0 * 1024 * 1024},
                                    {"K", 1024.0},   {"M", 1024.0 * 1024},   {"G", 1024.0 * 1024 * 1024},
                                    {"B", 1.0}};
  std::string_view number = text;
  double scale = 1;
  for (const auto& unit : kUnits) {
    if (number.ends_with(unit.suffix)) {
      number.remove_suffix(unit.suffix.size());
      scale = unit.scale;
      break;
    }
  }
  const auto value = kpcore::strictDecimal(number);
  const double bytes = value ? *value * scale : -1;
  if (!value || bytes < 0 || bytes >= 1.8e19) throw CommandError("not a size: " + kpcore::printable(text), 2);
  return static_cast<std::uint64_t>(bytes);
}

std::string kindName(const std::optional<kp::CacheItemType>& type) {
  if (!type) return "unknown";
  switch (*type) {
    case kp::CacheItemType::serialized:
      return "serialized";
    case kp::CacheItemType::rawDataToFile:
      return "data";
    case kp::CacheItemType::image:
      return "image";
  }
  return "unknown";
}

std::string expiryText(const kp::CacheRowSummary& row, kp::Date now) {
  if (row.maximumAge <= 0) return "never";
  const double left = row.timestamp.timeIntervalSince1970() + row.maximumAge - now.timeIntervalSince1970();
  return left >= 0 ? "in " + humanDuration(left) : humanDuration(left) + " ago";
}

// The bytes an entry occupies: its file for bytes and images, else its row.
std::string sizeText(const kp::CacheEntrySummary& entry) {
  const bool fileBacked =
      entry.row.type == kp::CacheItemType::rawDataToFile || entry.row.type == kp::CacheItemType::image;
  if (!fileBacked) return humanSize(entry.row.dataSize);
  return entry.fileSize ? humanSize(*entry.fileSize) : "missing";
}

std::string optionalJson(const std::optional<std::string>& text) { return text ? kpcore::jsonQuote(*text) : "null"; }

std::string hex(std::string_view bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : bytes) out.append({kDigits[c >> 4], kDigits[c & 0x0f]});
  return out;
}

// A row's key; a row named by no text (written by something else) shows its id as SQLite
// would write it, so that the user can find it there.
std::string keyText(const kp::CacheRowSummary& row) {
  switch (row.keyForm) {
    case kp::CacheRowSummary::KeyForm::text:
      return printable(row.key);
    case kp::CacheRowSummary::KeyForm::bytes:
      return "(id x'" + hex(row.key) + "')";
    case kp::CacheRowSummary::KeyForm::null:
      break;
  }
  return "(id NULL)";
}

// "key" is null for a row named by no text; "keyBytes" then holds the id's bytes in hex.
std::string keyJson(const kp::CacheRowSummary& row) {
  switch (row.keyForm) {
    case kp::CacheRowSummary::KeyForm::text:
      return "\"key\":" + kpcore::jsonQuote(row.key);
    case kp::CacheRowSummary::KeyForm::bytes:
      return "\"key\":null,\"keyBytes\":\"" + hex(row.key) + "\"";
    case kp::CacheRowSummary::KeyForm::null:
      break;
  }
  return "\"key\":null,\"keyBytes\":null";
}

// ---- payload descriptions ----

std::string describe(const kp::ArchiveValue& value) {
  if (value.isNull()) return "null";
  if (const auto* data = value.get<kp::Data>()) return "data, " + humanSize(data->size());
  if (const auto* text = value.get<std::string>()) {
    std::string shown = printable(text->substr(0, 60));
    return "text \"" + shown + (text->size() > 60 ? "...\"" : "\"") + " (" + std::to_string(text->size()) + " bytes)";
  }
  if (const auto* flag = value.get<bool>()) return *flag ? "true" : "false";
  if (const auto* number = value.get<std::int64_t>()) return "integer " + std::to_string(*number);
  if (const auto* real = value.get<double>()) return "number " + std::to_string(*real);
  if (const auto* date = value.get<kp::Date>()) return "date " + date->iso8601();
  if (const auto* url = value.get<kp::Url>()) return "URL " + printable(url->absoluteString());
  if (const auto* array = value.get<kp::ArchiveValue::Array>()) return "list of " + std::to_string(array->size());
  if (const auto* map = value.get<kp::ArchiveValue::Dictionary>()) {
    return "dictionary of " + std::to_string(map->size());
  }
  if (auto image = value.object<kp::ArchivableImage>()) {
    const auto& i = image->image();
    std::ostringstream out;
    out << "image " << i.pixelWidth() << "x" << i.pixelHeight() << " px at scale " << i.scale();
    return out.str();
  }
  if (const auto* object = value.get<kp::ArchivablePtr>()) return "object " + (*object)->archiveClassName();
  if (value.get<kp::ErrorPtr>()) return "error";
  return "value";
}

// The payload as bytes for --raw: files as stored, bytes and text as they are, anything
// else as its keyed archive.
kp::Data rawPayload(const kp::CacheItemInspection& inspection) {
  if (inspection.fileData) return *inspection.fileData;
  const auto& entry = inspection.entry;
  if (!entry || !entry->item) throw CommandError("the entry has no payload");
  if (auto image = entry->item->object<kp::ArchivableImage>()) {
    if (auto png = image->image().pngData()) return *png;
  }
  if (const auto* data = entry->item->get<kp::Data>()) return *data;
  if (const auto* text = entry->item->get<std::string>()) return kp::Data::fromString(*text);
  auto archived = kp::KeyedArchiver::archivedData(*entry->item);
  if (!archived) throw CommandError("the payload cannot be archived");
  return *archived;
}

// ---- subcommands ----

// Where the output goes and in which form.
struct Output {
  fs::path folder;
  bool json = false;
};

int stats(kp::CacheInspector& cache, const Output& c) {
  const auto database = cache.databaseBytes();
  const auto files = cache.fileStorageBytes();
  const auto entries = cache.entryCount();
  if (c.json) {
    std::cout << "{\"folder\":" << kpcore::jsonQuote(c.folder.string()) << ",\"databaseEntries\":" << entries
              << ",\"databaseBytes\":" << database << ",\"fileStorageBytes\":" << files
              << ",\"totalBytes\":" << database + files << "}\n";
    return 0;
  }
  std::cout << "folder:            " << c.folder.string() << "\n"
            << "database entries:  " << entries << "\n"
            << "database size:     " << humanSize(database) << "\n"
            << "file storage size: " << humanSize(files) << "\n"
            << "total size:        " << humanSize(database + files) << "\n";
  return 0;
}

int list(kp::CacheInspector& cache, const Output& c) {
  const auto entries = cache.listEntries();
  const kp::Date now = kp::Date::now();
  if (c.json) {
    std::cout << "[";
    bool first = true;
    for (const auto& e : entries) {
      const auto& r = e.row;
      std::cout << (first ? "" : ",") << "{" << keyJson(r) << ",\"kind\":\"" << kindName(r.type)
                << "\",\"group\":" << optionalJson(r.group)
                << ",\"created\":" << kpcore::jsonQuote(r.timestamp.iso8601()) << ",\"maximumAge\":" << r.maximumAge
                << ",\"rollingExpiration\":" << (r.rollingExpiration ? "true" : "false")
                << ",\"autoExpiration\":" << (r.autoExpiration ? "true" : "false") << ",\"rowBytes\":" << r.dataSize
                << ",\"fileBytes\":" << (e.fileSize ? std::to_string(*e.fileSize) : "null") << "}";
      first = false;
    }
    std::cout << "]\n";
    return 0;
  }
  std::printf("%-6s %-11s %-10s %-10s %-12s %s\n", "AGE", "EXPIRES", "SIZE", "KIND", "GROUP", "KEY");
  std::uint64_t total = 0;
  for (const auto& e : entries) {
    const auto& r = e.row;
    total += e.fileSize.value_or(r.dataSize);
    std::printf("%-6s %-11s %-10s %-10s %-12s %s\n", humanDuration(now.timeIntervalSince(r.timestamp)).c_str(),
                expiryText(r, now).c_str(), sizeText(e).c_str(), kindName(r.type).c_str(),
                printable(r.group.value_or("-")).c_str(), keyText(r).c_str());
  }
  std::cout << entries.size() << (entries.size() == 1 ? " entry, " : " entries, ") << humanSize(total) << "\n";
  return 0;
}

int get(kp::CacheInspector& cache, const Output& c, const std::string& key, bool raw) {
  const auto inspection = cache.inspect(key);
  if (!inspection) throw CommandError("no entry under " + printable(key));
  if (raw) {
    const kp::Data bytes = rawPayload(*inspection);
    std::cout.write(bytes.view().data(), static_cast<std::streamsize>(bytes.size()));
    return 0;
  }
  const auto& entry = inspection->entry;
  const kp::Date now = kp::Date::now();
  std::vector<std::pair<std::string, std::string>> rows{{"key", printable(key)}};
  if (entry) {
    const auto& config = entry->configuration;
    const auto created = entry->creationDate();
    rows.emplace_back("kind", kindName(entry->cacheType));
    rows.emplace_back("group", printable(config.groupName.value_or("-")));
    rows.emplace_back("created", created.iso8601() + " (" + humanDuration(now.timeIntervalSince(created)) + " ago)");
    rows.emplace_back("maximum age", config.maximumAge > 0 ? humanDuration(config.maximumAge) : "none");
    rows.emplace_back("expired", inspection->expired ? "yes" : "no");
    const auto yesNo = [](bool b) { return std::string(b ? "yes" : "no"); };
    rows.emplace_back("rolling expiration", yesNo(config.rollingExpiration));
    rows.emplace_back("auto expiration", yesNo(config.autoExpiration));
    rows.emplace_back("retain in memory", yesNo(config.retainInMemory));
    rows.emplace_back("retain in back store", yesNo(config.retainInBackStore));
    rows.emplace_back("expire on memory warning", yesNo(config.expireOnMemoryWarning));
    std::string payload = "none";
    if (inspection->fileData) {
      payload = entry->cacheType == kp::CacheItemType::image ? "PNG file, " : "file, ";
      payload += humanSize(inspection->fileData->size());
      if (auto image = kp::Image::decode(*inspection->fileData)) {
        payload += ", " + std::to_string(image->pixelWidth()) + "x" + std::to_string(image->pixelHeight()) + " px";
      }
    } else if (entry->cacheType != kp::CacheItemType::serialized && !entry->item) {
      payload = "missing file";
    } else if (entry->item) {
      payload = describe(*entry->item);
    }
    rows.emplace_back("payload", payload);
    std::string extras;
    for (const auto& [name, value] : entry->extraItems) {
      extras += (extras.empty() ? "" : ", ") + printable(name) + " (" + describe(value) + ")";
    }
    rows.emplace_back("extra items", extras.empty() ? "none" : extras);
  } else {
    rows.emplace_back("entry", "unreadable row");
  }
  if (inspection->stored) rows.emplace_back("row size", humanSize(inspection->stored->row.dataSize));
  if (c.json) {
    std::cout << "{";
    for (std::size_t i = 0; i < rows.size(); ++i) {
      std::cout << (i ? "," : "") << kpcore::jsonQuote(rows[i].first) << ":" << kpcore::jsonQuote(rows[i].second);
    }
    std::cout << "}\n";
  } else {
    for (const auto& [name, value] : rows) std::cout << name << ": " << value << "\n";
  }
  return 0;
}

// Runs a maintenance step and reports how many rows it took away.
int maintain(kp::CacheController& cache, const Output& c, const std::string& what, const std::function<void()>& step) {
  const auto before = cache.databaseItemCount();
  const auto filesBefore = cache.getFileStorageTotalSize();
  step();
  cache.waitForBackgroundWork();
  const auto after = cache.databaseItemCount();
  const auto filesAfter = cache.getFileStorageTotalSize();
  const auto removed = before - std::min(before, after);
  if (c.json) {
    std::cout << "{\"action\":" << kpcore::jsonQuote(what) << ",\"removedEntries\":" << removed
              << ",\"fileStorageBytesBefore\":" << filesBefore << ",\"fileStorageBytesAfter\":" << filesAfter << "}\n";
  } else {
    std::cout << what << ": removed " << removed << (removed == 1 ? " entry" : " entries") << "; file storage "
              << humanSize(filesBefore) << " -> " << humanSize(filesAfter) << "\n";
  }
  return 0;
}

// A file folder the cache does not use (a link stands there) is worth a line: its files are
// neither counted nor removed, whatever the subcommand says about the file storage.
void noteFileStorage(const std::optional<std::string>& problem) {
  if (problem) std::cerr << "kpcore cache: note: " << printable(*problem) << "\n";
}

int runCache(kpcore::Args& args) {
  const bool json = args.flag("json");
  const auto dir = args.option("dir");
  const auto group = args.option("group");
  const auto max = args.option("max");
  const bool raw = args.flag("raw");
  const auto action = args.positional();
  if (!action) throw CommandError("missing subcommand (stats, list, get, wipe, expired or curb)", 2);
  std::optional<std::string> key;
  if (*action == "get") {
    key = args.positional();
    if (!key) throw CommandError("get needs a KEY", 2);
  }
  args.expectEnd();
  static const std::set<std::string> kActions{"stats", "list", "get", "wipe", "expired", "curb"};
  if (!kActions.contains(*action)) throw CommandError("unknown subcommand: " + *action, 2);
  if (*action == "curb" && !max) throw CommandError("curb needs --max BYTES", 2);
  const std::uint64_t limit = max ? parseSize(*max) : 0;

  const fs::path folder = dir ? fs::path(*dir) : kp::cachesDirectory();
  // A link in the database's place is not the cache's: the application neither follows nor
  // replaces it, and keeps its entries in memory; there is nothing here to inspect or maintain.
  const fs::path database = folder / kp::CacheController::kDatabaseFileName;
  std::error_code ec;
  if (fs::is_symlink(fs::symlink_status(database, ec))) {
    throw CommandError(printable(database.string()) +
                       " is a symbolic link, not a database of the cache's own; the application keeps its entries"
                       " in memory");
  }
  if (!fs::is_regular_file(database, ec)) throw CommandError("no cache database in " + folder.string());
  const Output output{folder, json};
  if (*action == "stats" || *action == "list" || *action == "get") {
    // Inspecting opens the database read-only: a folder it cannot read is reported as it is,
    // never recreated, since that would destroy what the user came to look at.
    std::string problem;
    const auto inspector = kp::CacheInspector::open(folder, &problem);
    if (!inspector) throw CommandError(problem);
    noteFileStorage(inspector->fileStorageProblem());
    if (*action == "stats") return stats(*inspector, output);
    if (*action == "list") return list(*inspector, output);
    return get(*inspector, output, *key, raw);
  }
  kp::CacheController::Options options;
  options.directory = folder;
  kp::CacheController cache(options);
  noteFileStorage(cache.fileStorageProblem());
  if (*action == "wipe") {
    if (group)
      return maintain(cache, output, "wipe group " + printable(*group), [&] { cache.wipeCompleteCache(*group); });
    return maintain(cache, output, "wipe", [&] { cache.wipeCompleteCache(); });
  }
  if (*action == "expired") {
    return maintain(cache, output, "expired clean-up", [&] { cache.wipeCompleteExpiredCache(); });
  }
  cache.setMaximumCacheSizeInBytes(limit);
  return maintain(cache, output, "curb to " + humanSize(limit), [&] { cache.curbUsedDiskSpace(); });
}

const kpcore::Registration registration{"cache", "Inspect and maintain a cache folder", kUsage, runCache};

}  // namespace
