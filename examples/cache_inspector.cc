// What a cache folder holds, read without changing it: the entry count, the sizes of the
// database and the file folder, and each entry's key, group and age.
//   kp_cache_inspector [FOLDER]   (the application's caches folder by default)
#include "kp/cache/cache_inspector.h"

#include <iostream>
#include <string>

#include "kp/platform/application_info.h"

int main(int argc, char** argv) {
  if (argc > 2) {
    std::cerr << "usage: kp_cache_inspector [FOLDER]\n";
    return 2;
  }
  const std::filesystem::path folder = argc == 2 ? std::filesystem::path(argv[1]) : kp::cachesDirectory();
  std::string problem;
  const auto inspector = kp::CacheInspector::open(folder, &problem);
  if (!inspector) {
    std::cerr << "kp_cache_inspector: " << problem << "\n";
    return 1;
  }
  std::cout << folder.string() << ": " << inspector->entryCount() << " entries, database " << inspector->databaseBytes()
            << " bytes, files " << inspector->fileStorageBytes() << " bytes\n";
  const kp::Date now = kp::Date::now();
  for (const auto& entry : inspector->listEntries()) {
    std::cout << "  " << entry.row.key << "  group " << entry.row.group.value_or("-") << ", "
              << static_cast<long long>(now.timeIntervalSince(entry.row.timestamp)) << " s old\n";
  }
  return 0;
}
