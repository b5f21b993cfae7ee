// SPDX-License-Identifier: MIT
// What velad shows on the bus: the published interface, and how it treats
// requests that do not keep to it.
#include <csignal>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/bus/bus_names.h"
#include "protocol/introspection.h"
#include "protocol/names.h"
#include "service_host.h"
#include "velad_fixture.h"

namespace vela::testing {
namespace {

using protocol::MethodDescription;

std::string readFile(const char* path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::set<std::string> namesOf(const std::vector<MethodDescription>& methods) {
  std::set<std::string> names;
  for (const MethodDescription& method : methods) names.insert(method.name);
  return names;
}

constexpr ExitStatus kCleanExit{};

TEST_F(AVelad, ServesExactlyThePublishedMembersAsDictionaryInDictionaryOut) {
  std::string whyNot;
  const auto published =
      protocol::readInterfaceMethods(readFile(VELA_INTERFACE_XML), protocol::kHandsetActionsInterface, &whyNot);
  ASSERT_TRUE(published) << whyNot;
  ASSERT_EQ(published->size(), 20U);

  const std::optional<std::string> live = client_->introspect(protocol::kServiceName, protocol::kObjectPath);
  ASSERT_TRUE(live);
  const auto served = protocol::readInterfaceMethods(*live, protocol::kHandsetActionsInterface, &whyNot);
  ASSERT_TRUE(served) << whyNot;

  EXPECT_EQ(namesOf(*served), namesOf(*published));
  for (const MethodDescription& method : *served) {
    ASSERT_EQ(method.arguments.size(), 2U) << method.name;
    EXPECT_EQ(method.arguments[0].name, "request") << method.name;
    EXPECT_EQ(method.arguments[0].type, "a{sv}") << method.name;
    EXPECT_EQ(method.arguments[0].direction, "in") << method.name;
    EXPECT_EQ(method.arguments[1].name, "reply") << method.name;
    EXPECT_EQ(method.arguments[1].type, "a{sv}") << method.name;
    EXPECT_EQ(method.arguments[1].direction, "out") << method.name;
  }
  const auto testing = protocol::readInterfaceMethods(*live, protocol::kTestingInterface, &whyNot);
  ASSERT_TRUE(testing) << whyNot;
  EXPECT_EQ(namesOf(*testing), (std::set<std::string>{"SetBehavior", "ResetBehaviors", "CallLog", "ClearCallLog",
                                                      "PostNotification", "SetVetScript"}));
}

TEST_F(AVelad, RefusesRequestsThatAreNotPropertyListDictionariesAndKeepsServing) {
  const bus::CallResult notADictionary = client_->callWithString(kHandsetActions, "GetLocusState", "state?");
  EXPECT_EQ(notADictionary.errorName, daemon::kInvalidArgsError);

  const bus::CallResult unmappable = client_->callWithUnmappableValue(kHandsetActions, "StartListeningOnTopic");
  EXPECT_EQ(unmappable.errorName, daemon::kInvalidArgsError);

  EXPECT_TRUE(reply("GetLocusState").contains("state"));
}

TEST_F(AVelad, RefusesWronglyTypedArgumentsAndRecordsOfAnotherClass) {
  EXPECT_EQ(call("EnableLocusInContext", {{"context", "seven"}}).errorName, daemon::kInvalidArgsError);
  // A context must fit the 32 bits the interface promises.
  EXPECT_EQ(call("EnableLocusInContext", {{"context", std::int64_t{1} << 40}}).errorName, daemon::kInvalidArgsError);
  const VelaDictionary lostModeRecord{{"$class", "VelaLostModeInfo"}, {"message", "call me"}};
  EXPECT_EQ(call("AddKithAccount", {{"account", lostModeRecord}}).errorName, daemon::kInvalidArgsError);
  EXPECT_EQ(call("AddKithAccount", {{"account", "not a record"}}).errorName, daemon::kInvalidArgsError);

  // Nothing of a refused request takes effect.
  const VelaDictionary none = reply("RetrieveKithAccount");
  EXPECT_FALSE(none.contains("account"));
  EXPECT_EQ(reply("GetLocusState").at("state"), VelaValue(1));
}

TEST_F(AVelad, CarriesOutButDoesNotAnswerACallThatExpectsNoReply) {
  const std::uint64_t cookie = client_->sendWithoutReply(kHandsetActions, "StartListeningOnTopic", {{"topic", "t"}});
  ASSERT_NE(cookie, 0U);
  // velad handles one connection's calls in order: once this is answered,
  // the quiet call has been handled too, and any answer to it has arrived.
  reply("GetLocusState");
  EXPECT_TRUE(client_->strayReplies().empty());

  const auto log = control_->callLog();
  ASSERT_TRUE(log) << control_->lastFailure();
  ASSERT_EQ(log->size(), 2U);
  EXPECT_EQ((*log)[0].member, "StartListeningOnTopic");
  EXPECT_EQ((*log)[0].args, (VelaDictionary{{"topic", "t"}}));
}

TEST_F(AVelad, ExitsCleanlyOnTermination) {
  velad_->kill(SIGTERM);
  EXPECT_EQ(velad_->waitForExit(), kCleanExit);
}

}  // namespace
}  // namespace vela::testing
