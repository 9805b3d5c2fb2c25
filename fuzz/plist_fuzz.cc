// Property-list reader and decoder: any input gives a tree or a CodingError, and what we
// write reads back to the same bytes when written again.
#include <cstdlib>

#include "kp/coding/json.h"
#include "kp/coding/property_list.h"

namespace {
struct Entry {
  std::string name;
  std::optional<std::int64_t> count;
  std::vector<kp::Date> dates;
  std::map<std::string, kp::Data> blobs;
};
BOOST_DESCRIBE_STRUCT(Entry, (), (name, count, dates, blobs))
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kp::Value tree;
  try {
    tree = kp::readPropertyList({data, size});
  } catch (const kp::CodingError&) {
    return 0;
  }
  try {
    (void)kp::decodeFromValue<std::vector<Entry>>(tree);
  } catch (const kp::CodingError&) {
  }
  try {
    (void)kp::writeJson(tree, kp::DateStrategy::iso8601);
  } catch (const kp::CodingError&) {
  }
  kp::Data bytes;
  try {
    bytes = kp::writePropertyList(tree);
  } catch (const kp::CodingError&) {
    return 0;  // text that is not UTF-8 cannot be written back
  }
  // Once written, a tree reads back equal (null comes back as "$null"; NaN is never equal).
  const kp::Value again = kp::readPropertyList(bytes.bytes());
  if (again == again && !(kp::readPropertyList(kp::writePropertyList(again).bytes()) == again)) std::abort();
  return 0;
}
