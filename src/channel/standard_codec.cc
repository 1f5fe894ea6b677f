#include "channel/standard_codec.h"

#include <algorithm>
#include <bit>
#include <cstring>

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

class Writer {
 public:
  // Writes through a cursor into space grown in bulk, so a small write is a store; the vector
  // is trimmed to what was written when the writer goes. `expected` is a guess at the encoded
  // size, reserved up front so that common shapes never reallocate.
  Writer(Bytes& out, size_t expected) : out_(out) {
    const size_t used = out.size();
    out.reserve(used + expected);
    // Zero-filled only as far as small writes need it: large payloads are appended directly.
    out.resize(used + std::min(expected, kFirstFill));
    Rebase(used);
  }
  ~Writer() { out_.resize(static_cast<size_t>(cur_ - base_)); }

  void Byte(uint8_t b) {
    Ensure(1);
    *cur_++ = b;
  }

  void String(std::string_view s) {
    Ensure(kMaxHeader);
    *cur_++ = kTagString;
    Size(s.size());
    Raw(s.data(), s.size());
  }

  void Value(const channel::Value& v);

 private:
  // Tag, a five-byte size and seven bytes of padding, or a tag, padding and an eight-byte
  // scalar: the most a value writes before its payload.
  static constexpr size_t kMaxHeader = 16;
  static constexpr size_t kBulk = 4096;
  static constexpr size_t kFirstFill = 256;

  size_t Used() const { return static_cast<size_t>(cur_ - base_); }
  void Rebase(size_t used) {
    base_ = out_.data();
    cur_ = base_ + used;
    end_ = base_ + out_.size();
  }
  void Ensure(size_t n) {
    if (static_cast<size_t>(end_ - cur_) < n) Grow(n);
  }
  void Grow(size_t n) {
    const size_t used = Used();
    size_t target = std::max(used + n, out_.size() * 2);
    // Stay inside what is already reserved when that is enough.
    if (target > out_.capacity() && used + n <= out_.capacity()) target = out_.capacity();
    out_.resize(target);
    Rebase(used);
  }

  // The caller has ensured room for the header.
  template <typename T>
  void Put(T v) {
    std::memcpy(cur_, &v, sizeof v);
    cur_ += sizeof v;
  }
  void Size(size_t n) {
    if (n < 254) {
      *cur_++ = static_cast<uint8_t>(n);
    } else if (n <= 0xffff) {
      *cur_++ = 254;
      Put(static_cast<uint16_t>(n));
    } else {
      *cur_++ = 255;
      Put(static_cast<uint32_t>(n));
    }
  }
  // Alignment is relative to the start of the message, as Dart's WriteBuffer does it.
  void Align(size_t alignment) {
    while (Used() % alignment != 0) *cur_++ = 0;
  }

  void Raw(const void* data, size_t n) {
    const auto* p = static_cast<const uint8_t*>(data);
    if (n >= kBulk) {
      // Large payloads go in with one copy, without zero-filling their space first.
      out_.resize(Used());
      out_.insert(out_.end(), p, p + n);
      Rebase(out_.size());
      return;
    }
    Ensure(n);
    // Keys and short strings: two overlapping word copies instead of a call to memcpy.
    if (n >= 8 && n <= 16) {
      uint64_t head, tail;
      std::memcpy(&head, p, 8);
      std::memcpy(&tail, p + n - 8, 8);
      std::memcpy(cur_, &head, 8);
      std::memcpy(cur_ + n - 8, &tail, 8);
    } else if (n >= 4 && n < 8) {
      uint32_t head, tail;
      std::memcpy(&head, p, 4);
      std::memcpy(&tail, p + n - 4, 4);
      std::memcpy(cur_, &head, 4);
      std::memcpy(cur_ + n - 4, &tail, 4);
    } else if (n < 4) {
      for (size_t i = 0; i < n; ++i) cur_[i] = p[i];
    } else {
      std::memcpy(cur_, p, n);
    }
    cur_ += n;
  }

  template <typename T>
  void TypedList(uint8_t tag, const std::vector<T>& list) {
    *cur_++ = tag;
    Size(list.size());
    Align(sizeof(T));  // even for an empty list, as Dart does
    Raw(list.data(), list.size() * sizeof(T));
  }

  Bytes& out_;
  uint8_t* base_ = nullptr;
  uint8_t* cur_ = nullptr;
  uint8_t* end_ = nullptr;
};

void Writer::Value(const channel::Value& v) {
  Ensure(kMaxHeader);
  const Data& d = CodecAccess::data(v);
  switch (static_cast<channel::Value::Type>(d.index())) {
    case channel::Value::Type::kNull:
      *cur_++ = kTagNull;
      return;
    case channel::Value::Type::kBool:
      *cur_++ = *std::get_if<bool>(&d) ? kTagTrue : kTagFalse;
      return;
    case channel::Value::Type::kInt32:
      *cur_++ = kTagInt32;
      Put(*std::get_if<int32_t>(&d));
      return;
    case channel::Value::Type::kInt64: {
      // The width is chosen by value, not by C++ type, so both sides agree on the bytes.
      const int64_t i = *std::get_if<int64_t>(&d);
      if (i >= INT32_MIN && i <= INT32_MAX) {
        *cur_++ = kTagInt32;
        Put(static_cast<int32_t>(i));
      } else {
        *cur_++ = kTagInt64;
        Put(i);
      }
      return;
    }
    case channel::Value::Type::kFloat64:
      *cur_++ = kTagFloat64;
      Align(8);
      Put(*std::get_if<double>(&d));
      return;
    case channel::Value::Type::kString: {
      const std::string& s = *std::get_if<std::string>(&d);
      *cur_++ = kTagString;
      Size(s.size());
      Raw(s.data(), s.size());
      return;
    }
    case channel::Value::Type::kBytes: {
      const Bytes& b = *std::get_if<Bytes>(&d);
      *cur_++ = kTagUint8List;
      Size(b.size());
      Raw(b.data(), b.size());
      return;
    }
    case channel::Value::Type::kInt32List:
      TypedList(kTagInt32List, *std::get_if<Int32List>(&d));
      return;
    case channel::Value::Type::kInt64List:
      TypedList(kTagInt64List, *std::get_if<Int64List>(&d));
      return;
    case channel::Value::Type::kFloat32List:
      TypedList(kTagFloat32List, *std::get_if<Float32List>(&d));
      return;
    case channel::Value::Type::kFloat64List:
      TypedList(kTagFloat64List, *std::get_if<Float64List>(&d));
      return;
    case channel::Value::Type::kList: {
      const ValueList& list = *std::get_if<ValueList>(&d);
      *cur_++ = kTagList;
      Size(list.size());
      for (const auto& item : list) Value(item);
      return;
    }
    case channel::Value::Type::kMap: {
      const ValueMap& map = *std::get_if<ValueMap>(&d);
      *cur_++ = kTagMap;
      Size(map.size());
      for (const auto& entry : map) {
        Value(entry.key);
        Value(entry.value);
      }
      return;
    }
  }
}

// A guess at the encoded size that avoids regrowth for the common shapes (byte payloads,
// small maps, lists of like elements) without walking the value twice.
size_t SizeHint(const Value& v, int depth = 0) {
  if (const Bytes* b = v.bytes_if()) return b->size() + 8;
  if (const ValueMap* m = v.map_if()) return 16 + m->size() * 24;
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
    if constexpr (sizeof(T) == 1) {
      out.emplace<std::vector<T>>(cur_, cur_ + n);
    } else {
      auto& list = out.emplace<std::vector<T>>(n);
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
      d.emplace<std::string>(s);
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
      ValueList& list = d.emplace<ValueList>(n);
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
    call.method.assign(name);
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
std::string TakeString(Value& v) { return std::move(*std::get_if<std::string>(&CodecAccess::data(v))); }

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

void EncodeValue(const Value& value, Bytes& out) { Writer(out, SizeHint(value)).Value(value); }

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
  if (!reader.ReadValue(value) || (!reader.at_end() && !reader.Fail("bytes left over after the value"))) {
    TakeFailure(result, reader);
  }
  return result;
}

Bytes EncodeMethodCall(const MethodCall& call) {
  Bytes out;
  {
    Writer w(out, call.method.size() + 8 + SizeHint(call.arguments));
    w.String(call.method);
    w.Value(call.arguments);
  }  // the writer trims `out` to what was written when it goes
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
  {
    Writer w(out, 1 + SizeHint(result));
    w.Byte(0);
    w.Value(result);
  }
  return out;
}

Bytes EncodeErrorEnvelope(const MethodError& error) {
  Bytes out;
  {
    Writer w(out, 16 + error.code.size() + SizeHint(error.details));
    w.Byte(1);
    w.String(error.code);
    if (error.message) {
      w.String(*error.message);
    } else {
      w.Byte(kTagNull);
    }
    w.Value(error.details);
    if (error.stacktrace) w.String(*error.stacktrace);
  }
  return out;
}

Decoded<MethodReply> DecodeEnvelope(std::span<const uint8_t> bytes) {
  Decoded<MethodReply> result;
  MethodReply& reply = result.value.emplace();  // zero bytes: not implemented
  if (bytes.empty()) return result;
  Reader reader(bytes);
  if (!ReadEnvelope(reader, reply)) TakeFailure(result, reader);
  return result;
}

}  // namespace corvane::channel
