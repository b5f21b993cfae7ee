// SPDX-License-Identifier: MIT
#include <string>

#include <gtest/gtest.h>

#include <vela/VelaKeyedArchive.h>

namespace {

constexpr std::string_view kClass = "Probe";

TEST(AnArchiver, MarksTheClassAndLeavesNilKeysAbsent) {
  VelaKeyedArchiver archiver(kClass);
  archiver.encodeObject("present", VelaValue(""));
  archiver.encodeObject("absent", std::nullopt);
  archiver.encodeObject("cleared", VelaValue(1));
  archiver.encodeObject("cleared", std::nullopt);
  EXPECT_EQ(archiver.archive(), (VelaDictionary{{"$class", "Probe"}, {"present", ""}}));
}

TEST(AnUnarchiver, EnforcesEachClassRestriction) {
  enum { S = 1, N = 2, D = 4, P = 8 };  // the restrictions that accept the value
  const std::pair<VelaValue, int> cases[] = {
      {VelaValue("s"), S | P},         {VelaValue(1), N | P},
      {VelaValue(1.5), N | P},         {VelaValue(true), N | P},
      {VelaValue(VelaDate{1}), D | P}, {VelaValue(VelaData{1}), P},
      {VelaValue(VelaArray{}), P},     {VelaValue(VelaDictionary{}), P},
      {VelaValue(VelaSet{}), P},
  };
  const std::pair<VelaArchiveClass, int> restrictions[] = {{VelaArchiveClass::kString, S},
                                                           {VelaArchiveClass::kNumber, N},
                                                           {VelaArchiveClass::kDate, D},
                                                           {VelaArchiveClass::kPropertyList, P}};
  for (const auto& [value, accepting] : cases) {
    for (const auto& [restriction, bit] : restrictions) {
      SCOPED_TRACE(value.description() + " under restriction " + std::to_string(bit));
      const VelaDictionary archive{{"$class", "Probe"}, {"key", value}};
      VelaKeyedUnarchiver coder(archive, kClass);
      const bool accepted = (accepting & bit) != 0;
      EXPECT_EQ(coder.decodeObjectOfClass("key", restriction), accepted ? std::optional(value) : std::nullopt);
      EXPECT_EQ(coder.failed(), !accepted);
      if (!accepted) {
        EXPECT_NE(coder.failureReason().find("\"key\""), std::string::npos) << coder.failureReason();
      }
    }
  }
}

TEST(AnUnarchiver, RefusesAnArchiveOfAnotherOrNoClass) {
  const VelaDictionary archives[] = {
      {{"key", "v"}},
      {{"$class", 7}, {"key", "v"}},
      {{"$class", "probe"}, {"key", "v"}},
  };
  for (const auto& archive : archives) {
    VelaKeyedUnarchiver coder(archive, kClass);
    EXPECT_TRUE(coder.failed());
    EXPECT_FALSE(coder.failureReason().empty());
    EXPECT_EQ(coder.decodeString("key"), std::nullopt);
  }
}

TEST(AnUnarchiver, ReadsAbsentKeysAsNilButStaysFailedAfterARefusal) {
  const VelaDictionary archive{{"$class", "Probe"}, {"bad", 1}, {"good", "fine"}};
  VelaKeyedUnarchiver coder(archive, kClass);
  EXPECT_EQ(coder.decodeDate("missing"), std::nullopt);
  EXPECT_EQ(coder.decodeString("good"), "fine");
  EXPECT_FALSE(coder.failed());
  EXPECT_EQ(coder.decodeString("bad"), std::nullopt);
  EXPECT_EQ(coder.decodeString("good"), std::nullopt);  // nothing more once the record is refused
  EXPECT_NE(coder.failureReason().find("\"bad\""), std::string::npos) << coder.failureReason();
}

}  // namespace
