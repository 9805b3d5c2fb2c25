// What other tools see of our archives: a standard reader walking a keyed archive's
// references, and renamed classes read through a mapping table.
#include <gtest/gtest.h>

#include "kp/coding/keyed_archiver.h"
#include "kp/coding/property_list.h"
#include "support/process.h"

namespace {

class Station : public kp::Archivable {
 public:
  explicit Station(std::string n) : name(std::move(n)) {}
  std::string name;
  std::string archiveClassName() const override { return "KPInteropStation"; }
  void encode(kp::ArchiveEncoder& c) const override { c.encodeObject("name", name); }
  static std::shared_ptr<Station> decode(kp::ArchiveDecoder& c) {
    return std::make_shared<Station>(c.decodeString("name").value_or(""));
  }
};
const kp::ArchiveRegistration<Station> registration{"KPInteropStation"};

TEST(ArchiveInterop, StandardReaderFollowsReferencesToSharedObjectsWrittenOnce) {
  auto shared = std::make_shared<Station>("Zurich");
  kp::ArchiveValue root(kp::ArchiveValue::Array{kp::ArchiveValue(shared), kp::ArchiveValue(shared),
                                                kp::ArchiveValue(std::make_shared<Station>("Bern"))});
  auto archive = kp::KeyedArchiver::archivedData(root);
  ASSERT_TRUE(archive);
  // Resolves every UID as NSKeyedUnarchiver would and prints names and identities.
  const std::string script =
      "import plistlib,sys\n"
      "a=plistlib.loads(sys.stdin.buffer.read())\n"
      "o=a['$objects']\n"
      "assert a['$archiver']=='NSKeyedArchiver' and a['$version']==100000 and o[0]=='$null'\n"
      "top=o[a['$top']['root'].data]\n"
      "assert o[top['$class'].data]['$classname'] in ('NSArray','NSMutableArray')\n"
      "refs=[u.data for u in top['NS.objects']]\n"
      "names=[o[o[r]['name'].data] for r in refs]\n"
      "print(names, refs[0]==refs[1], refs[0]!=refs[2], o[o[refs[0]]['$class'].data]['$classname'])\n";
  auto result = kp::test::runCommand("python3 -c " + kp::test::shellQuote(script) + " 2>&1", archive->toString());
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_EQ(result.output, "['Zurich', 'Zurich', 'Bern'] True True KPInteropStation\n");
}

TEST(ArchiveInterop, RenamedClassesAreReadThroughTheMappingTable) {
  auto archive = kp::KeyedArchiver::archivedData(kp::ArchiveValue(std::make_shared<Station>("Basel")));
  ASSERT_TRUE(archive);
  // The same archive as an older build wrote it, under a class name nobody registers now.
  // The new name has the same length, so the binary's offsets stay valid.
  std::string bytes = archive->toString();
  for (auto pos = bytes.find("KPInteropStation"); pos != std::string::npos; pos = bytes.find("KPInteropStation")) {
    bytes.replace(pos, 16, "LegacyWxStation1");
  }
  const kp::Data legacy = kp::Data::fromString(bytes);
  EXPECT_FALSE(kp::KeyedUnarchiver::safeUnarchivedObject(legacy));
  auto mapped = kp::KeyedUnarchiver::safeUnarchivedObject(legacy, {{"LegacyWxStation1", "KPInteropStation"}});
  ASSERT_TRUE(mapped);
  ASSERT_TRUE(mapped->object<Station>());
  EXPECT_EQ(mapped->object<Station>()->name, "Basel");
  // A mapping to a class outside the accepted set is still refused.
  EXPECT_FALSE(kp::KeyedUnarchiver::unarchivedObject(legacy, kp::KeyedUnarchiver::propertyListClasses(),
                                                     {{"LegacyWxStation1", "KPInteropStation"}}));
}

}  // namespace
