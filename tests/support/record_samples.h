// SPDX-License-Identifier: MIT
#pragma once

#include <gtest/gtest.h>

#include <vela/VelaKithAccountInfo.h>

// Friends accounts that tests send around, and how to compare them: the
// description masks the tokens, so fields are compared one by one.
namespace vela::testing {

// Every field set, with a negative status.
inline VelaKithAccountInfo fullKithAccount() {
  VelaKithAccountInfo account;
  account.setDsid("1234567");
  account.setUsername("ann@example.org");
  account.setAppAuthToken("app-token");
  account.setAppAuthTokenStatus(-3);
  account.setAdditionalInfo(VelaDictionary{{"region", "eu"}});
  account.setVelaServerHost("kith.example.org");
  account.setVelaServerProtocolScheme("https");
  account.setVelaRelayEnvironment("production");
  account.setInternalAuthToken("internal-token");
  return account;
}

inline void expectSameKithAccount(const VelaKithAccountInfo& a, const VelaKithAccountInfo& b) {
  EXPECT_EQ(a.dsid(), b.dsid());
  EXPECT_EQ(a.username(), b.username());
  EXPECT_EQ(a.appAuthToken(), b.appAuthToken());
  EXPECT_EQ(a.appAuthTokenStatus(), b.appAuthTokenStatus());
  EXPECT_EQ(a.additionalInfo(), b.additionalInfo());
  EXPECT_EQ(a.velaServerHost(), b.velaServerHost());
  EXPECT_EQ(a.velaServerProtocolScheme(), b.velaServerProtocolScheme());
  EXPECT_EQ(a.velaRelayEnvironment(), b.velaRelayEnvironment());
  EXPECT_EQ(a.internalAuthToken(), b.internalAuthToken());
}

}  // namespace vela::testing
