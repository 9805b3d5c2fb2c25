// The soak's small parts: breaches and counters, self-checking payloads, process figures and
// the acknowledged writes of the user-defaults writers.
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iostream>
#include <sstream>

#include "soak.h"

namespace kp::soak {

void Breaches::add(const std::string& kind, const std::string& evidence) {
  std::lock_guard lock(mutex_);
  if (echo_) std::cerr << "BREACH " << kind << ": " << evidence << std::endl;
  auto& kept = byKind_[kind];
  if (kept.size() < 20) kept.push_back(evidence);
  ++counts_[kind];
}

std::size_t Breaches::count() const {
  std::lock_guard lock(mutex_);
  std::size_t total = 0;
  for (const auto& [kind, n] : counts_) total += n;
  return total;
}

void Breaches::absorb(const Breaches& other) {
  std::map<std::string, std::vector<std::string>> kept;
  std::map<std::string, std::size_t> counts;
  {
    std::lock_guard lock(other.mutex_);
    kept = other.byKind_;
    counts = other.counts_;
  }
  std::lock_guard lock(mutex_);
  for (const auto& [kind, evidence] : kept) {
    auto& mine = byKind_[kind];
    for (const auto& line : evidence) {
      if (mine.size() < 20) mine.push_back(line);
    }
    counts_[kind] += counts[kind];
  }
}

std::size_t Breaches::count(std::string_view prefix) const {
  std::lock_guard lock(mutex_);
  std::size_t total = 0;
  for (const auto& [kind, n] : counts_) {
    if (kind.starts_with(prefix)) total += n;
  }
  return total;
}

std::vector<std::string> Breaches::report(std::size_t perKind) const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> out;
  for (const auto& [kind, kept] : byKind_) {
    for (std::size_t i = 0; i < kept.size() && i < perKind; ++i) out.push_back(kind + ": " + kept[i]);
    const std::size_t total = counts_.at(kind);
    if (total > perKind) out.push_back(kind + ": ... and " + std::to_string(total - perKind) + " more");
  }
  return out;
}

void Ledger::add(const std::string& name, std::uint64_t n) {
  std::lock_guard lock(mutex_);
  counts_[name] += n;
}

std::uint64_t Ledger::get(const std::string& name) const {
  std::lock_guard lock(mutex_);
  const auto found = counts_.find(name);
  return found == counts_.end() ? 0 : found->second;
}

std::map<std::string, std::uint64_t> Ledger::all() const {
  std::lock_guard lock(mutex_);
  return counts_;
}

namespace {

std::uint64_t digest(std::span<const std::uint8_t> bytes) {
  std::uint64_t hash = 0xcbf29ce484222325ull;  // FNV-1a
  for (std::uint8_t byte : bytes) hash = (hash ^ byte) * 0x100000001b3ull;
  return hash;
}

}  // namespace

Data makePayload(std::string_view key, std::uint64_t seq, std::size_t size) {
  std::vector<std::uint8_t> body(size);
  std::uint64_t state = seq * 0x9e3779b97f4a7c15ull + size;
  for (auto& byte : body) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    byte = static_cast<std::uint8_t>(state);
  }
  const std::string head = std::string(key) + "|" + std::to_string(seq) + "|" + std::to_string(size) + "|" +
                           std::to_string(digest(body)) + "\n";
  std::vector<std::uint8_t> out(head.begin(), head.end());
  out.insert(out.end(), body.begin(), body.end());
  return Data(std::move(out));
}

std::optional<std::string> checkPayload(std::string_view key, const Data& bytes) {
  const std::string_view text(reinterpret_cast<const char*>(bytes.bytes().data()), bytes.size());
  const std::size_t newline = text.find('\n');
  if (newline == std::string_view::npos) return "no header in " + std::to_string(bytes.size()) + " bytes";
  const std::string_view head = text.substr(0, newline);
  std::vector<std::string_view> fields;
  for (std::size_t start = 0;;) {
    const std::size_t bar = head.find('|', start);
    fields.push_back(head.substr(start, bar - start));
    if (bar == std::string_view::npos) break;
    start = bar + 1;
  }
  if (fields.size() < 4) return "header '" + std::string(head.substr(0, 80)) + "' unreadable";
  // The key may hold '|' itself: the last three fields are the numbers.
  const std::size_t n = fields.size();
  std::string storedKey(head.substr(0, static_cast<std::size_t>(fields[n - 3].data() - head.data()) - 1));
  if (storedKey != key) return "bytes of '" + storedKey + "' under '" + std::string(key) + "'";
  std::uint64_t size = 0;
  std::uint64_t sum = 0;
  std::from_chars(fields[n - 2].data(), fields[n - 2].data() + fields[n - 2].size(), size);
  std::from_chars(fields[n - 1].data(), fields[n - 1].data() + fields[n - 1].size(), sum);
  const auto body = bytes.bytes().subspan(newline + 1);
  if (body.size() != size) {
    return "cut: " + std::to_string(body.size()) + " of " + std::to_string(size) + " bytes (seq " +
           std::string(fields[n - 3]) + ")";
  }
  if (digest(body) != sum) return "torn: the bytes do not match their digest (seq " + std::string(fields[n - 3]) + ")";
  return std::nullopt;
}

ProcessFigures sampleProcess(pid_t pid) {
  const std::string base = pid == 0 ? "/proc/self" : "/proc/" + std::to_string(pid);
  ProcessFigures figures;
  if (DIR* dir = ::opendir((base + "/fd").c_str())) {
    while (const dirent* entry = ::readdir(dir)) {
      if (entry->d_name[0] != '.') ++figures.descriptors;
    }
    ::closedir(dir);
    if (pid == 0 && figures.descriptors > 0) --figures.descriptors;  // the listing's own
  }
  std::ifstream statm(base + "/statm");
  std::size_t size = 0;
  std::size_t resident = 0;
  if (statm >> size >> resident)
    figures.residentKiB = resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)) / 1024;
  return figures;
}

std::vector<std::string> openFiles(pid_t pid) {
  std::vector<std::string> out;
  std::error_code error;
  const fs::path folder = (pid == 0 ? std::string("/proc/self") : "/proc/" + std::to_string(pid)) + "/fd";
  for (const auto& entry : fs::directory_iterator(folder, error)) {
    std::error_code ignored;
    out.push_back(fs::read_symlink(entry.path(), ignored).string());
  }
  std::sort(out.begin(), out.end());
  return out;
}

std::optional<std::string> readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream out;
  out << in.rdbuf();
  return std::move(out).str();
}

void mergeAcks(Acks& into, const Acks& from) {
  for (const auto& [key, value] : from) {
    auto& held = into[key];
    held = std::max(held, value);
  }
}

Acks readAcks(const fs::path& path) {
  Acks out;
  const auto text = readFile(path);
  if (!text) return out;
  std::istringstream lines(*text);
  std::string line;
  while (std::getline(lines, line)) {
    // A line the kill cut short has no end; the writer's acknowledgement never left it.
    if (lines.eof()) break;
    const std::size_t space = line.find(' ');
    if (space == std::string::npos) continue;
    std::int64_t value = 0;
    const auto [end, ec] = std::from_chars(line.data() + space + 1, line.data() + line.size(), value);
    if (ec != std::errc()) continue;
    auto& held = out[line.substr(0, space)];
    held = std::max(held, value);
  }
  return out;
}

std::vector<std::string> troubleIn(const std::string& text) {
  static constexpr std::string_view kMarks[] = {"BREACH ",
                                                "ERROR: AddressSanitizer",
                                                "ERROR: LeakSanitizer",
                                                "WARNING: ThreadSanitizer",
                                                "ThreadSanitizer: ",
                                                "runtime error:",
                                                "ERROR: UndefinedBehaviorSanitizer"};
  std::vector<std::string> out;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line) && out.size() < 8) {
    for (const auto mark : kMarks) {
      if (line.find(mark) != std::string::npos) {
        out.push_back(line.substr(0, 300));
        break;
      }
    }
  }
  return out;
}

}  // namespace kp::soak
