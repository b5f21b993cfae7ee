// SPDX-License-Identifier: MIT
#include "notification_signal.h"

#include <string>

#include <systemd/sd-bus.h>

#include "platform/bus/bus_handles.h"
#include "platform/bus/variant_codec.h"
#include "protocol/names.h"

namespace vela::daemon {

int emitNotification(sd_bus* bus, std::string_view center, std::string_view name, const VelaDictionary& userInfo,
                     std::string_view destination) {
  const std::string interface(center);
  const std::string path = protocol::notificationCenterPath(center);
  if (sd_bus_interface_name_is_valid(interface.c_str()) == 0 || sd_bus_object_path_is_valid(path.c_str()) == 0) {
    return -EINVAL;
  }
  if (name.find('\0') != std::string_view::npos) return -EINVAL;
  sd_bus_message* raw = nullptr;
  int r = sd_bus_message_new_signal(bus, &raw, path.c_str(), interface.c_str(), protocol::kNotificationSignal.data());
  if (r < 0) return r;
  const bus::MessagePtr signal(raw);
  r = sd_bus_message_append_basic(signal.get(), SD_BUS_TYPE_STRING, std::string(name).c_str());
  if (r >= 0) r = bus::appendDictionary(signal.get(), userInfo);
  if (r >= 0 && !destination.empty()) {
    r = sd_bus_message_set_destination(signal.get(), std::string(destination).c_str());
  }
  if (r >= 0) r = sd_bus_send(bus, signal.get(), nullptr);
  return r < 0 ? r : 0;
}

}  // namespace vela::daemon
