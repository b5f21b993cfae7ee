// SPDX-License-Identifier: MIT
// The friends-locating account: added, read back and removed through velad.
#include "record_samples.h"
#include "records/archive_io.h"
#include "session_fixture.h"

namespace vela::testing {
namespace {

using namespace std::chrono_literals;
using AFriendsAccount = ASessionWithVelad;
namespace key = protocol::key;

constexpr std::string_view kDaemonDomain = "com.zentrex.VelaNotification.daemon";
constexpr std::int64_t kUnknownKithAccount = 2;

// A record the caller still holds from earlier, so that a test sees the
// out-reference being written rather than left alone.
std::shared_ptr<VelaKithAccountInfo> staleRecord() {
  auto stale = std::make_shared<VelaKithAccountInfo>();
  stale->setUsername("stale");
  return stale;
}

VelaDictionary replyHolding(const VelaKithAccountInfo& account) {
  return {{std::string(key::kAccount), records::archiveRecord(account)}};
}

TEST_F(AFriendsAccount, RoundTripsThroughVeladWithEveryFieldThenIsGone) {
  auto full = std::make_shared<VelaKithAccountInfo>(fullKithAccount());
  EXPECT_EQ(session_->addKithAccount(full), std::nullopt);
  EXPECT_EQ(lastResult(), 0);
  std::shared_ptr<VelaKithAccountInfo> read;
  EXPECT_EQ(session_->retrieveKithAccount(read), std::nullopt);
  ASSERT_TRUE(read);
  expectSameKithAccount(*read, *full);

  // A second account replaces the first. Nil fields come back nil, not
  // empty, and an empty one comes back empty.
  auto sparse = std::make_shared<VelaKithAccountInfo>();
  sparse->setUsername("bo");
  sparse->setDsid("");
  sparse->setAppAuthTokenStatus(INT32_MIN);
  sparse->setAdditionalInfo(VelaDictionary{{"seats", 5}, {"tags", VelaArray{"a", true}}});
  EXPECT_EQ(session_->addKithAccount(sparse), std::nullopt);
  EXPECT_EQ(session_->retrieveKithAccount(read), std::nullopt);
  ASSERT_TRUE(read);
  expectSameKithAccount(*read, *sparse);
  EXPECT_EQ(read->appAuthToken(), std::nullopt);

  EXPECT_EQ(session_->removeKithAccountWithUsername("bo"), std::nullopt);
  EXPECT_EQ(lastResult(), 0);
  read = staleRecord();
  EXPECT_EQ(session_->retrieveKithAccount(read), std::nullopt);
  EXPECT_EQ(read, nullptr);
  EXPECT_EQ(lastResult(), 0);
}

TEST_F(AFriendsAccount, RemovingAnUnknownUserNameGivesVeladsErrorAndKeepsTheAccount) {
  ASSERT_EQ(session_->addKithAccount(std::make_shared<VelaKithAccountInfo>(fullKithAccount())), std::nullopt);

  const auto error = session_->removeKithAccountWithUsername("bob");
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), kDaemonDomain);
  EXPECT_EQ(error->code(), kUnknownKithAccount);
  EXPECT_EQ(lastResult(), kUnknownKithAccount);

  std::shared_ptr<VelaKithAccountInfo> read;
  EXPECT_EQ(session_->retrieveKithAccount(read), std::nullopt);
  EXPECT_EQ(lastResult(), 0) << "the next operation starts from 0";
  ASSERT_TRUE(read);
  EXPECT_EQ(read->username(), "ann@example.org");
}

// What the daemon answers to a read decides both the returned error and the
// record written through the out-reference; neither hides the other.
TEST_F(AFriendsAccount, HandsBackRecordAndErrorIndependently) {
  const VelaKithAccountInfo sample = fullKithAccount();
  const VelaError refusal("com.example.kith", -4, {{"failureReason", "stale token"}});
  struct Case {
    const char* name;
    VelaDictionary values;
    std::optional<VelaError> error;
    bool recordExpected;
  };
  const Case cases[] = {
      {"record only", replyHolding(sample), std::nullopt, true},
      {"error only", {}, refusal, false},
      {"record and error", replyHolding(sample), refusal, true},
      {"neither", {}, std::nullopt, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    answerWith(member::kRetrieveKithAccount.name, c.values, c.error);
    auto read = staleRecord();
    const auto error = session_->retrieveKithAccount(read);
    EXPECT_EQ(error, c.error);
    EXPECT_EQ(lastResult(), c.error ? c.error->code() : 0);
    if (c.recordExpected) {
      ASSERT_TRUE(read);
      expectSameKithAccount(*read, sample);
    } else {
      EXPECT_EQ(read, nullptr);
    }
  }
}

TEST_F(AFriendsAccount, GivesUpOnASilentDaemonAtTheReplyTimeLimitAndWritesNil) {
  behave(member::kRetrieveKithAccount.name, "never");
  auto read = staleRecord();
  std::optional<VelaError> error;
  const auto took = timed([&] { error = session_->retrieveKithAccount(read); });
  expectTimedOut(error);
  EXPECT_GE(took, kReplyTimeLimit - 100ms);
  EXPECT_LT(took, 3 * kReplyTimeLimit);
  EXPECT_EQ(read, nullptr);
  EXPECT_EQ(lastResult(), VelaErrorCodeTimedOut);
}

}  // namespace
}  // namespace vela::testing
