// SPDX-License-Identifier: MIT
#include "platform/prefs/cbor_codec.h"

#include <cbor.h>

#include <limits>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>

namespace vela::prefs {
namespace {

// RFC 8949 tags: 1 is epoch-based date/time, 258 marks an array as a set.
constexpr std::uint64_t kEpochDateTag = 1;
constexpr std::uint64_t kSetTag = 258;
// Longest head libcbor writes: one initial byte and an 8-byte argument.
constexpr std::size_t kMaxHeadSize = 9;

class Encoder {
 public:
  std::vector<std::uint8_t> take() && { return std::move(out_); }

  bool put(const VelaValue& value, int depth) {
    return std::visit([&](const auto& v) { return putAlternative(v, depth); }, value.storage());
  }

 private:
  // libcbor encodes heads into a caller's buffer, and picks the shortest
  // integer form itself.
  template <typename Fn>
  void head(Fn&& encode) {
    const std::size_t at = out_.size();
    out_.resize(at + kMaxHeadSize);
    out_.resize(at + encode(out_.data() + at, kMaxHeadSize));
  }

  void bytes(const void* data, std::size_t size) {
    const auto* begin = static_cast<const std::uint8_t*>(data);
    out_.insert(out_.end(), begin, begin + size);
  }

  void text(const std::string& s) {
    head([&](unsigned char* b, std::size_t n) { return cbor_encode_string_start(s.size(), b, n); });
    bytes(s.data(), s.size());
  }

  bool members(const VelaArray& array, int depth) {
    if (depth >= kMaxNestingDepth) return false;
    head([&](unsigned char* b, std::size_t n) { return cbor_encode_array_start(array.size(), b, n); });
    for (const VelaValue& member : array) {
      if (!put(member, depth + 1)) return false;
    }
    return true;
  }

  bool putAlternative(const std::string& s, int) {
    text(s);
    return true;
  }
  bool putAlternative(std::int64_t i, int) {
    if (i >= 0) {
      head([&](unsigned char* b, std::size_t n) { return cbor_encode_uint(static_cast<std::uint64_t>(i), b, n); });
    } else {
      // CBOR stores a negative n as -1 - n; this form cannot overflow for INT64_MIN.
      const auto magnitude = static_cast<std::uint64_t>(-(i + 1));
      head([&](unsigned char* b, std::size_t n) { return cbor_encode_negint(magnitude, b, n); });
    }
    return true;
  }
  bool putAlternative(double d, int) {
    head([&](unsigned char* b, std::size_t n) { return cbor_encode_double(d, b, n); });
    return true;
  }
  bool putAlternative(bool flag, int) {
    head([&](unsigned char* b, std::size_t n) { return cbor_encode_bool(flag, b, n); });
    return true;
  }
  bool putAlternative(const VelaDate& date, int) {
    head([&](unsigned char* b, std::size_t n) { return cbor_encode_tag(kEpochDateTag, b, n); });
    return putAlternative(date.secondsSince1970, 0);
  }
  bool putAlternative(const VelaData& data, int) {
    head([&](unsigned char* b, std::size_t n) { return cbor_encode_bytestring_start(data.size(), b, n); });
    bytes(data.data(), data.size());
    return true;
  }
  bool putAlternative(const VelaArray& array, int depth) { return members(array, depth); }
  bool putAlternative(const VelaDictionary& dictionary, int depth) {
    if (depth >= kMaxNestingDepth) return false;
    head([&](unsigned char* b, std::size_t n) { return cbor_encode_map_start(dictionary.size(), b, n); });
    for (const auto& [key, member] : dictionary) {
      text(key);
      if (!put(member, depth + 1)) return false;
    }
    return true;
  }
  bool putAlternative(const VelaSet& set, int depth) {
    head([&](unsigned char* b, std::size_t n) { return cbor_encode_tag(kSetTag, b, n); });
    return members(set.members, depth);
  }

  std::vector<std::uint8_t> out_;
};

struct ItemRelease {
  void operator()(cbor_item_t* item) const { cbor_decref(&item); }
};
using ItemPtr = std::unique_ptr<cbor_item_t, ItemRelease>;

// Strings and byte strings may arrive in chunks (indefinite length); each
// chunk is itself a definite string of the same major type.
template <typename Out>
Out chunkedBytes(const cbor_item_t* item, bool text) {
  const auto definite = text ? cbor_string_is_definite(item) : cbor_bytestring_is_definite(item);
  Out out;
  auto append = [&out](const unsigned char* data, std::size_t size) {
    if (size != 0) out.insert(out.end(), data, data + size);
  };
  if (definite) {
    append(text ? cbor_string_handle(item) : cbor_bytestring_handle(item),
           text ? cbor_string_length(item) : cbor_bytestring_length(item));
    return out;
  }
  cbor_item_t** chunks = text ? cbor_string_chunks_handle(item) : cbor_bytestring_chunks_handle(item);
  const std::size_t count = text ? cbor_string_chunk_count(item) : cbor_bytestring_chunk_count(item);
  for (std::size_t i = 0; i < count; ++i) {
    append(text ? cbor_string_handle(chunks[i]) : cbor_bytestring_handle(chunks[i]),
           text ? cbor_string_length(chunks[i]) : cbor_bytestring_length(chunks[i]));
  }
  return out;
}

// libcbor 0.8 allocates and clears every slot of a definite array or map as
// soon as it reads the declared count, before any member arrives, so five bytes
// claiming billions of members cost gigabytes and seconds. A first pass over
// the heads with libcbor's streaming decoder refuses counts that the remaining
// bytes could not hold (each member takes at least one byte).
bool declaredCountsFit(std::span<const std::uint8_t> bytes) {
  struct Scan {
    std::size_t remaining = 0;
    bool fits = true;
  } scan;
  cbor_callbacks callbacks = cbor_empty_callbacks;
  callbacks.array_start = [](void* context, std::size_t count) {
    auto* s = static_cast<Scan*>(context);
    s->fits = s->fits && count <= s->remaining;
  };
  callbacks.map_start = [](void* context, std::size_t count) {
    auto* s = static_cast<Scan*>(context);
    s->fits = s->fits && count <= s->remaining / 2;
  };
  for (std::size_t offset = 0; offset < bytes.size() && scan.fits;) {
    scan.remaining = bytes.size() - offset;
    const cbor_decoder_result result = cbor_stream_decode(bytes.data() + offset, scan.remaining, &callbacks, &scan);
    if (result.status != CBOR_DECODER_FINISHED || result.read == 0) return false;
    offset += result.read;
  }
  return scan.fits;
}

std::optional<VelaValue> decodeItem(const cbor_item_t* item, int depth);

std::optional<VelaArray> decodeMembers(const cbor_item_t* array, int depth) {
  if (depth >= kMaxNestingDepth) return std::nullopt;
  cbor_item_t** handle = cbor_array_handle(array);
  const std::size_t size = cbor_array_size(array);
  VelaArray members;
  members.reserve(size);
  for (std::size_t i = 0; i < size; ++i) {
    auto member = decodeItem(handle[i], depth + 1);
    if (!member) return std::nullopt;
    members.push_back(std::move(*member));
  }
  return members;
}

std::optional<VelaValue> decodeMap(const cbor_item_t* map, int depth) {
  if (depth >= kMaxNestingDepth) return std::nullopt;
  const cbor_pair* pairs = cbor_map_handle(map);
  const std::size_t size = cbor_map_size(map);
  VelaDictionary dictionary;
  for (std::size_t i = 0; i < size; ++i) {
    if (!cbor_isa_string(pairs[i].key)) return std::nullopt;
    auto member = decodeItem(pairs[i].value, depth + 1);
    if (!member) return std::nullopt;
    // A map with a repeated key is not valid CBOR, and picking either value would be a guess.
    if (!dictionary.emplace(chunkedBytes<std::string>(pairs[i].key, true), std::move(*member)).second) {
      return std::nullopt;
    }
  }
  return dictionary;
}

std::optional<VelaValue> decodeTag(const cbor_item_t* tag, int depth) {
  const ItemPtr tagged(cbor_tag_item(tag));  // cbor_tag_item hands out a new reference
  if (!tagged) return std::nullopt;
  switch (cbor_tag_value(tag)) {
    case kEpochDateTag:
      if (cbor_isa_float_ctrl(tagged.get()) && cbor_is_float(tagged.get())) {
        return VelaDate{cbor_float_get_float(tagged.get())};
      }
      if (cbor_is_int(tagged.get())) {
        auto seconds = decodeItem(tagged.get(), depth);
        if (!seconds) return std::nullopt;
        return VelaDate{static_cast<double>(*seconds->getIf<std::int64_t>())};
      }
      return std::nullopt;
    case kSetTag:
      if (!cbor_isa_array(tagged.get())) return std::nullopt;
      if (auto members = decodeMembers(tagged.get(), depth)) return VelaSet{std::move(*members)};
      return std::nullopt;
    default:
      return std::nullopt;
  }
}

std::optional<VelaValue> decodeItem(const cbor_item_t* item, int depth) {
  constexpr auto kInt64Max = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  switch (cbor_typeof(item)) {
    case CBOR_TYPE_UINT: {
      const std::uint64_t v = cbor_get_int(item);
      if (v > kInt64Max) return std::nullopt;
      return VelaValue(static_cast<std::int64_t>(v));
    }
    case CBOR_TYPE_NEGINT: {
      const std::uint64_t n = cbor_get_int(item);
      if (n > kInt64Max) return std::nullopt;
      return VelaValue(-1 - static_cast<std::int64_t>(n));
    }
    case CBOR_TYPE_BYTESTRING:
      return VelaValue(chunkedBytes<VelaData>(item, false));
    case CBOR_TYPE_STRING:
      return VelaValue(chunkedBytes<std::string>(item, true));
    case CBOR_TYPE_ARRAY:
      if (auto members = decodeMembers(item, depth)) return VelaValue(std::move(*members));
      return std::nullopt;
    case CBOR_TYPE_MAP:
      return decodeMap(item, depth);
    case CBOR_TYPE_TAG:
      return decodeTag(item, depth);
    case CBOR_TYPE_FLOAT_CTRL:
      if (cbor_is_float(item)) return VelaValue(cbor_float_get_float(item));
      // Of the simple values only the booleans have a counterpart; null and
      // undefined would otherwise turn an absent value into a present one.
      if (cbor_is_bool(item)) return VelaValue(cbor_ctrl_value(item) == CBOR_CTRL_TRUE);
      return std::nullopt;
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::vector<std::uint8_t>> encodeValue(const VelaValue& value) {
  Encoder encoder;
  if (!encoder.put(value, 0)) return std::nullopt;
  return std::move(encoder).take();
}

std::optional<VelaValue> decodeValue(std::span<const std::uint8_t> bytes) {
  if (bytes.empty() || !declaredCountsFit(bytes)) return std::nullopt;
  cbor_load_result result{};
  const ItemPtr item(cbor_load(bytes.data(), bytes.size(), &result));
  if (!item || result.error.code != CBOR_ERR_NONE || result.read != bytes.size()) return std::nullopt;
  return decodeItem(item.get(), 0);
}

}  // namespace vela::prefs
