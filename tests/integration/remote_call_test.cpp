// SPDX-License-Identifier: MIT
// What a synchronous call makes of each kind of answer.
#include "session_fixture.h"

namespace vela::testing {
namespace {

using ACallToVelad = ASessionWithVelad;
namespace key = protocol::key;

const VelaError kDaemonError("com.example.daemon", 3, {{"failureReason", "not now"}});

TEST_F(ACallToVelad, ReturnsTheDaemonErrorOfAnErrorOnlyOperationAsItCame) {
  answerWith(member::kEnableLocusInContext.name, {}, kDaemonError);
  EXPECT_EQ(session_->enableLocusInContext(1), kDaemonError);
  EXPECT_EQ(lastResult(), 3);

  // The next call starts from 0 again.
  ASSERT_TRUE(control_->resetBehaviors());
  EXPECT_EQ(session_->enableLocusInContext(1), std::nullopt);
  EXPECT_EQ(lastResult(), 0);
}

TEST_F(ACallToVelad, KeepsOnlyTheCodeOfADaemonErrorThatCameWithoutAValue) {
  answerWith(member::kGetLocusDeviceId.name, {}, kDaemonError);
  EXPECT_EQ(session_->locusDeviceId(), std::nullopt);
  EXPECT_EQ(lastResult(), 3);
}

TEST_F(ACallToVelad, ReturnsAValueThatCameTogetherWithAnError) {
  answerWith(member::kGetLocusDeviceId.name, {{std::string(key::kDeviceId), "device-7"}}, kDaemonError);
  EXPECT_EQ(session_->locusDeviceId(), "device-7");
  EXPECT_EQ(lastResult(), 3);
}

TEST_F(ACallToVelad, TellsANilReplyFromAnEmptyOne) {
  answerWith(member::kGetLocusDeviceId.name, {});
  EXPECT_EQ(session_->locusDeviceId(), std::nullopt);
  EXPECT_EQ(lastResult(), 0);

  answerWith(member::kGetLocusDeviceId.name, {{std::string(key::kDeviceId), ""}});
  EXPECT_EQ(session_->locusDeviceId(), std::optional<std::string>(""));
  EXPECT_EQ(lastResult(), 0);
}

TEST_F(ACallToVelad, SendsNilAsAnAbsentKeyAndEmptyAsAnEmptyString) {
  answerWith(member::kDisableLocusUsingToken.name, {});
  ASSERT_TRUE(control_->clearCallLog());
  EXPECT_EQ(session_->disableLocusUsingToken(std::nullopt, 7), std::nullopt);
  EXPECT_EQ(session_->disableLocusUsingToken("", -2), std::nullopt);

  const auto calls = callsTo(member::kDisableLocusUsingToken.name);
  ASSERT_EQ(calls.size(), 2U);
  EXPECT_EQ(calls[0].args, (VelaDictionary{{std::string(key::kContext), 7}}));
  EXPECT_EQ(calls[1].args, (VelaDictionary{{std::string(key::kToken), ""}, {std::string(key::kContext), -2}}));
}

// A reply that does not decode is a transport failure: the caller sees 106
// and no part of the reply.
struct UndecodableReply {
  const char* name;
  VelaDictionary values;
};

void PrintTo(const UndecodableReply& param, std::ostream* os) { *os << param.name; }

class AnUndecodableReply : public ASessionWithVelad, public ::testing::WithParamInterface<UndecodableReply> {};

TEST_P(AnUndecodableReply, IsReportedAsATransportFailure) {
  answerWith(member::kGetLocusAccount.name, GetParam().values);
  EXPECT_EQ(session_->locusAccount(), std::nullopt);
  EXPECT_EQ(lastResult(), VelaErrorCodeTimedOut);
}

INSTANTIATE_TEST_SUITE_P(
    WrongTypes, AnUndecodableReply,
    ::testing::Values(
        UndecodableReply{"NumberForAString", {{"username", 5}, {"personID", "p1"}}},
        UndecodableReply{"ArrayForAString", {{"username", "u1"}, {"personID", VelaArray{"p1"}}}},
        UndecodableReply{"StringForTheError", {{"username", "u1"}, {"personID", "p1"}, {"error", "bad"}}},
        UndecodableReply{"ErrorWithoutCode",
                         {{"username", "u1"}, {"personID", "p1"}, {"error", VelaDictionary{{"domain", "d"}}}}},
        UndecodableReply{
            "ErrorCodeAsString",
            {{"username", "u1"}, {"personID", "p1"}, {"error", VelaDictionary{{"domain", "d"}, {"code", "3"}}}}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(ACallToVelad, TreatsAReplyOfTheWrongSignatureAsATransportFailure) {
  behave(member::kGetStoreAccount.name, "malformed");
  EXPECT_EQ(session_->storeAccount(), std::nullopt);
  EXPECT_EQ(lastResult(), VelaErrorCodeTimedOut);
  // The connection is still good for the next call.
  ASSERT_TRUE(control_->resetBehaviors());
  EXPECT_TRUE(session_->storeAccount());
}

TEST_F(ACallToVelad, KeepsAHalfKnownAccountFromTheCaller) {
  answerWith(member::kGetLocusAccount.name, {{"username", "u1"}}, VelaError("d", 5));
  EXPECT_EQ(session_->locusAccount(), std::nullopt);
  EXPECT_EQ(lastResult(), 5);

  std::optional<VelaDictionary> accounts;
  EXPECT_EQ(session_->retrieveAllAccounts(accounts), nullptr);
  EXPECT_FALSE(accounts) << "the slot stays untouched without an account";
}

TEST_F(ACallToVelad, BuildsEveryAccountFromTheLocatingAccount) {
  answerWith(member::kGetLocusAccount.name, {{"username", "u1"}, {"personID", "p1"}}, VelaError("d", 5));
  EXPECT_EQ(session_->locusAccount(), (VelaDictionary{{"username", "u1"}, {"personID", "p1"}}));
  EXPECT_EQ(lastResult(), 5);

  std::optional<VelaDictionary> accounts;
  EXPECT_EQ(session_->retrieveAllAccounts(accounts), nullptr);
  const VelaDictionary inner{{"enabledDataclasses", VelaSet{{"com.zentrex.Dataclass.DeviceLocator"}}},
                             {"username", "u1"}};
  EXPECT_EQ(accounts, (VelaDictionary{{"u1", inner}}));
}

TEST_F(ACallToVelad, ReachesTheDaemonThroughThePublishedBuildingBlocks) {
  // The published pieces of a synchronous call, put together by hand.
  auto semaphore = VelaSemaphore::create();
  std::optional<std::string> value;
  auto proxy = __VELA_LINK_OBJ(session_, semaphore, "locusDeviceId", nullptr);
  ASSERT_TRUE(proxy);
  proxy->getLocusDeviceIdUsingCallback([&, semaphore](std::optional<std::string> id, std::optional<VelaError>) {
    value = std::move(id);
    __VELA_SIGNAL_SYNC(semaphore);
  });
  __VELA_WAIT_SYNC(semaphore);
  EXPECT_EQ(value, session_->locusDeviceId());

  __VELA_SIGNAL_SYNC(nullptr);  // does nothing
  EXPECT_EQ(__VELA_LINK_OBJ(nullptr, nullptr, "x", nullptr), nullptr);
}

TEST_F(ACallToVelad, IgnoresTransportErrorsOfAProxyWithoutHandlers) {
  velad_->kill(SIGKILL);
  ASSERT_TRUE(velad_->waitForExit());
  auto proxy = __VELA_LINK_OBJ(session_, nullptr, "kithDeviceId", nullptr);
  proxy->getKithDeviceIdUsingCallback([](auto, auto) { FAIL() << "no daemon, no reply"; });
  // The error has nowhere to go; the next call shows the session is fine.
  EXPECT_FALSE(session_->kithDeviceId());
  EXPECT_EQ(lastResult(), VelaErrorCodeTimedOut);
}

TEST_F(ACallToVelad, MakesErrorsInTheLibraryDomain) {
  const VelaError timedOut = session_->newErrorForCode(106, "timed out");
  EXPECT_EQ(timedOut.domain(), "com.zentrex.VelaNotification");
  EXPECT_EQ(timedOut.code(), 106);
  EXPECT_EQ(timedOut.userInfo(), (VelaDictionary{{"failureReason", "timed out"}}));
  EXPECT_EQ(session_->newErrorForCode(-1, "x").code(), -1);
}

}  // namespace
}  // namespace vela::testing
