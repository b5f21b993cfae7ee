// SPDX-License-Identifier: MIT
// velad's answers hang together: what one request changes, the next one
// reports.
#include <string>

#include <gtest/gtest.h>

#include <vela/VelaConstants.h>
#include <vela/VelaKithAccountInfo.h>
#include <vela/VelaLostModeInfo.h>

#include "protocol/locus_state.h"
#include "protocol/names.h"
#include "records/archive_io.h"
#include "velad_fixture.h"

namespace vela::testing {
namespace {

constexpr std::string_view kDaemonDomain = "com.zentrex.VelaNotification.daemon";

// The daemon error inside a reply, as {domain, code}; nullopt when none.
std::optional<std::pair<std::string, std::int64_t>> errorIn(const VelaDictionary& reply) {
  const auto found = reply.find("error");
  if (found == reply.end() || found->second.asDictionary() == nullptr) return std::nullopt;
  const VelaDictionary& error = *found->second.asDictionary();
  const std::string* domain = error.at("domain").asString();
  const std::int64_t* code = error.at("code").getIf<std::int64_t>();
  if (domain == nullptr || code == nullptr) return std::nullopt;
  return std::make_pair(*domain, *code);
}

std::string failureReasonIn(const VelaDictionary& reply) {
  const VelaDictionary* userInfo = reply.at("error").asDictionary()->at("userInfo").asDictionary();
  const auto reason = userInfo->find("failureReason");
  return reason != userInfo->end() && reason->second.asString() != nullptr ? *reason->second.asString() : "";
}

VelaDictionary kithAccount(const std::string& username) {
  VelaKithAccountInfo account;
  account.setUsername(username);
  account.setDsid("dsid-" + username);
  account.setAppAuthToken("secret");
  account.setAppAuthTokenStatus(2);
  return records::archiveRecord(account);
}

TEST_F(AVelad, ReportsStableDistinctDeviceIdsAndCompleteAccounts) {
  const VelaDictionary kith = reply("GetKithDeviceId");
  const VelaDictionary locus = reply("GetLocusDeviceId");
  ASSERT_TRUE(kith.contains("deviceId"));
  ASSERT_TRUE(locus.contains("deviceId"));
  EXPECT_NE(kith.at("deviceId"), locus.at("deviceId"));
  EXPECT_EQ(reply("GetKithDeviceId"), kith);

  for (const char* member : {"GetLocusAccount", "GetNimbusAccount"}) {
    const VelaDictionary account = reply(member);
    EXPECT_TRUE(account.contains("username") && account.contains("personID")) << member;
  }
}

TEST_F(AVelad, SwitchesLocatingThroughATransitionalStateAndAnnouncesEachStep) {
  const std::string center(protocol::kClientNotifyCenter);
  ASSERT_EQ(client_->subscribeNotifications(center), 0);
  auto announcedState = [this]() -> std::optional<VelaValue> {
    const auto notification = client_->waitNotification();
    if (!notification || notification->name != kLocusStateDidChangeNotification || !notification->userInfo) {
      return std::nullopt;
    }
    return notification->userInfo->at("state");
  };
  ASSERT_EQ(reply("GetLocusState").at("state"), VelaValue(protocol::kLocusStateOff));

  EXPECT_FALSE(errorIn(reply("EnableLocusInContext", {{"context", 7}})));
  EXPECT_EQ(reply("GetLocusState").at("state"), VelaValue(protocol::kLocusStateSwitching));
  // A second switch while the first is under way is declined, not queued.
  EXPECT_EQ(errorIn(reply("DisableLocusUsingToken", {{"token", "t"}, {"context", 7}})),
            std::make_pair(std::string(kDaemonDomain), std::int64_t{3}));
  EXPECT_EQ(announcedState(), VelaValue(protocol::kLocusStateSwitching));
  EXPECT_EQ(announcedState(), VelaValue(protocol::kLocusStateOn));
  EXPECT_EQ(reply("GetLocusState").at("state"), VelaValue(protocol::kLocusStateOn));

  // Already on: nothing to switch, nothing announced.
  EXPECT_FALSE(errorIn(reply("EnableLocusInContext", {{"context", 7}})));
  EXPECT_EQ(reply("GetLocusState").at("state"), VelaValue(protocol::kLocusStateOn));

  // Switching off takes a token.
  const VelaDictionary noToken = reply("DisableLocusUsingToken", {{"context", 7}});
  EXPECT_EQ(errorIn(noToken), std::make_pair(std::string(kDaemonDomain), std::int64_t{1}));
  EXPECT_FALSE(failureReasonIn(noToken).empty());
  EXPECT_FALSE(errorIn(reply("DisableLocusUsingToken", {{"token", "t"}, {"context", 7}})));
  EXPECT_EQ(announcedState(), VelaValue(protocol::kLocusStateSwitching));
  EXPECT_EQ(announcedState(), VelaValue(protocol::kLocusStateOff));
}

TEST_F(AVelad, KeepsOneFriendsAccountThatANewOneReplaces) {
  EXPECT_EQ(reply("RetrieveKithAccount"), VelaDictionary{});

  EXPECT_FALSE(errorIn(reply("AddKithAccount", {{"account", kithAccount("ann")}})));
  EXPECT_FALSE(errorIn(reply("AddKithAccount", {{"account", kithAccount("bob")}})));
  EXPECT_EQ(reply("RetrieveKithAccount"), (VelaDictionary{{"account", kithAccount("bob")}}));

  const VelaDictionary unknown = reply("RemoveKithAccountWithUsername", {{"username", "ann"}});
  EXPECT_EQ(errorIn(unknown), std::make_pair(std::string(kDaemonDomain), std::int64_t{2}));
  EXPECT_NE(failureReasonIn(unknown).find("ann"), std::string::npos);
  EXPECT_TRUE(reply("RetrieveKithAccount").contains("account"));

  EXPECT_FALSE(errorIn(reply("RemoveKithAccountWithUsername", {{"username", "bob"}})));
  EXPECT_EQ(reply("RetrieveKithAccount"), VelaDictionary{});
}

TEST_F(AVelad, DeclinesRequestsWhoseRequiredValueIsNil) {
  const std::pair<std::string, std::int64_t> missingValue{std::string(kDaemonDomain), 1};
  for (const char* member : {"EnableLostModeWithInfo", "EnableLocusInContext", "AddKithAccount",
                             "RemoveKithAccountWithUsername", "VetEmailAccount", "StartListeningOnTopic"}) {
    EXPECT_EQ(errorIn(reply(member)), missingValue) << member;
  }
  VelaLostModeInfo info;
  info.setLostModeEnabled(true);
  info.setMessage("Please call");
  EXPECT_FALSE(errorIn(reply("EnableLostModeWithInfo", {{"info", records::archiveRecord(info)}})));
  EXPECT_FALSE(errorIn(reply("DisableLostMode")));
}

}  // namespace
}  // namespace vela::testing
