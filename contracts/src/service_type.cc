// Readable names of service types.
#include <cxxabi.h>

#include <cctype>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "tarvix/service.h"

namespace tarvix {
namespace {

bool isIdentifierChar(char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_'; }

// Drops every "name::" qualifier, keeping template arguments: "a::B<c::D, 3>" -> "B<D, 3>".
// Anonymous namespaces ("(anonymous namespace)::") count as qualifiers too.
std::string stripQualifiers(const std::string& name) {
  static constexpr std::string_view kAnonymous = "(anonymous namespace)::";
  std::string out;
  out.reserve(name.size());
  std::size_t i = 0;
  while (i < name.size()) {
    if (name.compare(i, kAnonymous.size(), kAnonymous) == 0) {
      i += kAnonymous.size();
    } else if (isIdentifierChar(name[i])) {
      std::size_t end = i;
      while (end < name.size() && isIdentifierChar(name[end])) ++end;
      if (name.compare(end, 2, "::") == 0) {
        i = end + 2;  // a qualifier: skip it and its separator
        continue;
      }
      out.append(name, i, end - i);
      i = end;
    } else if (name.compare(i, 2, "::") == 0) {
      i += 2;  // a leading global qualifier
    } else {
      out.push_back(name[i++]);
    }
  }
  return out;
}

}  // namespace

std::string unqualifiedTypeName(const std::type_info& info) {
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> demangled(abi::__cxa_demangle(info.name(), nullptr, nullptr, &status),
                                                   std::free);
  const std::string full = (status == 0 && demangled) ? demangled.get() : info.name();
  return stripQualifiers(full);
}

std::string ServiceType::name() const {
  // type_index keeps the type_info it was made from; name() is all it exposes, so demangle it.
  return unqualifiedTypeName(*typeInfo_);
}

}  // namespace tarvix
