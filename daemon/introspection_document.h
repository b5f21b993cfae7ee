// SPDX-License-Identifier: MIT
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// What velad answers org.freedesktop.DBus.Introspectable.Introspect with.
//
// sd-bus builds introspection from vtables, and a vtable can say only a few
// things about a member (deprecated, no reply, privileged); the published
// interface files say more, in their own annotations (each member's request
// and reply keys, the names a notification center posts). Rather than keep
// a second, poorer description in step with them, velad serves the files
// themselves, built into it: a client introspecting velad reads what is
// installed under share/dbus-1/interfaces/, annotations and all, and the
// two cannot drift apart.
namespace vela::daemon {

// The <interface> element of `interface` as a file in interface/ has it, or
// nullopt when no file describes it.
std::optional<std::string_view> publishedInterface(std::string_view interface);

// An <interface> element for an interface no file describes (the testing
// interface): each member takes an a{sv} "request" and answers an a{sv}
// "reply". `notificationSignal` adds the notification signal, Notification(s name,
// a{sv} userInfo).
std::string describeInterface(std::string_view interface, const std::vector<std::string>& members,
                              bool notificationSignal);

// A whole introspection document: the standard interfaces sd-bus serves on
// every object, the given <interface> elements, and a <node> for each child.
std::string introspectionDocument(const std::vector<std::string_view>& interfaces,
                                  const std::vector<std::string>& children);

}  // namespace vela::daemon
