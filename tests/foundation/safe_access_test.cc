// Safe access at the edges (negative, past the end, empty, keys of another type) and the
// ordered set's positions as elements come and go, checked against a plain vector through long
// random runs whose hash puts many elements in the same place.
#include "kp/foundation/safe_access.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <deque>
#include <limits>
#include <list>
#include <map>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "kp/foundation/ordered_set.h"

namespace {

TEST(SafeAccess, IndexesOutsideAnySequenceGiveNothing) {
  std::vector<int> v{10, 20, 30};
  EXPECT_EQ(*kp::elementAt(v, 0), 10);
  EXPECT_EQ(*kp::elementAt(v, std::size_t{2}), 30);
  EXPECT_EQ(kp::elementAt(v, 3), nullptr);
  EXPECT_EQ(kp::elementAt(v, -1), nullptr);
  // A negative number must not wrap into a valid unsigned index, nor a huge one be cut down.
  EXPECT_EQ(kp::elementAt(v, std::numeric_limits<std::int64_t>::min()), nullptr);
  EXPECT_EQ(kp::elementAt(v, std::numeric_limits<std::uint64_t>::max()), nullptr);
  EXPECT_EQ(kp::elementAt(v, static_cast<std::int8_t>(-128)), nullptr);
  *kp::elementAt(v, 1) = 21;  // a mutable sequence hands out a mutable element
  EXPECT_EQ(v[1], 21);

  const std::array<std::string, 2> a{"x", "y"};
  EXPECT_EQ(*kp::elementAt(a, 1), "y");
  int c[2] = {1, 2};
  EXPECT_EQ(kp::elementAt(c, 2), nullptr);
  std::deque<int> d{5};
  EXPECT_EQ(*kp::elementAt(d, 0u), 5);
  const std::string_view text = "abc";
  EXPECT_EQ(*kp::elementAt(text, 2), 'c');
  const std::vector<int> empty;
  EXPECT_EQ(kp::elementAt(empty, 0), nullptr);

  EXPECT_EQ(kp::firstElement(empty), nullptr);
  EXPECT_EQ(kp::lastElement(empty), nullptr);
  const std::list<int> l{1, 2, 3};
  EXPECT_EQ(*kp::firstElement(l), 1);
  EXPECT_EQ(*kp::lastElement(l), 3);
}

TEST(SafeAccess, ValuesByKeyAndMembership) {
  const std::map<std::string, int, std::less<>> transparent{{"rain", 3}};
  EXPECT_EQ(*kp::valueForKey(transparent, std::string_view("rain")), 3);
  EXPECT_EQ(kp::valueForKey(transparent, "snow"), nullptr);
  // Without a transparent hash the key is converted to the map's own key type.
  std::unordered_map<std::string, int> plain{{"wind", 7}};
  EXPECT_EQ(*kp::valueForKey(plain, std::string_view("wind")), 7);
  *kp::valueForKey(plain, "wind") = 8;
  EXPECT_EQ(plain["wind"], 8);
  EXPECT_EQ(kp::valueOr(plain, "fog", -1), -1);
  EXPECT_EQ(kp::valueOr(transparent, "rain", -1), 3);

  EXPECT_TRUE(kp::contains(std::set<int>{1, 2}, 2));
  EXPECT_FALSE(kp::contains(std::unordered_set<std::string>{"a"}, std::string("b")));
  EXPECT_TRUE(kp::contains(std::vector<int>{4, 5}, 5));
  EXPECT_FALSE(kp::contains(std::vector<int>{}, 0));
  EXPECT_TRUE(kp::contains(transparent, "rain"));
}

TEST(OrderedSet, KeepsInsertionOrderAndServesAsASequence) {
  kp::OrderedSet<std::string> set{"Bern", "Oslo", "Bern", "Lima"};
  EXPECT_FALSE(set.insert("Oslo"));
  EXPECT_TRUE(set.insert("Kyiv"));
  EXPECT_EQ(std::vector<std::string>(set.begin(), set.end()),
            (std::vector<std::string>{"Bern", "Oslo", "Lima", "Kyiv"}));
  EXPECT_EQ(set.elementAt(-1), nullptr);
  EXPECT_EQ(set.elementAt(4), nullptr);
  EXPECT_FALSE(set.replaceAt(0, "Kyiv"));  // would duplicate: refused, nothing changes
  EXPECT_TRUE(set.replaceAt(0, "Riga"));
  EXPECT_FALSE(set.contains("Bern"));
  EXPECT_EQ(*set.first(), "Riga");
  EXPECT_EQ(*set.last(), "Kyiv");

  // The generic helpers see it as the random-access sequence it is.
  EXPECT_EQ(*kp::elementAt(set, 1), "Oslo");
  EXPECT_EQ(*kp::lastElement(set), "Kyiv");

  EXPECT_NE(set, (kp::OrderedSet<std::string>{"Oslo", "Riga", "Lima", "Kyiv"}));  // same elements, other order
  EXPECT_EQ(set, (kp::OrderedSet<std::string>{"Riga", "Oslo", "Lima", "Kyiv"}));
  set.clear();
  EXPECT_EQ(set.first(), nullptr);
  EXPECT_EQ(set.indexOf("Riga"), std::nullopt);
}

// Four hash values for all elements: every lookup walks past others, and every removal must
// close its gap without cutting another element off from its search.
struct CrowdedHash {
  std::size_t operator()(int value) const noexcept { return static_cast<std::size_t>(value % 4); }
};

TEST(OrderedSet, AgreesWithAVectorThroughRandomChangesCopiesAndMoves) {
  std::mt19937 random(7);
  kp::OrderedSet<int, CrowdedHash> set;
  std::vector<int> model;
  const int* kept = nullptr;  // an element's address, which survives changes around it
  int keptValue = 0;
  auto at = [&](int value) { return std::find(model.begin(), model.end(), value); };
  for (int step = 0; step < 6000; ++step) {
    const int value = static_cast<int>(random() % 200);
    const std::size_t index = random() % (model.size() + 2);
    const bool absent = at(value) == model.end();
    switch (random() % 5) {
      case 0:
        ASSERT_EQ(set.insert(value), absent);
        if (absent) model.push_back(value);
        break;
      case 1:
        ASSERT_EQ(set.insertAt(index, value), absent && index <= model.size());
        if (absent && index <= model.size()) model.insert(model.begin() + static_cast<std::ptrdiff_t>(index), value);
        break;
      case 2:
        ASSERT_EQ(set.erase(value), !absent);
        if (!absent) model.erase(at(value));
        break;
      case 3:
        ASSERT_EQ(set.eraseAt(index), index < model.size());
        if (index < model.size()) model.erase(model.begin() + static_cast<std::ptrdiff_t>(index));
        break;
      default: {
        const bool replaces = index < model.size() && (absent || model[index] == value);
        ASSERT_EQ(set.replaceAt(index, value), replaces);
        if (replaces) model[index] = value;
      }
    }
    if (kept == nullptr && !model.empty()) keptValue = *(kept = set.last());
    if (kept != nullptr && at(keptValue) == model.end()) kept = nullptr;
    if (step % 50 != 0) continue;
    ASSERT_TRUE(std::equal(set.begin(), set.end(), model.begin(), model.end())) << "step " << step;
    for (int probe = 0; probe < 200; ++probe) {
      const auto found = at(probe);
      ASSERT_EQ(set.indexOf(probe), found == model.end()
                                        ? std::nullopt
                                        : std::optional<std::size_t>(static_cast<std::size_t>(found - model.begin())));
    }
    if (kept != nullptr) {
      ASSERT_EQ(*kept, keptValue);
    }
    // A copy stands alone; a move leaves its source empty and usable.
    auto copy = set;
    copy.insert(1000);
    ASSERT_FALSE(set.contains(1000));
    auto moved = std::move(copy);
    ASSERT_TRUE(copy.empty());
    ASSERT_TRUE(copy.insert(5));
    ASSERT_EQ(moved.indexOf(1000), set.size());
  }
}

}  // namespace
