// Safe access at the edges (negative, past the end, empty, keys of another type) and the
// ordered set's positions as elements come and go.
#include "kp/foundation/safe_access.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <deque>
#include <limits>
#include <list>
#include <map>
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

TEST(OrderedSet, KeepsInsertionOrderAndPositionsAsElementsComeAndGo) {
  kp::OrderedSet<std::string> set{"Bern", "Oslo", "Bern", "Lima"};
  ASSERT_EQ(set.size(), 3u);
  EXPECT_FALSE(set.insert("Oslo"));
  EXPECT_TRUE(set.insert("Kyiv"));
  EXPECT_EQ(std::vector<std::string>(set.begin(), set.end()),
            (std::vector<std::string>{"Bern", "Oslo", "Lima", "Kyiv"}));
  EXPECT_EQ(set.indexOf("Lima"), 2u);
  EXPECT_EQ(set.indexOf("Rome"), std::nullopt);
  EXPECT_EQ(*set.elementAt(3), "Kyiv");
  EXPECT_EQ(set.elementAt(-1), nullptr);
  EXPECT_EQ(set.elementAt(4), nullptr);

  // Removing and inserting in the middle moves the positions behind.
  EXPECT_TRUE(set.eraseAt(0));
  EXPECT_EQ(set.indexOf("Lima"), 1u);
  EXPECT_TRUE(set.insertAt(0, "Rome"));
  EXPECT_FALSE(set.insertAt(0, "Lima"));  // present: neither moved nor duplicated
  EXPECT_FALSE(set.insertAt(9, "Oulu"));
  EXPECT_EQ(set.indexOf("Kyiv"), 3u);
  EXPECT_TRUE(set.erase("Oslo"));
  EXPECT_FALSE(set.erase("Oslo"));
  EXPECT_FALSE(set.contains("Oslo"));
  EXPECT_EQ(set.indexOf("Kyiv"), 2u);

  // A replacement that would duplicate another element is refused and changes nothing.
  EXPECT_FALSE(set.replaceAt(0, "Kyiv"));
  EXPECT_TRUE(set.replaceAt(0, "Riga"));
  EXPECT_FALSE(set.contains("Rome"));
  EXPECT_EQ(set.indexOf("Riga"), 0u);
  EXPECT_EQ(*set.first(), "Riga");
  EXPECT_EQ(*set.last(), "Kyiv");

  // The generic helpers see it as the random-access sequence it is.
  EXPECT_EQ(*kp::elementAt(set, 1), "Lima");
  EXPECT_EQ(*kp::lastElement(set), "Kyiv");

  EXPECT_NE(set, (kp::OrderedSet<std::string>{"Lima", "Riga", "Kyiv"}));  // same elements, other order
  EXPECT_EQ(set, (kp::OrderedSet<std::string>{"Riga", "Lima", "Kyiv"}));
  set.clear();
  EXPECT_EQ(set.first(), nullptr);
  EXPECT_EQ(set.indexOf("Riga"), std::nullopt);
}

}  // namespace
