// Unarchiver: any input yields a value or nothing; never a crash, hang or exception.
#include "kp/coding/keyed_archiver.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::set<std::string, std::less<>> allowed = [] {
    auto s = kp::KeyedUnarchiver::propertyListClasses();
    s.insert({"NSURL", "NSError"});
    return s;
  }();
  const kp::Data input(data, size);
  if (auto v = kp::KeyedUnarchiver::unarchivedObject(input, allowed, {{"NSMutableString", "NSString"}})) {
    (void)kp::KeyedArchiver::archivedData(*v);
  }
  return 0;
}
