// SPDX-License-Identifier: MIT
#include "protocol/introspection.h"

#include <algorithm>
#include <array>
#include <cctype>

#include "protocol/members.h"

namespace vela::protocol {
namespace {

// Introspection documents use a small, regular part of XML: elements with
// quoted attributes, comments, a DOCTYPE without an internal subset. This
// reader understands exactly that and refuses anything it cannot follow.
class IntrospectionReader {
 public:
  explicit IntrospectionReader(std::string_view xml) : xml_(xml) {}

  struct Tag {
    std::string name;
    std::map<std::string, std::string, std::less<>> attributes;
    bool closing = false;      // </name>
    bool selfClosing = false;  // <name/>
  };

  // The next element tag; nullopt at the end of the document or on an error
  // (then error() is set).
  std::optional<Tag> next() {
    for (;;) {
      const std::size_t open = xml_.find('<', pos_);
      if (open == std::string_view::npos) return std::nullopt;
      pos_ = open;
      if (skip("<!--", "-->") || skip("<?", "?>") || skip("<!", ">")) {
        if (!error_.empty()) return std::nullopt;
        continue;
      }
      return tag();
    }
  }

  const std::string& error() const { return error_; }

 private:
  // Skips a construct that starts at pos_ with `start`; false when it is not
  // there.
  bool skip(std::string_view start, std::string_view end) {
    if (xml_.substr(pos_, start.size()) != start) return false;
    const std::size_t close = xml_.find(end, pos_ + start.size());
    if (close == std::string_view::npos) {
      error_ = "unterminated " + std::string(start);
      pos_ = xml_.size();
      return true;
    }
    pos_ = close + end.size();
    return true;
  }

  std::optional<Tag> tag() {
    Tag tag;
    ++pos_;  // '<'
    if (peek() == '/') {
      tag.closing = true;
      ++pos_;
    }
    tag.name = word();
    if (tag.name.empty()) return fail("element without a name");
    for (;;) {
      skipSpace();
      const char c = peek();
      if (c == '\0') return fail("unterminated tag <" + tag.name);
      if (c == '>') {
        ++pos_;
        return tag;
      }
      if (c == '/' && pos_ + 1 < xml_.size() && xml_[pos_ + 1] == '>') {
        pos_ += 2;
        tag.selfClosing = true;
        return tag;
      }
      std::string name = word();
      if (name.empty()) return fail("malformed attribute in <" + tag.name);
      skipSpace();
      if (peek() != '=') return fail("attribute " + name + " without a value");
      ++pos_;
      skipSpace();
      const char quote = peek();
      if (quote != '"' && quote != '\'') return fail("attribute " + name + " without quotes");
      const std::size_t end = xml_.find(quote, pos_ + 1);
      if (end == std::string_view::npos) return fail("unterminated attribute " + name);
      std::optional<std::string> value = decodeEntities(xml_.substr(pos_ + 1, end - pos_ - 1));
      if (!value) return fail("unknown entity in attribute " + name);
      tag.attributes.insert_or_assign(std::move(name), std::move(*value));
      pos_ = end + 1;
    }
  }

  static std::optional<std::string> decodeEntities(std::string_view raw) {
    static constexpr std::array<std::pair<std::string_view, char>, 5> kEntities = {
        {{"&lt;", '<'}, {"&gt;", '>'}, {"&amp;", '&'}, {"&quot;", '"'}, {"&apos;", '\''}}};
    std::string out;
    for (std::size_t i = 0; i < raw.size();) {
      if (raw[i] != '&') {
        out += raw[i++];
        continue;
      }
      bool known = false;
      for (const auto& [entity, c] : kEntities) {
        if (raw.substr(i, entity.size()) == entity) {
          out += c;
          i += entity.size();
          known = true;
          break;
        }
      }
      if (!known) return std::nullopt;
    }
    return out;
  }

  std::string word() {
    const std::size_t start = pos_;
    while (pos_ < xml_.size()) {
      const auto c = static_cast<unsigned char>(xml_[pos_]);
      if (std::isspace(c) != 0 || c == '=' || c == '/' || c == '>' || c == '<') break;
      ++pos_;
    }
    return std::string(xml_.substr(start, pos_ - start));
  }

  void skipSpace() {
    while (pos_ < xml_.size() && std::isspace(static_cast<unsigned char>(xml_[pos_])) != 0) ++pos_;
  }

  char peek() const { return pos_ < xml_.size() ? xml_[pos_] : '\0'; }

  std::nullopt_t fail(std::string why) {
    error_ = std::move(why);
    pos_ = xml_.size();
    return std::nullopt;
  }

  std::string_view xml_;
  std::size_t pos_ = 0;
  std::string error_;
};

std::string attribute(const IntrospectionReader::Tag& tag, std::string_view name) {
  const auto found = tag.attributes.find(name);
  return found != tag.attributes.end() ? found->second : std::string();
}

// Gathers the methods of one interface from the stream of tags.
class MethodCollector {
 public:
  explicit MethodCollector(std::string_view interface) : interface_(interface) {}

  void take(const IntrospectionReader::Tag& tag) {
    if (tag.name == "interface") {
      if (tag.closing) {
        inInterface_ = false;
      } else if (!tag.selfClosing && attribute(tag, "name") == interface_) {
        inInterface_ = true;
        found_ = true;
      }
    } else if (inInterface_) {
      takeInsideInterface(tag);
    }
  }

  bool found() const { return found_; }
  std::vector<MethodDescription>& methods() { return methods_; }

 private:
  void takeInsideInterface(const IntrospectionReader::Tag& tag) {
    if (tag.name == "method") {
      if (!tag.closing) methods_.push_back(MethodDescription{attribute(tag, "name"), {}, {}});
      inMethod_ = !tag.closing && !tag.selfClosing;
    } else if (tag.name == "signal" || tag.name == "property") {
      inMethod_ = false;
    } else if (inMethod_ && !tag.closing && tag.name == "arg") {
      methods_.back().arguments.push_back(
          ArgumentDescription{attribute(tag, "name"), attribute(tag, "type"), attribute(tag, "direction")});
    } else if (inMethod_ && !tag.closing && tag.name == "annotation") {
      methods_.back().annotations.insert_or_assign(attribute(tag, "name"), attribute(tag, "value"));
    }
  }

  std::string_view interface_;
  std::vector<MethodDescription> methods_;
  bool found_ = false;
  bool inInterface_ = false;
  // Arguments and annotations of signals and properties are not the
  // method's; only those directly inside <method> count.
  bool inMethod_ = false;
};

}  // namespace

std::optional<std::vector<MethodDescription>> readInterfaceMethods(std::string_view xml, std::string_view interface,
                                                                   std::string* whyNot) {
  IntrospectionReader reader(xml);
  MethodCollector collector(interface);
  while (std::optional<IntrospectionReader::Tag> tag = reader.next()) collector.take(*tag);
  if (!reader.error().empty()) {
    if (whyNot != nullptr) *whyNot = reader.error();
    return std::nullopt;
  }
  if (!collector.found()) {
    if (whyNot != nullptr) *whyNot = "no interface " + std::string(interface);
    return std::nullopt;
  }
  return std::move(collector.methods());
}

std::optional<std::string> compareWithDescription(const std::vector<MethodDescription>& methods) {
  auto annotation = [](const MethodDescription& method, std::string_view name) -> std::optional<std::string> {
    const auto found = method.annotations.find(name);
    if (found == method.annotations.end()) return std::nullopt;
    return found->second;
  };
  for (const MethodDescription& method : methods) {
    const Member* member = findMember(method.name);
    if (member == nullptr) return "the description lists " + method.name + ", which the protocol does not have";
    const bool dictionaryInAndOut = method.arguments.size() == 2 && method.arguments[0].type == "a{sv}" &&
                                    method.arguments[0].direction == "in" && method.arguments[1].type == "a{sv}" &&
                                    method.arguments[1].direction == "out";
    if (!dictionaryInAndOut) return method.name + " is not a{sv} -> a{sv} in the description";
    if (annotation(method, kRequestKeysAnnotation) != describeFields(member->request)) {
      return method.name + ": the description's request keys differ from the protocol's";
    }
    if (annotation(method, kReplyKeysAnnotation) != describeFields(member->reply)) {
      return method.name + ": the description's reply keys differ from the protocol's";
    }
  }
  for (const Member* member : kHandsetActionsMembers) {
    const bool described = std::any_of(methods.begin(), methods.end(),
                                       [&](const MethodDescription& method) { return method.name == member->name; });
    if (!described) return "the description lacks " + std::string(member->name);
  }
  if (methods.size() != kHandsetActionsMembers.size()) return "the description lists a member more than once";
  return std::nullopt;
}

}  // namespace vela::protocol
