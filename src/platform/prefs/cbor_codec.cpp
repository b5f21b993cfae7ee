// SPDX-License-Identifier: MIT
#include "platform/prefs/cbor_codec.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>

#include <cbor.h>

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

  // False when the value nests deeper than kMaxNestingDepth.
  bool put(const VelaValue& value, int depth) {
    return std::visit([this, depth](const auto& v) { return this->putAlternative(v, depth); }, value.storage());
  }

 private:
  template <typename T>
  bool putAlternative(const T& v, int depth) {
    if constexpr (std::is_same_v<T, std::string>) {
      text(v);
    } else if constexpr (std::is_same_v<T, std::int64_t>) {
      if (v >= 0) {
        head([&](unsigned char* b, std::size_t n) { return cbor_encode_uint(static_cast<std::uint64_t>(v), b, n); });
      } else {
        // CBOR stores a negative n as -1 - n; written this way INT64_MIN cannot overflow.
        const auto magnitude = static_cast<std::uint64_t>(-(v + 1));
        head([&](unsigned char* b, std::size_t n) { return cbor_encode_negint(magnitude, b, n); });
      }
    } else if constexpr (std::is_same_v<T, double>) {
      head([&](unsigned char* b, std::size_t n) { return cbor_encode_double(v, b, n); });
    } else if constexpr (std::is_same_v<T, bool>) {
      head([&](unsigned char* b, std::size_t n) { return cbor_encode_bool(v, b, n); });
    } else if constexpr (std::is_same_v<T, VelaDate>) {
      head([](unsigned char* b, std::size_t n) { return cbor_encode_tag(kEpochDateTag, b, n); });
      head([&](unsigned char* b, std::size_t n) { return cbor_encode_double(v.secondsSince1970, b, n); });
    } else if constexpr (std::is_same_v<T, VelaData>) {
      head([&](unsigned char* b, std::size_t n) { return cbor_encode_bytestring_start(v.size(), b, n); });
      out_.insert(out_.end(), v.begin(), v.end());
    } else if constexpr (std::is_same_v<T, VelaArray>) {
      return members(v, depth);
    } else if constexpr (std::is_same_v<T, VelaDictionary>) {
      if (depth >= kMaxNestingDepth) return false;
      head([&](unsigned char* b, std::size_t n) { return cbor_encode_map_start(v.size(), b, n); });
      return std::all_of(v.begin(), v.end(), [&](const auto& entry) {
        text(entry.first);
        return put(entry.second, depth + 1);
      });
    } else {
      static_assert(std::is_same_v<T, VelaSet>);
      head([](unsigned char* b, std::size_t n) { return cbor_encode_tag(kSetTag, b, n); });
      return members(v.members, depth);
    }
    return true;
  }

  // libcbor encodes heads into a caller's buffer, and picks the shortest
  // integer form itself.
  template <typename Fn>
  void head(Fn&& encode) {
    const std::size_t at = out_.size();
    out_.resize(at + kMaxHeadSize);
    out_.resize(at + std::forward<Fn>(encode)(out_.data() + at, kMaxHeadSize));
  }

  void text(const std::string& s) {
    head([&](unsigned char* b, std::size_t n) { return cbor_encode_string_start(s.size(), b, n); });
    out_.insert(out_.end(), s.begin(), s.end());
  }

  bool members(const VelaArray& array, int depth) {
    if (depth >= kMaxNestingDepth) return false;
    head([&](unsigned char* b, std::size_t n) { return cbor_encode_array_start(array.size(), b, n); });
    return std::all_of(array.begin(), array.end(), [&](const VelaValue& member) { return put(member, depth + 1); });
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
      if (cbor_is_float(tagged.get())) {
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
