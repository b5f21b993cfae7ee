// SPDX-License-Identifier: MIT
// The D-Bus types of velad's replies, read off the wire by busctl rather than
// by our own reader. Ours takes any integer type for an integer, so a value
// sent as x where the interface promises i would pass every test that decodes
// with it, and break only a stricter client.
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "busctl.h"
#include "daemon_errors.h"
#include "protocol/introspection.h"
#include "protocol/names.h"
#include "velad_fixture.h"

namespace vela::testing {
namespace {

using nlohmann::json;

// key -> D-Bus type of the value in its variant.
using TypeMap = std::map<std::string, std::string>;

std::string readFile(const char* path) {
  std::ifstream in(path);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// busctl --json=short prints each entry of an a{sv} as
//   "key": {"type": "<signature of the value>", "data": <value>}
// and a nested a{sv}'s data as an object of such entries.
std::string typeOf(const json& variant) {
  return variant.is_object() ? variant.value("type", "<no type>") : "<not a variant: " + variant.dump() + ">";
}

TypeMap typesOf(const json& dictionary) {
  TypeMap types;
  for (const auto& [key, entry] : dictionary.items()) types[key] = typeOf(entry);
  return types;
}

// What lies at `pointer` in busctl's output, or null when nothing does, so
// that a missing part fails the comparison instead of the test program.
json at(const json& output, const std::string& pointer) {
  const json::json_pointer path(pointer);
  return output.contains(path) ? output.at(path) : json();
}

// The types of the items of an av, or of the members of a set's (av).
std::vector<std::string> itemTypes(const json& items) {
  std::vector<std::string> types;
  for (const json& item : items) types.push_back(typeOf(item));
  return types;
}

// The reply keys the interface XML lists for each member, with records (the
// types named by a class) as the a{sv} they travel as.
std::map<std::string, TypeMap> publishedReplyKeys() {
  std::string whyNot;
  const auto methods =
      protocol::readInterfaceMethods(readFile(VELA_INTERFACE_XML), protocol::kHandsetActionsInterface, &whyNot);
  EXPECT_TRUE(methods) << whyNot;
  std::map<std::string, TypeMap> keys;
  for (const protocol::MethodDescription& method : methods.value_or(std::vector<protocol::MethodDescription>{})) {
    TypeMap& types = keys[method.name];
    const auto annotation = method.annotations.find("com.zentrex.VelaNotification.ReplyKeys");
    std::istringstream list(annotation != method.annotations.end() ? annotation->second : "");
    for (std::string item; list >> item;) {
      const auto colon = item.find(':');
      const std::string type = item.substr(colon + 1);
      types[item.substr(0, colon)] = type.rfind("Vela", 0) == 0 ? "a{sv}" : type;
    }
  }
  return keys;
}

constexpr const char* kKithAccount =
    "1 account 'a{sv}' 3 '$class' s VelaKithAccountInfo username s bob appAuthTokenStatus i 7";
constexpr const char* kRegion =
    "2 regionIdentifier s home location 'a{sv}' 4 '$class' s VelaGeoLocation latitude d 52.5 longitude d 13.4"
    " timestamp '(d)' 1700000000";
constexpr const char* kLostMode =
    "1 info 'a{sv}' 4 '$class' s VelaLostModeInfo lostModeEnabled b true message s 'Call me' phoneNumber s 555-0100";

class VeladOnTheWire : public AVelad {
 protected:
  void SetUp() override {
    if (!onPath("busctl")) {
      GTEST_SKIP() << "busctl (Debian package systemd) is not installed: there is no independent reader "
                      "for velad's raw replies";
    }
    AVelad::SetUp();
  }

  std::optional<json> busctlCall(std::string_view member, std::string_view request) {
    return testing::busctlCall(bus_->address(), member, request);
  }
};

// velad's own errors: "domain" s, "code" x (also when it would fit in 32
// bits), "userInfo" a{sv} holding the reason as "failureReason" s.
void expectDaemonError(const json& reply) {
  EXPECT_EQ(typesOf(at(reply, "/error/data")), (TypeMap{{"domain", "s"}, {"code", "x"}, {"userInfo", "a{sv}"}}));
  EXPECT_EQ(at(reply, "/error/data/domain/data"), std::string(daemon::kDaemonErrorDomain));
  EXPECT_EQ(typesOf(at(reply, "/error/data/userInfo/data")), (TypeMap{{"failureReason", "s"}}));
}

struct ReplyCase {
  const char* name;
  std::string member;
  std::string request;  // shell words, as above
  TypeMap replyTypes;   // the reply's keys and their types, exactly
  // Calls made first, to give velad something to report.
  std::vector<std::pair<std::string, std::string>> before = {};
};

// As the test's name shows it: the call in busctl's notation.
void PrintTo(const ReplyCase& c, std::ostream* os) { *os << c.member << " a{sv} " << c.request; }

class EveryMember : public VeladOnTheWire, public ::testing::WithParamInterface<ReplyCase> {};

TEST_P(EveryMember, AnswersOnlyPublishedKeysEachWithItsPublishedType) {
  const ReplyCase& c = GetParam();
  for (const auto& [member, request] : c.before) {
    ASSERT_TRUE(busctlCall(member, request)) << "setting up with " << member;
  }

  const std::optional<json> reply = busctlCall(c.member, c.request);
  ASSERT_TRUE(reply);
  EXPECT_EQ(typesOf(*reply), c.replyTypes) << c.member << " answered " << reply->dump();

  // Whatever velad answers must be what the published interface promises.
  const TypeMap published = publishedReplyKeys()[c.member];
  for (const auto& [key, type] : typesOf(*reply)) {
    if (key == "error") continue;
    const auto promised = published.find(key);
    if (promised == published.end()) {
      ADD_FAILURE() << c.member << " answers \"" << key << "\", which its ReplyKeys do not list";
    } else {
      EXPECT_EQ(type, promised->second) << c.member << " answers \"" << key << "\"";
    }
  }
  if (reply->contains("error")) expectDaemonError(*reply);
}

INSTANTIATE_TEST_SUITE_P(
    Velad, EveryMember,
    ::testing::Values(
        // Nothing but the outcome.
        ReplyCase{"EnableLostModeWithInfo", "EnableLostModeWithInfo", kLostMode, {}},
        ReplyCase{"DisableLostMode", "DisableLostMode", kNoKeys, {}},
        ReplyCase{"EnableLocusInContext", "EnableLocusInContext", "1 context i 7", {}},
        ReplyCase{"DisableLocusUsingToken", "DisableLocusUsingToken", "2 token s t0k3n context i 7", {}},
        ReplyCase{"DidEnterKithRegion", "DidEnterKithRegion", kRegion, {}},
        ReplyCase{"DidExitKithRegion", "DidExitKithRegion", kRegion, {}},
        ReplyCase{"AddKithAccount", "AddKithAccount", kKithAccount, {}},
        ReplyCase{"RemoveKithAccountWithUsername",
                  "RemoveKithAccountWithUsername",
                  "1 username s bob",
                  {},
                  {{"AddKithAccount", kKithAccount}}},
        ReplyCase{"VetEmailAccount", "VetEmailAccount", "1 account s ann@example.org", {}},
        ReplyCase{"CancelEmailVet", "CancelEmailVet", kNoKeys, {}},
        ReplyCase{"StartListeningOnTopic", "StartListeningOnTopic", "1 topic s news", {}},
        ReplyCase{"StopListeningOnTopic", "StopListeningOnTopic", "1 topic s news", {}},
        ReplyCase{"DumpDebugInfo", "DumpDebugInfo", "1 argument s all", {}},
        // One string.
        ReplyCase{"GetKithDeviceId", "GetKithDeviceId", kNoKeys, {{"deviceId", "s"}}},
        ReplyCase{"GetLocusDeviceId", "GetLocusDeviceId", kNoKeys, {{"deviceId", "s"}}},
        ReplyCase{"GetStoreAccount", "GetStoreAccount", kNoKeys, {{"account", "s"}}},
        // Two strings.
        ReplyCase{"GetLocusAccount", "GetLocusAccount", kNoKeys, {{"username", "s"}, {"personID", "s"}}},
        ReplyCase{"GetNimbusAccount", "GetNimbusAccount", kNoKeys, {{"username", "s"}, {"personID", "s"}}},
        // A 32-bit integer.
        ReplyCase{"GetLocusState", "GetLocusState", kNoKeys, {{"state", "i"}}},
        // A record, or nothing when there is none.
        ReplyCase{"RetrieveKithAccount",
                  "RetrieveKithAccount",
                  kNoKeys,
                  {{"account", "a{sv}"}},
                  {{"AddKithAccount", kKithAccount}}},
        ReplyCase{"RetrieveKithAccountWhenThereIsNone", "RetrieveKithAccount", kNoKeys, {}},
        // velad's own error, for a missing value and for an unknown account.
        ReplyCase{"StartListeningOnTopicWithoutATopic", "StartListeningOnTopic", kNoKeys, {{"error", "a{sv}"}}},
        ReplyCase{"RemoveKithAccountWithAnUnknownUsername",
                  "RemoveKithAccountWithUsername",
                  "1 username s nobody",
                  {{"error", "a{sv}"}},
                  {{"AddKithAccount", kKithAccount}}}),
    [](const ::testing::TestParamInfo<ReplyCase>& info) { return std::string(info.param.name); });

TEST_F(VeladOnTheWire, AnswersARecordWithEveryFieldTypedAsTheRecordDefinesIt) {
  // Every field set, additionalInfo holding one value of each property-list
  // type, some of them nested, and integers sent as i where x is their type.
  const std::string account =
      "1 account 'a{sv}' 10 '$class' s VelaKithAccountInfo"
      " dsid s 1234567 username s ann@example.org appAuthToken s app-token appAuthTokenStatus i -3"
      " internalAuthToken s internal-token velaServerHost s kith.example.org velaServerProtocolScheme s https"
      " velaRelayEnvironment s production"
      " additionalInfo 'a{sv}' 8 region s eu count i 5 on b true ratio d 0.5 seen '(d)' 1700000000.5"
      " blob ay 3 1 2 3 tags '(av)' 2 s a i 9 nested 'a{sv}' 2 items av 2 s one i 4 level i 2";
  const std::optional<json> added = busctlCall("AddKithAccount", account);
  ASSERT_TRUE(added);
  ASSERT_EQ(typesOf(*added), TypeMap{}) << added->dump();

  const std::optional<json> reply = busctlCall("RetrieveKithAccount", kNoKeys);
  ASSERT_TRUE(reply);
  ASSERT_EQ(typesOf(*reply), (TypeMap{{"account", "a{sv}"}})) << reply->dump();
  EXPECT_EQ(typesOf(at(*reply, "/account/data")), (TypeMap{{"$class", "s"},
                                                           {"dsid", "s"},
                                                           {"username", "s"},
                                                           {"appAuthToken", "s"},
                                                           {"appAuthTokenStatus", "i"},
                                                           {"internalAuthToken", "s"},
                                                           {"velaServerHost", "s"},
                                                           {"velaServerProtocolScheme", "s"},
                                                           {"velaRelayEnvironment", "s"},
                                                           {"additionalInfo", "a{sv}"}}));
  EXPECT_EQ(at(*reply, "/account/data/$class/data"), "VelaKithAccountInfo");
  EXPECT_EQ(at(*reply, "/account/data/appAuthTokenStatus/data"), -3);

  // Inside additionalInfo every value is a plain property-list value: its
  // integers are x at any depth, whatever type they arrived as.
  const json info = at(*reply, "/account/data/additionalInfo/data");
  EXPECT_EQ(typesOf(info), (TypeMap{{"region", "s"},
                                    {"count", "x"},
                                    {"on", "b"},
                                    {"ratio", "d"},
                                    {"seen", "(d)"},
                                    {"blob", "ay"},
                                    {"tags", "(av)"},
                                    {"nested", "a{sv}"}}));
  // A struct's data is the list of its members; a set's one member is the av.
  EXPECT_EQ(itemTypes(at(info, "/tags/data/0")), (std::vector<std::string>{"s", "x"}));
  EXPECT_EQ(typesOf(at(info, "/nested/data")), (TypeMap{{"items", "av"}, {"level", "x"}}));
  EXPECT_EQ(itemTypes(at(info, "/nested/data/items/data")), (std::vector<std::string>{"s", "x"}));
}

}  // namespace
}  // namespace vela::testing
