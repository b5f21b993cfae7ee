// SPDX-License-Identifier: MIT
#include "introspection_document.h"

#include "published_interfaces.h"

namespace vela::daemon {
namespace {

// What sd-bus serves on every object besides the object's own interfaces.
constexpr std::string_view kStandardInterfaces = R"(  <interface name="org.freedesktop.DBus.Peer">
    <method name="Ping"/>
    <method name="GetMachineId">
      <arg name="machine_uuid" type="s" direction="out"/>
    </method>
  </interface>
  <interface name="org.freedesktop.DBus.Introspectable">
    <method name="Introspect">
      <arg name="xml_data" type="s" direction="out"/>
    </method>
  </interface>
  <interface name="org.freedesktop.DBus.Properties">
    <method name="Get">
      <arg name="interface_name" type="s" direction="in"/>
      <arg name="property_name" type="s" direction="in"/>
      <arg name="value" type="v" direction="out"/>
    </method>
    <method name="GetAll">
      <arg name="interface_name" type="s" direction="in"/>
      <arg name="props" type="a{sv}" direction="out"/>
    </method>
    <method name="Set">
      <arg name="interface_name" type="s" direction="in"/>
      <arg name="property_name" type="s" direction="in"/>
      <arg name="value" type="v" direction="in"/>
    </method>
    <signal name="PropertiesChanged">
      <arg name="interface_name" type="s"/>
      <arg name="changed_properties" type="a{sv}"/>
      <arg name="invalidated_properties" type="as"/>
    </signal>
  </interface>
)";

constexpr std::string_view kDocumentStart =
    R"(<!DOCTYPE node PUBLIC "-//freedesktop//DTD D-BUS Object Introspection 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd">
<node>
)";

}  // namespace

std::optional<std::string_view> publishedInterface(std::string_view interface) {
  const std::string start = "<interface name=\"" + std::string(interface) + "\">";
  static constexpr std::string_view kEnd = "</interface>";
  for (const PublishedDescription& description : kPublishedDescriptions) {
    const std::size_t begin = description.xml.find(start);
    if (begin == std::string_view::npos) continue;
    const std::size_t end = description.xml.find(kEnd, begin);
    if (end == std::string_view::npos) continue;
    return description.xml.substr(begin, end + kEnd.size() - begin);
  }
  return std::nullopt;
}

std::string describeInterface(std::string_view interface, const std::vector<std::string>& members,
                              bool notificationSignal) {
  std::string out = "<interface name=\"" + std::string(interface) + "\">\n";
  for (const std::string& member : members) {
    out += "    <method name=\"" + member + "\">\n";
    out += "      <arg name=\"request\" type=\"a{sv}\" direction=\"in\"/>\n";
    out += "      <arg name=\"reply\" type=\"a{sv}\" direction=\"out\"/>\n";
    out += "    </method>\n";
  }
  if (notificationSignal) {
    out += "    <signal name=\"Notification\">\n";
    out += "      <arg name=\"name\" type=\"s\"/>\n";
    out += "      <arg name=\"userInfo\" type=\"a{sv}\"/>\n";
    out += "    </signal>\n";
  }
  out += "  </interface>";
  return out;
}

std::string introspectionDocument(const std::vector<std::string_view>& interfaces,
                                  const std::vector<std::string>& children) {
  std::string out(kDocumentStart);
  out += kStandardInterfaces;
  for (const std::string_view interface : interfaces) {
    out += "  ";
    out += interface;
    out += '\n';
  }
  for (const std::string& child : children) out += "  <node name=\"" + child + "\"/>\n";
  out += "</node>\n";
  return out;
}

}  // namespace vela::daemon
