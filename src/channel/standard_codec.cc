#include "channel/standard_codec.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstring>

#include "channel/log.h"
#include "channel/utf8.h"

namespace corvane::channel {

static_assert(std::endian::native == std::endian::little,
              "the codec writes the host's byte order, which the wire fixes as little-endian");

namespace {

enum Tag : uint8_t {
  kTagNull = 0,
  kTagTrue = 1,
  kTagFalse = 2,
  kTagInt32 = 3,
  kTagInt64 = 4,
  kTagLargeInt = 5,  // retired by Flutter; never written, rejected when read
  kTagFloat64 = 6,
  kTagString = 7,
  kTagUint8List = 8,
  kTagInt32List = 9,
  kTagInt64List = 10,
  kTagFloat64List = 11,
  kTagList = 12,
  kTagMap = 13,
  kTagFloat32List = 14,
};

}  // namespace

// The codec's way into Value and ValueMap: decoding constructs every value where it will live
// and encoding reads the variant directly, so no value is built only to be moved or copied.
struct CodecAccess {
  using Data = decltype(Value::data_);
  static Data& data(Value& v) { return v.data_; }
  static const Data& data(const Value& v) { return v.data_; }
  static std::vector<MapEntry>& entries(ValueMap& m) { return m.entries_; }
};

namespace {

using Data = CodecAccess::Data;

// Writes through a cursor that each step takes and returns, so it lives in a register: a byte
// store through a member pointer would make the compiler reload the pointer after every store.
// Space is grown in bulk, so a small write is a store; Finish trims the vector to what was
// written.
class Writer {
 public:
  // `expected` is a guess at the encoded size, reserved up front so that common shapes never
  // reallocate.
  Writer(Bytes& out, size_t expected) : out_(out) {
    const size_t used = out.size();
    out.reserve(used + expected);
    // Zero-filled only as far as small writes need it: large payloads are appended directly.
    out.resize(used + std::min(expected, kFirstFill));
    Rebase();
    start_ = base_ + used;
  }
  uint8_t* start() const { return start_; }
  void Finish(uint8_t* p) { out_.resize(static_cast<size_t>(p - base_)); }

  uint8_t* Byte(uint8_t* p, uint8_t b) {
    p = Room(p, 1);
    *p++ = b;
    return p;
  }

  uint8_t* String(uint8_t* p, std::string_view s) { return StringInRoom(Room(p, kRoom), s); }

  uint8_t* Value(uint8_t* p, const channel::Value& v);

 private:
  // Room every value starts with: its tag, a five-byte size and a short payload of up to 16
  // bytes, or a tag, seven bytes of padding and an eight-byte scalar.
  static constexpr size_t kRoom = 32;
  static constexpr size_t kShort = 16;
  static constexpr size_t kBulk = 4096;
  static constexpr size_t kFirstFill = 256;

  void Rebase() {
    base_ = out_.data();
    end_ = base_ + out_.size();
  }
  uint8_t* Room(uint8_t* p, size_t n) {
    if (static_cast<size_t>(end_ - p) < n) p = Grow(p, n);
    return p;
  }
  uint8_t* Grow(uint8_t* p, size_t n);
  uint8_t* Repaired(uint8_t* p, std::string_view s);

  // A string never leaves malformed: Dart's decoder would throw and lose the whole message.
  // A short one (keys, ids) is checked for ASCII from the words that copy it.
  [[gnu::always_inline]] uint8_t* StringInRoom(uint8_t* p, std::string_view s) {
    *p++ = kTagString;
    const auto* data = reinterpret_cast<const uint8_t*>(s.data());
    const size_t n = s.size();
    if (n > kShort) return Checked(p, s);
    uint8_t* end = Size(p, n);
    if ((Short(end, data, n) & 0x8080808080808080ull) != 0) [[unlikely]]
      return Checked(p, s);
    return end + n;
  }
  // Out of line, so that the common path of a short ASCII string keeps its registers.
  [[gnu::noinline]] uint8_t* Checked(uint8_t* p, std::string_view s) {
    const auto* data = reinterpret_cast<const uint8_t*>(s.data());
    if (!IsValidUtf8(data, s.size())) return Repaired(p, s);
    return Raw(Size(p, s.size()), data, s.size());
  }
  uint8_t* Bulk(uint8_t* p, const uint8_t* data, size_t n);

  template <typename T>
  static uint8_t* Put(uint8_t* p, T v) {
    std::memcpy(p, &v, sizeof v);
    return p + sizeof v;
  }
  static uint8_t* Size(uint8_t* p, size_t n) {
    if (n < 254) {
      *p++ = static_cast<uint8_t>(n);
    } else if (n <= 0xffff) {
      *p++ = 254;
      p = Put(p, static_cast<uint16_t>(n));
    } else {
      *p++ = 255;
      p = Put(p, static_cast<uint32_t>(n));
    }
    return p;
  }
  // Alignment is relative to the start of the vector, as Dart's WriteBuffer does it. Eight
  // zeros are written (there is room) and the cursor moves past the padding only.
  uint8_t* Align(uint8_t* p, size_t alignment) const {
    const size_t pad = (0 - static_cast<size_t>(p - base_)) & (alignment - 1);
    std::memset(p, 0, 8);
    return p + pad;
  }

  // Copies a payload of at most kShort bytes with two overlapping word copies instead of a
  // call to memcpy; returns the bytes or'ed together (a high bit set: not ASCII).
  [[gnu::always_inline]] static uint64_t Short(uint8_t* p, const uint8_t* s, size_t n) {
    if (n >= 8) {
      uint64_t head, tail;
      std::memcpy(&head, s, 8);
      std::memcpy(&tail, s + n - 8, 8);
      std::memcpy(p, &head, 8);
      std::memcpy(p + n - 8, &tail, 8);
      return head | tail;
    }
    if (n >= 4) {
      uint32_t head, tail;
      std::memcpy(&head, s, 4);
      std::memcpy(&tail, s + n - 4, 4);
      std::memcpy(p, &head, 4);
      std::memcpy(p + n - 4, &tail, 4);
      return head | tail;
    }
    uint64_t any = 0;
    for (size_t i = 0; i < n; ++i) any |= p[i] = s[i];
    return any;
  }

  // A payload after its header; a short one fits the room the value started with.
  uint8_t* Raw(uint8_t* p, const void* data, size_t n) {
    const auto* s = static_cast<const uint8_t*>(data);
    if (n <= kShort) {
      Short(p, s, n);
      return p + n;
    }
    if (n >= kBulk) return Bulk(p, s, n);
    p = Room(p, n);
    std::memcpy(p, s, n);
    return p + n;
  }

  template <typename T>
  uint8_t* TypedList(uint8_t* p, uint8_t tag, const std::vector<T>& list) {
    *p++ = tag;
    p = Size(p, list.size());
    p = Align(p, sizeof(T));  // even for an empty list, as Dart does
    return Raw(p, list.data(), list.size() * sizeof(T));
  }

  Bytes& out_;
  uint8_t* base_ = nullptr;
  uint8_t* end_ = nullptr;
  uint8_t* start_ = nullptr;
};

uint8_t* Writer::Grow(uint8_t* p, size_t n) {
  const size_t used = static_cast<size_t>(p - base_);
  // Doubling, but by at most 64 KiB past a large payload, and inside what is reserved when
  // that is enough.
  size_t target = used + std::max(n, std::min<size_t>(out_.size(), 64 * 1024));
  if (target > out_.capacity() && used + n <= out_.capacity()) target = out_.capacity();
  out_.resize(target);
  Rebase();
  return base_ + used;
}

std::atomic<size_t> g_repaired_strings{0};

// Out of line: only a bug elsewhere (a file name or device name passed on unchecked) gets here.
uint8_t* Writer::Repaired(uint8_t* p, std::string_view s) {
  const std::string valid = MakeValidUtf8(s);
  if (g_repaired_strings.fetch_add(1, std::memory_order_relaxed) == 0) {
    Log(LogLevel::kWarning, "corvane-channel",
        "a string that is not UTF-8 was about to be sent; its bad bytes were replaced by U+FFFD "
        "(logged once)");
  }
  return Raw(Size(p, valid.size()), valid.data(), valid.size());
}

// Large payloads go in with one copy, without zero-filling their space first.
uint8_t* Writer::Bulk(uint8_t* p, const uint8_t* data, size_t n) {
  out_.resize(static_cast<size_t>(p - base_));
  out_.insert(out_.end(), data, data + n);
  Rebase();
  return end_;
}

uint8_t* Writer::Value(uint8_t* p, const channel::Value& v) {
  p = Room(p, kRoom);
  const Data& d = CodecAccess::data(v);
  switch (static_cast<channel::Value::Type>(d.index())) {
    case channel::Value::Type::kNull:
      *p++ = kTagNull;
      return p;
    case channel::Value::Type::kBool:
      *p++ = *std::get_if<bool>(&d) ? kTagTrue : kTagFalse;
      return p;
    case channel::Value::Type::kInt32:
      *p++ = kTagInt32;
      return Put(p, *std::get_if<int32_t>(&d));
    case channel::Value::Type::kInt64: {
      // The width is chosen by value, not by C++ type, so both sides agree on the bytes.
      const int64_t i = *std::get_if<int64_t>(&d);
      if (i >= INT32_MIN && i <= INT32_MAX) {
        *p++ = kTagInt32;
        return Put(p, static_cast<int32_t>(i));
      }
      *p++ = kTagInt64;
      return Put(p, i);
    }
    case channel::Value::Type::kFloat64:
      *p++ = kTagFloat64;
      return Put(Align(p, 8), *std::get_if<double>(&d));
    case channel::Value::Type::kString:
      return StringInRoom(p, *std::get_if<std::string>(&d));
    case channel::Value::Type::kBytes: {
      const Bytes& b = *std::get_if<Bytes>(&d);
      *p++ = kTagUint8List;
      return Raw(Size(p, b.size()), b.data(), b.size());
    }
    case channel::Value::Type::kInt32List:
      return TypedList(p, kTagInt32List, *std::get_if<Int32List>(&d));
    case channel::Value::Type::kInt64List:
      return TypedList(p, kTagInt64List, *std::get_if<Int64List>(&d));
    case channel::Value::Type::kFloat32List:
      return TypedList(p, kTagFloat32List, *std::get_if<Float32List>(&d));
    case channel::Value::Type::kFloat64List:
      return TypedList(p, kTagFloat64List, *std::get_if<Float64List>(&d));
    case channel::Value::Type::kList: {
      const ValueList& list = *std::get_if<ValueList>(&d);
      *p++ = kTagList;
      p = Size(p, list.size());
      for (const auto& item : list) p = Value(p, item);
      return p;
    }
    case channel::Value::Type::kMap: {
      const ValueMap& map = *std::get_if<ValueMap>(&d);
      *p++ = kTagMap;
      p = Size(p, map.size());
      for (const auto& entry : map) {
        p = Value(p, entry.key);
        p = Value(p, entry.value);
      }
      return p;
    }
  }
  return p;
}

// A guess at the encoded size that avoids regrowth for the common shapes (byte payloads,
// small maps, lists of like elements) without walking the value twice.
size_t SizeHint(const Value& v, int depth = 0) {
  if (const Bytes* b = v.bytes_if()) return b->size() + 8;
  if (const ValueMap* m = v.map_if()) {
    // A small map by its entries' payloads, so that a call with a buffer in it is written
    // without growing; strings and buffers count whole, anything else as a scalar.
    if (m->size() > 16) return 16 + m->size() * 24;
    size_t n = 16;
    for (const auto& [key, value] : *m) {
      for (const Value* e : {&key, &value}) {
        const std::string* str = e->string_if();
        const Bytes* bytes = str ? nullptr : e->bytes_if();
        n += str ? str->size() + 6 : bytes ? bytes->size() + 6 : 12;
      }
    }
    return n;
  }
  if (const ValueList* l = v.list_if()) {
    // Judged by its first element: listings are lists of maps of one shape.
    if (l->empty() || depth > 0) return 16 + l->size() * 16;
    return 16 + l->size() * SizeHint(l->front(), depth + 1);
  }
  if (const std::string* s = v.string_if()) return s->size() + 8;
  return 32;
}

class Reader {
 public:
  explicit Reader(std::span<const uint8_t> bytes)
      : begin_(bytes.data()), cur_(bytes.data()), end_(bytes.data() + bytes.size()) {}

  const char* error() const { return error_; }
  size_t error_offset() const { return error_offset_; }
  size_t position() const { return static_cast<size_t>(cur_ - begin_); }
  bool at_end() const { return cur_ == end_; }
  size_t remaining() const { return static_cast<size_t>(end_ - cur_); }
  uint8_t peek() const { return *cur_; }  // only when !at_end()

  bool Fail(const char* what) { return FailAt(what, position()); }

  // Takes `n` elements from the message's budget.
  bool Spend(size_t n) {
    if (n > elements_left_) return Fail("too many elements in one message");
    elements_left_ -= n;
    return true;
  }
  bool FailAt(const char* what, size_t offset) {
    if (!error_) {
      error_ = what;
      error_offset_ = offset;
    }
    return false;
  }

  bool Byte(uint8_t& b) {
    if (cur_ == end_) return Fail("unexpected end of data");
    b = *cur_++;
    return true;
  }

  template <typename T>
  bool Scalar(T& v) {
    if (remaining() < sizeof(T)) return Fail("unexpected end of data");
    std::memcpy(&v, cur_, sizeof(T));
    cur_ += sizeof(T);
    return true;
  }

  bool Size(size_t& n) {
    uint8_t b;
    if (!Byte(b)) return false;
    if (b < 254) {
      n = b;
    } else if (b == 254) {
      uint16_t v;
      if (!Scalar(v)) return false;
      n = v;
    } else {
      uint32_t v;
      if (!Scalar(v)) return false;
      n = v;
    }
    return true;
  }

  bool Align(size_t alignment) {
    const size_t mod = position() % alignment;
    if (mod == 0) return true;
    if (remaining() < alignment - mod) return Fail("unexpected end of data in alignment padding");
    cur_ += alignment - mod;
    return true;
  }

  template <typename T>
  bool TypedList(Data& out) {
    size_t n;
    if (!Size(n) || !Align(sizeof(T))) return false;
    if (n > remaining() / sizeof(T)) return Fail("typed list longer than the data");
    // Emplaced empty, then filled: emplacing with arguments that may throw makes libstdc++
    // build a temporary variant and move it in.
    auto& list = out.emplace<std::vector<T>>();
    if constexpr (sizeof(T) == 1) {
      list.assign(cur_, cur_ + n);
    } else {
      list.resize(n);
      if (n) std::memcpy(list.data(), cur_, n * sizeof(T));
    }
    cur_ += n * sizeof(T);
    return true;
  }

  // The bytes of a string, checked: its size, then that many bytes of well-formed UTF-8.
  bool StringBytes(std::string_view& out) {
    size_t n;
    if (!Size(n)) return false;
    if (n > remaining()) return Fail("string longer than the data");
    if (!IsValidUtf8(cur_, n)) return Fail("string is not valid UTF-8");
    out = std::string_view(reinterpret_cast<const char*>(cur_), n);
    cur_ += n;
    return true;
  }

  bool ReadValue(Value& out, int depth = 0);

 private:
  const uint8_t* begin_;
  const uint8_t* cur_;
  const uint8_t* end_;
  const char* error_ = nullptr;
  size_t error_offset_ = 0;
  size_t elements_left_ = kMaxDecodedElements;
};

// Decodes into `out`, constructing the value where it stays.
bool Reader::ReadValue(Value& out, int depth) {
  uint8_t tag;
  if (!Byte(tag)) return false;
  Data& d = CodecAccess::data(out);
  switch (tag) {
    case kTagNull:
      d.emplace<std::monostate>();
      return true;
    case kTagTrue:
      d.emplace<bool>(true);
      return true;
    case kTagFalse:
      d.emplace<bool>(false);
      return true;
    case kTagInt32: {
      int32_t v;
      if (!Scalar(v)) return false;
      d.emplace<int32_t>(v);
      return true;
    }
    case kTagInt64: {
      int64_t v;
      if (!Scalar(v)) return false;
      d.emplace<int64_t>(v);
      return true;
    }
    case kTagFloat64: {
      double v;
      if (!Align(8) || !Scalar(v)) return false;
      d.emplace<double>(v);
      return true;
    }
    case kTagString: {
      std::string_view s;
      if (!StringBytes(s)) return false;
      d.emplace<std::string>().append(s.data(), s.size());
      return true;
    }
    case kTagUint8List:
      return TypedList<uint8_t>(d);
    case kTagInt32List:
      return TypedList<int32_t>(d);
    case kTagInt64List:
      return TypedList<int64_t>(d);
    case kTagFloat32List:
      return TypedList<float>(d);
    case kTagFloat64List:
      return TypedList<double>(d);
    case kTagList: {
      if (depth >= kMaxNestingDepth) return Fail("nesting too deep");
      size_t n;
      if (!Size(n)) return false;
      // Every element takes at least one byte, so a larger count is a lie; checking first
      // keeps a hostile count from reserving gigabytes.
      if (n > remaining()) return Fail("list longer than the data");
      if (!Spend(n)) return false;
      ValueList& list = d.emplace<ValueList>();
      list.resize(n);
      for (auto& item : list) {
        if (!ReadValue(item, depth + 1)) return false;
      }
      return true;
    }
    case kTagMap: {
      if (depth >= kMaxNestingDepth) return Fail("nesting too deep");
      size_t n;
      if (!Size(n)) return false;
      if (n > remaining() / 2) return Fail("map longer than the data");
      if (!Spend(2 * n)) return false;
      std::vector<MapEntry>& entries = CodecAccess::entries(d.emplace<ValueMap>());
      entries.resize(n);
      for (auto& entry : entries) {
        if (!ReadValue(entry.key, depth + 1) || !ReadValue(entry.value, depth + 1)) return false;
      }
      return true;
    }
    case kTagLargeInt:
      --cur_;
      return Fail("large integers (type 5) are not supported");
    default:
      --cur_;
      return Fail("unknown type tag");
  }
}

// The bodies of the decodes. Each fills the value in the caller's result, and on failure leaves
// the reason in the reader.
bool ReadCall(Reader& reader, MethodCall& call) {
  // The name is read straight into the call when it is a string, as it always is from Dart.
  if (!reader.at_end() && reader.peek() == kTagString) {
    uint8_t tag;
    std::string_view name;
    reader.Byte(tag);
    if (!reader.StringBytes(name)) return false;
    call.method.append(name.data(), name.size());
  } else {
    Value method;
    if (!reader.ReadValue(method)) return false;
    return reader.FailAt("method name is not a string", 0);
  }
  if (!reader.ReadValue(call.arguments)) return false;
  if (!reader.at_end()) return reader.Fail("bytes left over after the method call");
  return true;
}

// Takes the string out of a value already known to hold one.
std::string TakeString(Value& v) {
  return std::move(*std::get_if<std::string>(&CodecAccess::data(v)));
}

bool ReadEnvelope(Reader& reader, MethodReply& reply) {
  uint8_t status = 0;
  reader.Byte(status);
  if (status == 0) {
    reply.kind = MethodReply::Kind::kSuccess;
    if (!reader.ReadValue(reply.value)) return false;
  } else if (status == 1) {
    reply.kind = MethodReply::Kind::kError;
    Value code, message;
    if (!reader.ReadValue(code)) return false;
    if (!code.string_if()) return reader.FailAt("error code is not a string", 1);
    const size_t message_at = reader.position();
    if (!reader.ReadValue(message)) return false;
    if (!message.is_null() && !message.string_if()) {
      return reader.FailAt("error message is neither a string nor null", message_at);
    }
    if (!reader.ReadValue(reply.error.details)) return false;
    if (!reader.at_end()) {
      const size_t trace_at = reader.position();
      Value trace;
      if (!reader.ReadValue(trace)) return false;
      if (trace.string_if()) {
        reply.error.stacktrace = TakeString(trace);
      } else if (!trace.is_null()) {
        return reader.FailAt("error stacktrace is neither a string nor null", trace_at);
      }
    }
    reply.error.code = TakeString(code);
    if (message.string_if()) reply.error.message = TakeString(message);
  } else {
    return reader.FailAt("envelope status is neither success nor error", 0);
  }
  if (!reader.at_end()) return reader.Fail("bytes left over after the envelope");
  return true;
}

template <typename T>
void TakeFailure(Decoded<T>& result, const Reader& reader) {
  result.value.reset();
  result.error = reader.error();
  result.error_offset = reader.error_offset();
}

}  // namespace

void EncodeValue(const Value& value, Bytes& out) {
  Writer w(out, SizeHint(value));
  w.Finish(w.Value(w.start(), value));
}

Bytes EncodeMessage(const Value& value) {
  Bytes out;
  EncodeValue(value, out);
  return out;
}

Decoded<Value> DecodeMessage(std::span<const uint8_t> bytes) {
  Decoded<Value> result;
  Value& value = result.value.emplace();  // zero bytes decode to null
  if (bytes.empty()) return result;
  Reader reader(bytes);
  if (!reader.ReadValue(value) ||
      (!reader.at_end() && !reader.Fail("bytes left over after the value"))) {
    TakeFailure(result, reader);
  }
  return result;
}

Bytes EncodeMethodCall(const MethodCall& call) {
  Bytes out;
  Writer w(out, call.method.size() + 8 + SizeHint(call.arguments));
  w.Finish(w.Value(w.String(w.start(), call.method), call.arguments));
  return out;
}

Decoded<MethodCall> DecodeMethodCall(std::span<const uint8_t> bytes) {
  Decoded<MethodCall> result;
  Reader reader(bytes);
  if (!ReadCall(reader, result.value.emplace())) TakeFailure(result, reader);
  return result;
}

Bytes EncodeSuccessEnvelope(const Value& result) {
  Bytes out;
  Writer w(out, 1 + SizeHint(result));
  w.Finish(w.Value(w.Byte(w.start(), 0), result));
  return out;
}

Bytes EncodeErrorEnvelope(const MethodError& error) {
  Bytes out;
  Writer w(out, 16 + error.code.size() + SizeHint(error.details));
  uint8_t* p = w.String(w.Byte(w.start(), 1), error.code);
  p = error.message ? w.String(p, *error.message) : w.Byte(p, kTagNull);
  p = w.Value(p, error.details);
  if (error.stacktrace) p = w.String(p, *error.stacktrace);
  w.Finish(p);
  return out;
}

size_t RepairedStrings() { return g_repaired_strings.load(std::memory_order_relaxed); }

Decoded<MethodReply> DecodeEnvelope(std::span<const uint8_t> bytes) {
  Decoded<MethodReply> result;
  MethodReply& reply = result.value.emplace();  // zero bytes: not implemented
  if (bytes.empty()) return result;
  Reader reader(bytes);
  if (!ReadEnvelope(reader, reply)) TakeFailure(result, reader);
  return result;
}

}  // namespace corvane::channel
