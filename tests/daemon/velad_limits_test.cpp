// SPDX-License-Identifier: MIT
// No client can make velad keep more than its limits, however it tries.
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include <vela/VelaError.h>

#include "velad_fixture.h"

namespace vela::testing {
namespace {

std::int64_t errorCode(const VelaDictionary& reply) {
  const auto found = reply.find("error");
  if (found == reply.end() || found->second.asDictionary() == nullptr) return 0;
  const std::int64_t* code = found->second.asDictionary()->at("code").getIf<std::int64_t>();
  return code != nullptr ? *code : -1;
}

// velad's resident memory, in KiB, from /proc.
std::int64_t residentKiB(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stoll(line.substr(6));
  }
  return -1;
}

TEST_F(AVelad, RefusesOversizedValuesAndRequests) {
  const std::string tooLong(4097, 'x');
  EXPECT_EQ(errorCode(reply("StartListeningOnTopic", {{"topic", tooLong}})), VelaDaemonErrorCodeLimitExceeded);
  EXPECT_EQ(errorCode(reply("DidEnterKithRegion", {{"regionIdentifier", tooLong}})), VelaDaemonErrorCodeLimitExceeded);
  // Many values each within the limit, too much together, deep in a record.
  VelaDictionary padding;
  for (int i = 0; i < 20; ++i) padding.emplace("field" + std::to_string(i), std::string(4000, 'y'));
  EXPECT_EQ(errorCode(reply("StartListeningOnTopic", {{"topic", "t"}, {"extra", padding}})),
            VelaDaemonErrorCodeLimitExceeded);
  EXPECT_EQ(errorCode(reply("StartListeningOnTopic", {{"topic", std::string(4096, 'x')}})), 0);
}

TEST_F(AVelad, StaysTheSameSizeUnderTenThousandHostileRequests) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  // Their allocators keep freed memory (quarantine, shadow), so resident size
  // says nothing about what velad holds.
  GTEST_SKIP() << "resident memory is measured in builds without sanitizers";
#endif
  const std::int64_t before = residentKiB(velad_->pid());
  ASSERT_GT(before, 0);
  int refused = 0;
  for (int i = 0; i < 10000; ++i) {
    // Distinct topics near the size limit: only the first 64 are kept.
    std::string topic = std::to_string(i);
    topic.resize(4000, 'z');
    refused += errorCode(reply("StartListeningOnTopic", {{"topic", topic}})) == VelaDaemonErrorCodeLimitExceeded;
  }
  EXPECT_EQ(refused, 10000 - 64);
  const std::int64_t after = residentKiB(velad_->pid());
  EXPECT_LT(after - before, 8 * 1024) << "velad grew from " << before << " KiB to " << after << " KiB";
}

}  // namespace
}  // namespace vela::testing
