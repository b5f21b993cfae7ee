// SPDX-License-Identifier: MIT
// What velad shows on the bus: the published interface, and how it treats
// requests that do not keep to it.
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "busctl.h"
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

// --- Introspection against the installed files ------------------------------

// An element of an introspection document.
struct Element {
  std::string name;
  std::map<std::string, std::string> attributes;
  std::vector<Element> children;
};

// Reads the part of XML introspection documents use (elements, quoted
// attributes, comments, a DOCTYPE), on its own rather than through the
// protocol's reader, so that a fault of that reader cannot hide on both
// sides of a comparison. nullopt, with `whyNot` set, on anything else.
class XmlReader {
 public:
  explicit XmlReader(std::string_view xml) : xml_(xml) {}

  std::optional<Element> document(std::string& whyNot) {
    std::vector<Element> open{Element{}};
    for (;;) {
      const std::size_t start = xml_.find('<', pos_);
      if (start == std::string_view::npos) break;
      pos_ = start;
      if (skip("<!--", "-->") || skip("<?", "?>") || skip("<!", ">")) continue;
      const std::size_t end = xml_.find('>', pos_);
      if (end == std::string_view::npos) return fail(whyNot, "unterminated tag");
      std::string_view tag = xml_.substr(pos_ + 1, end - pos_ - 1);
      pos_ = end + 1;
      if (!tag.empty() && tag.front() == '/') {
        if (open.size() < 2 || open.back().name != tag.substr(1))
          return fail(whyNot, "unbalanced </" + std::string(tag));
        Element closed = std::move(open.back());
        open.pop_back();
        open.back().children.push_back(std::move(closed));
        continue;
      }
      const bool empty = !tag.empty() && tag.back() == '/';
      if (empty) tag.remove_suffix(1);
      std::optional<Element> element = parseTag(tag);
      if (!element) return fail(whyNot, "unreadable tag <" + std::string(tag) + ">");
      if (empty) {
        open.back().children.push_back(std::move(*element));
      } else {
        open.push_back(std::move(*element));
      }
    }
    if (open.size() != 1 || open.front().children.size() != 1) return fail(whyNot, "not one root element");
    return std::move(open.front().children.front());
  }

 private:
  bool skip(std::string_view start, std::string_view end) {
    if (xml_.substr(pos_, start.size()) != start) return false;
    const std::size_t close = xml_.find(end, pos_ + start.size());
    pos_ = close == std::string_view::npos ? xml_.size() : close + end.size();
    return true;
  }

  static std::optional<Element> parseTag(std::string_view tag) {
    Element element;
    std::istringstream words{std::string(tag)};
    words >> element.name;
    if (element.name.empty()) return std::nullopt;
    std::string rest;
    std::getline(words, rest, '\0');
    std::string_view left = rest;
    for (;;) {
      const std::size_t equals = left.find('=');
      if (equals == std::string_view::npos) break;
      std::string_view name = left.substr(0, equals);
      while (!name.empty() && std::isspace(static_cast<unsigned char>(name.front())) != 0) name.remove_prefix(1);
      while (!name.empty() && std::isspace(static_cast<unsigned char>(name.back())) != 0) name.remove_suffix(1);
      if (name.empty() || equals + 1 >= left.size()) return std::nullopt;
      const char quote = left[equals + 1];
      const std::size_t close = left.find(quote, equals + 2);
      if ((quote != '"' && quote != '\'') || close == std::string_view::npos) return std::nullopt;
      element.attributes.emplace(name, left.substr(equals + 2, close - equals - 2));
      left.remove_prefix(close + 1);
    }
    for (const char c : left) {
      if (std::isspace(static_cast<unsigned char>(c)) == 0) return std::nullopt;
    }
    return element;
  }

  static std::nullopt_t fail(std::string& whyNot, std::string why) {
    whyNot = std::move(why);
    return std::nullopt;
  }

  std::string_view xml_;
  std::size_t pos_ = 0;
};

// One line per element, indented by depth, attributes in name order: equal
// for two elements exactly when their names, attributes and children are.
void writeCanonical(const Element& element, std::string& out, int depth = 0) {
  out += std::string(2 * static_cast<std::size_t>(depth), ' ') + element.name;
  for (const auto& [name, value] : element.attributes) out += " " + name + "=\"" + value + "\"";
  out += '\n';
  for (const Element& child : element.children) writeCanonical(child, out, depth + 1);
}

std::string canonical(const Element& element) {
  std::string out;
  writeCanonical(element, out);
  return out;
}

// The <interface> elements of a <node>, by name, but the standard ones every
// object has.
std::map<std::string, const Element*> ownInterfaces(const Element& node) {
  std::map<std::string, const Element*> found;
  for (const Element& child : node.children) {
    if (child.name != "interface") continue;
    const auto name = child.attributes.find("name");
    if (name != child.attributes.end() && name->second.rfind("org.freedesktop.DBus.", 0) != 0) {
      found.emplace(name->second, &child);
    }
  }
  return found;
}

std::optional<Element> parsed(const std::string& xml, const std::string& what) {
  std::string whyNot;
  std::optional<Element> root = XmlReader(xml).document(whyNot);
  EXPECT_TRUE(root) << what << ": " << whyNot;
  return root;
}

// Each published file, and the object velad describes it on.
struct PublishedFile {
  std::string file;
  std::string path;
};

std::vector<PublishedFile> publishedFiles() {
  return {
      {"com.zentrex.VelaNotification.HandsetActions.xml", std::string(protocol::kObjectPath)},
      {"com.zentrex.VelaNotification.clientnotify.xml",
       protocol::notificationCenterPath(protocol::kClientNotifyCenter)},
  };
}

// velad as the system service runs it: no testing interface. Its
// introspection is read by busctl, not by any code of ours.
class VeladIntrospection : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!onPath("busctl")) {
      GTEST_SKIP() << "busctl (Debian package systemd) is not installed: there is no independent reader of "
                      "velad's introspection";
    }
    bus_.emplace();
    velad_.emplace(std::vector<std::string>{}, VeladMode::kService);
  }

  // What busctl reads from Introspect at `path`; "" on failure, recorded.
  std::string introspect(const std::string& path) {
    const std::string command = "busctl --xml-interface introspect --address=" + shellQuoted(bus_->address()) + " -- " +
                                shellQuoted(protocol::kServiceName) + " " + shellQuoted(path);
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    if (!pipe) {
      ADD_FAILURE() << "cannot run " << command;
      return {};
    }
    std::string output;
    std::array<char, 4096> buffer{};
    for (std::size_t n = 0; (n = std::fread(buffer.data(), 1, buffer.size(), pipe.get())) > 0;)
      output.append(buffer.data(), n);
    const int status = pclose(pipe.release());
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      ADD_FAILURE() << "busctl ended with status " << status << " for " << command;
      return {};
    }
    return output;
  }

  std::optional<PrivateBus> bus_;
  std::optional<VeladProcess> velad_;
};

TEST_F(VeladIntrospection, DescribesEachObjectExactlyAsTheInstalledFileDoes) {
  for (const PublishedFile& published : publishedFiles()) {
    SCOPED_TRACE(published.file + " at " + published.path);
    const std::optional<Element> file =
        parsed(readFile((std::string(VELA_INTERFACE_DIR) + "/" + published.file).c_str()), published.file);
    const std::optional<Element> live = parsed(introspect(published.path), "introspection");
    if (!file || !live) continue;
    const auto described = ownInterfaces(*file);
    const auto served = ownInterfaces(*live);
    ASSERT_FALSE(described.empty());
    std::set<std::string> describedNames;
    std::set<std::string> servedNames;
    for (const auto& [name, element] : described) describedNames.insert(name);
    for (const auto& [name, element] : served) servedNames.insert(name);
    EXPECT_EQ(servedNames, describedNames);
    // Every method, signal, argument (name, type, direction) and annotation.
    for (const auto& [name, element] : described) {
      const auto serving = served.find(name);
      if (serving != served.end()) {
        EXPECT_EQ(canonical(*serving->second), canonical(*element)) << name;
      }
    }
  }
}

TEST_F(VeladIntrospection, EveryInstalledFileIsOneVeladServes) {
  std::set<std::string> installed;
  for (const auto& entry : std::filesystem::directory_iterator(VELA_INTERFACE_DIR)) {
    if (entry.path().extension() == ".xml") installed.insert(entry.path().filename().string());
  }
  std::set<std::string> checked;
  for (const PublishedFile& published : publishedFiles()) checked.insert(published.file);
  EXPECT_EQ(installed, checked);
}

TEST(PublishedNotificationCenter, DescribesTheSignalVeladEmits) {
  const std::optional<Element> file =
      parsed(readFile(VELA_INTERFACE_DIR "/com.zentrex.VelaNotification.clientnotify.xml"), "clientnotify");
  ASSERT_TRUE(file);
  const auto interfaces = ownInterfaces(*file);
  ASSERT_EQ(interfaces.size(), 1U);
  EXPECT_EQ(interfaces.begin()->first, protocol::kClientNotifyCenter);
  std::vector<std::string> signals;
  for (const Element& child : interfaces.begin()->second->children) {
    if (child.name != "signal") continue;
    std::string signature;
    for (const Element& arg : child.children) {
      if (arg.name == "arg") signature += arg.attributes.at("type");
    }
    signals.push_back(child.attributes.at("name") + "(" + signature + ")");
  }
  EXPECT_EQ(signals, std::vector<std::string>{std::string(protocol::kNotificationSignal) + "(sa{sv})"});
}

}  // namespace
}  // namespace vela::testing
