// SPDX-License-Identifier: MIT
// The one call of library_call.cpp made over bare sd-bus in C: the floor,
// with neither the library nor the C++ runtime to load.
#include <stdio.h>
#include <string.h>

#include <systemd/sd-bus.h>

// These mirror the protocol's names in src/protocol/names.h, which C cannot include.
static const char kServiceName[] = "com.zentrex.VelaNotification";
static const char kObjectPath[] = "/com/zentrex/VelaNotification";
static const char kHandsetActionsInterface[] = "com.zentrex.VelaNotification.HandsetActions";

// The string in "deviceId" of the a{sv} reply, skipping every other entry;
// it lives as long as the reply. NULL when the reply holds none or is malformed.
static const char* findDeviceId(sd_bus_message* reply) {
  const char* id = NULL;
  if (sd_bus_message_enter_container(reply, SD_BUS_TYPE_ARRAY, "{sv}") <= 0) return NULL;
  while (sd_bus_message_enter_container(reply, SD_BUS_TYPE_DICT_ENTRY, "sv") > 0) {
    const char* key = NULL;
    if (sd_bus_message_read_basic(reply, SD_BUS_TYPE_STRING, &key) < 0) return NULL;
    if (strcmp(key, "deviceId") == 0 && sd_bus_message_enter_container(reply, SD_BUS_TYPE_VARIANT, "s") > 0) {
      if (sd_bus_message_read_basic(reply, SD_BUS_TYPE_STRING, &id) < 0) return NULL;
      if (sd_bus_message_exit_container(reply) < 0) return NULL;
    } else if (sd_bus_message_skip(reply, "v") < 0) {
      return NULL;
    }
    if (sd_bus_message_exit_container(reply) < 0) return NULL;
  }
  if (sd_bus_message_exit_container(reply) < 0) return NULL;
  return id;
}

// The blocking call with an empty a{sv}. Returns 0 once it has printed the id.
static int callAndPrint(sd_bus* bus) {
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* reply = NULL;
  int result = -1;
  const int r = sd_bus_call_method(bus, kServiceName, kObjectPath, kHandsetActionsInterface, "GetLocusDeviceId", &error,
                                   &reply, "a{sv}", 0);
  if (r >= 0) {
    const char* id = findDeviceId(reply);
    if (id != NULL) {
      printf("%s\n", id);
      result = 0;
    } else {
      fprintf(stderr, "no device id in the reply\n");
    }
  } else {
    fprintf(stderr, "GetLocusDeviceId: %s\n", error.message != NULL ? error.message : strerror(-r));
  }
  sd_bus_message_unref(reply);
  sd_bus_error_free(&error);
  return result;
}

int main(void) {
  sd_bus* bus = NULL;
  const int r = sd_bus_open_system(&bus);
  if (r < 0) {
    fprintf(stderr, "sd_bus_open_system: %s\n", strerror(-r));
    return 1;
  }
  const int result = callAndPrint(bus);
  sd_bus_flush_close_unref(bus);
  return result == 0 ? 0 : 1;
}
