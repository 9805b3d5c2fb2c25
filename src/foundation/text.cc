// The Unicode side of the text helpers, over ICU: white space, case mapping and folding, and
// grapheme cluster boundaries. ICU indexes text with 32-bit offsets, so text longer than that
// is handled in pieces of at most 1 GiB, cut between code points.
#include "kp/foundation/text.h"

#include <unicode/brkiter.h>
#include <unicode/bytestream.h>
#include <unicode/casemap.h>
#include <unicode/locid.h>
#include <unicode/uchar.h>
#include <unicode/utext.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <cstdint>
#include <memory>

namespace kp {
namespace {

constexpr std::size_t kMaxPiece = std::size_t{1} << 30;

// Calls `f` with consecutive pieces of `text` that ICU can index, each ending before a byte
// that starts a code point.
template <class F>
void forEachPiece(std::string_view text, F&& f) {
  while (text.size() > kMaxPiece) {
    std::size_t cut = kMaxPiece;
    while (cut > kMaxPiece - 4 && U8_IS_TRAIL(static_cast<std::uint8_t>(text[cut]))) --cut;
    f(text.substr(0, cut));
    text.remove_prefix(cut);
  }
  f(text);
}

icu::StringPiece piece(std::string_view text) noexcept {
  return icu::StringPiece(text.data(), static_cast<std::int32_t>(text.size()));
}

// Runs one of ICU's UTF-8 case operations over `text`; on a failure of ICU (it has no other
// than running out of memory) the text comes back unchanged.
template <class Map>
std::string mapCase(std::string_view text, Map&& map) {
  std::string out;
  out.reserve(text.size());
  icu::StringByteSink<std::string> sink(&out);
  UErrorCode status = U_ZERO_ERROR;
  forEachPiece(text, [&](std::string_view part) {
    if (U_SUCCESS(status)) map(piece(part), sink, status);
  });
  if (U_FAILURE(status)) return std::string(text);
  return out;
}

bool isTurkic(const std::string& locale) {
  const icu::Locale parsed(locale.c_str());
  const std::string_view language = parsed.getLanguage();
  return language == "tr" || language == "az";
}

bool isAscii(std::string_view text) noexcept {
  return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

char asciiLower(char c) noexcept { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; }

std::weak_ordering byteOrder(std::string_view a, std::string_view b) noexcept {
  const int c = a.compare(b);
  return c < 0 ? std::weak_ordering::less : c > 0 ? std::weak_ordering::greater : std::weak_ordering::equivalent;
}

// The character break iterator of this thread; null when ICU cannot make one (its data is
// missing), and code points then stand in for characters.
icu::BreakIterator* characterBreakIterator() {
  thread_local const std::unique_ptr<icu::BreakIterator> iterator = [] {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::BreakIterator> made(
        icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
    if (U_FAILURE(status)) made.reset();
    return made;
  }();
  return iterator.get();
}

// The ends of the characters of a text that ICU can index, one after another. One at a time
// per thread: they share the thread's iterator.
class CharacterEnds {
 public:
  explicit CharacterEnds(std::string_view text)
      : text_(text), iterator_(text.empty() ? nullptr : characterBreakIterator()) {
    if (!iterator_) return;
    UErrorCode status = U_ZERO_ERROR;
    utext_openUTF8(&utext_, text.data(), static_cast<std::int64_t>(text.size()), &status);
    if (U_SUCCESS(status)) iterator_->setText(&utext_, status);
    if (U_FAILURE(status)) iterator_ = nullptr;
  }
  ~CharacterEnds() {
    if (iterator_) {
      // The iterator keeps a shallow copy of the UText; point it at nothing that dies here.
      UErrorCode status = U_ZERO_ERROR;
      UText empty = UTEXT_INITIALIZER;
      utext_openUTF8(&empty, "", 0, &status);
      iterator_->setText(&empty, status);
      utext_close(&empty);
    }
    utext_close(&utext_);
  }
  CharacterEnds(const CharacterEnds&) = delete;
  CharacterEnds& operator=(const CharacterEnds&) = delete;

  // The end of the next character, or nothing past the last one.
  std::optional<std::size_t> next() {
    if (iterator_) {
      const std::int32_t end = iterator_->next();
      if (end == icu::BreakIterator::DONE) return std::nullopt;
      return static_cast<std::size_t>(end);
    }
    if (position_ >= static_cast<std::int64_t>(text_.size())) return std::nullopt;
    UChar32 c = 0;
    U8_NEXT(text_.data(), position_, static_cast<std::int64_t>(text_.size()), c);
    return static_cast<std::size_t>(position_);
  }

 private:
  std::string_view text_;
  icu::BreakIterator* iterator_;
  UText utext_ = UTEXT_INITIALIZER;
  std::int64_t position_ = 0;
};

std::uint8_t byteAt(std::string_view text, std::size_t i) noexcept { return static_cast<std::uint8_t>(text[i]); }

// The end of the white space at the start of `text`.
std::size_t whiteSpaceEnd(std::string_view text) noexcept {
  const auto length = static_cast<std::int64_t>(text.size());
  std::int64_t start = 0;
  while (start < length) {
    std::int64_t next = start;
    UChar32 c = 0;
    U8_NEXT(text.data(), next, length, c);
    if (c < 0 || !u_isUWhiteSpace(c)) break;
    start = next;
  }
  return static_cast<std::size_t>(start);
}

// The start of the white space that ends `text`, not before `floor`.
std::size_t whiteSpaceStart(std::string_view text, std::size_t floor) noexcept {
  std::size_t end = text.size();
  while (end > floor) {
    std::size_t lead = end - 1;
    while (lead > floor && end - lead < 4 && U8_IS_TRAIL(byteAt(text, lead))) --lead;
    auto next = static_cast<std::int64_t>(lead);
    UChar32 c = 0;
    U8_NEXT(text.data(), next, static_cast<std::int64_t>(end), c);
    if (c < 0 || static_cast<std::size_t>(next) != end || !u_isUWhiteSpace(c)) break;
    end = lead;
  }
  return end;
}

}  // namespace

std::string_view trimmed(std::string_view text) noexcept {
  const std::size_t start = whiteSpaceEnd(text);
  return text.substr(start, whiteSpaceStart(text, start) - start);
}

std::string uppercased(std::string_view text, std::string_view locale) {
  const std::string id(locale);
  return mapCase(text, [&](icu::StringPiece part, icu::ByteSink& sink, UErrorCode& status) {
    icu::CaseMap::utf8ToUpper(id.c_str(), 0, part, sink, nullptr, status);
  });
}

std::string lowercased(std::string_view text, std::string_view locale) {
  const std::string id(locale);
  return mapCase(text, [&](icu::StringPiece part, icu::ByteSink& sink, UErrorCode& status) {
    icu::CaseMap::utf8ToLower(id.c_str(), 0, part, sink, nullptr, status);
  });
}

std::string capitalized(std::string_view text, std::string_view locale) {
  const std::string id(locale);
  return mapCase(text, [&](icu::StringPiece part, icu::ByteSink& sink, UErrorCode& status) {
    icu::CaseMap::utf8ToTitle(id.c_str(), 0, nullptr, part, sink, nullptr, status);
  });
}

std::weak_ordering compareIgnoringCase(std::string_view a, std::string_view b, std::string_view locale) {
  const std::string id(locale);
  const bool turkic = !id.empty() && isTurkic(id);
  if (!turkic && isAscii(a) && isAscii(b)) {
    const std::size_t n = std::min(a.size(), b.size());
    for (std::size_t i = 0; i < n; ++i) {
      const char x = asciiLower(a[i]);
      const char y = asciiLower(b[i]);
      if (x != y) return x < y ? std::weak_ordering::less : std::weak_ordering::greater;
    }
    return a.size() <=> b.size();
  }
  const std::uint32_t options = turkic ? U_FOLD_CASE_EXCLUDE_SPECIAL_I : U_FOLD_CASE_DEFAULT;
  const auto fold = [options](icu::StringPiece part, icu::ByteSink& sink, UErrorCode& status) {
    icu::CaseMap::utf8Fold(options, part, sink, nullptr, status);
  };
  return byteOrder(mapCase(a, fold), mapCase(b, fold));
}

bool equalsIgnoringCase(std::string_view a, std::string_view b, std::string_view locale) {
  return compareIgnoringCase(a, b, locale) == 0;
}

std::size_t characterCount(std::string_view text) {
  std::size_t count = 0;
  forEachPiece(text, [&](std::string_view part) {
    CharacterEnds ends(part);
    while (ends.next()) ++count;
  });
  return count;
}

std::string truncated(std::string_view text, std::size_t maxCharacters, std::string_view ellipsis) {
  // Only the first maxCharacters + 1 characters matter, and ICU need see no more than it can
  // index.
  std::string_view head = text.substr(0, std::min(text.size(), kMaxPiece));
  while (head.size() < text.size() && U8_IS_TRAIL(static_cast<std::uint8_t>(text[head.size()]))) {
    head.remove_suffix(1);
  }
  const std::size_t ellipsisCount = characterCount(ellipsis);
  const bool withEllipsis = !ellipsis.empty() && ellipsisCount <= maxCharacters;
  const std::size_t keep = withEllipsis ? maxCharacters - ellipsisCount : maxCharacters;

  CharacterEnds ends(head);
  std::size_t cut = 0;
  std::size_t count = 0;
  while (true) {
    const auto end = ends.next();
    if (!end) {
      // No more characters than the limit: the text fits as it is.
      if (head.size() == text.size()) return std::string(text);
      break;  // the rest, past ICU's reach, makes it longer than the limit
    }
    if (++count > maxCharacters) break;
    if (count <= keep) cut = *end;
  }
  std::string_view kept = text.substr(0, cut);
  if (!withEllipsis) return std::string(kept);
  kept = kept.substr(0, whiteSpaceStart(kept, 0));
  std::string out;
  out.reserve(kept.size() + ellipsis.size());
  out.append(kept).append(ellipsis);
  return out;
}

}  // namespace kp
