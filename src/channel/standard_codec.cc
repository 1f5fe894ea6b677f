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

class Writer {
 public:
  // Writes through a cursor into space grown in bulk, so small writes are a bounds check and a
  // store; the vector is trimmed to what was written when the writer goes.
  explicit Writer(Bytes& out) : out_(out), used_(out.size()) {}
  ~Writer() { out_.resize(used_); }

  void Byte(uint8_t b) {
    Reserve(1);
    out_[used_++] = b;
  }

  void Raw(const void* data, size_t n) {
    if (n == 0) return;  // an empty vector's data() may be null, which memcpy must not see
    if (n >= kBulk) {
      // Large payloads go in with one copy, without zero-filling their space first.
      out_.resize(used_);
      const auto* p = static_cast<const uint8_t*>(data);
      out_.insert(out_.end(), p, p + n);
      used_ = out_.size();
      return;
    }
    Reserve(n);
    std::memcpy(out_.data() + used_, data, n);
    used_ += n;
  }

  template <typename T>
  void Scalar(T v) {
    Reserve(sizeof v);
    std::memcpy(out_.data() + used_, &v, sizeof v);
    used_ += sizeof v;
  }

  void Size(size_t n) {
    if (n < 254) {
      Byte(static_cast<uint8_t>(n));
    } else if (n <= 0xffff) {
      Byte(254);
      Scalar(static_cast<uint16_t>(n));
    } else {
      Byte(255);
      Scalar(static_cast<uint32_t>(n));
    }
  }

  // Alignment is relative to the start of the message, as Dart's WriteBuffer does it.
  void Align(size_t alignment) {
    const size_t mod = used_ % alignment;
    if (mod == 0) return;
    Reserve(alignment - mod);
    std::memset(out_.data() + used_, 0, alignment - mod);
    used_ += alignment - mod;
  }

  template <typename T>
  void TypedList(uint8_t tag, const std::vector<T>& list) {
    Byte(tag);
    Size(list.size());
    Align(sizeof(T));  // even for an empty list, as Dart does
    Raw(list.data(), list.size() * sizeof(T));
  }

  void Value(const channel::Value& v);

 private:
  static constexpr size_t kBulk = 4096;
  void Reserve(size_t n) {
    if (used_ + n > out_.size()) {
      out_.resize(std::max(used_ + n, std::max<size_t>(64, out_.size() * 2)));
    }
  }
  Bytes& out_;
  size_t used_;
};

void Writer::Value(const channel::Value& v) {
  switch (v.type()) {
    case channel::Value::Type::kNull:
      Byte(kTagNull);
      return;
    case channel::Value::Type::kBool:
      Byte(*v.bool_if() ? kTagTrue : kTagFalse);
      return;
    case channel::Value::Type::kInt32:
    case channel::Value::Type::kInt64: {
      // The width is chosen by value, not by C++ type, so both sides agree on the bytes.
      const int64_t i = *v.integer();
      if (i >= INT32_MIN && i <= INT32_MAX) {
        Byte(kTagInt32);
        Scalar(static_cast<int32_t>(i));
      } else {
        Byte(kTagInt64);
        Scalar(i);
      }
      return;
    }
    case channel::Value::Type::kFloat64:
      Byte(kTagFloat64);
      Align(8);
      Scalar(*v.float64_if());
      return;
    case channel::Value::Type::kString: {
      const std::string& s = *v.string_if();
      Byte(kTagString);
      Size(s.size());
      Raw(s.data(), s.size());
      return;
    }
    case channel::Value::Type::kBytes: {
      const Bytes& b = *v.bytes_if();
      Byte(kTagUint8List);
      Size(b.size());
      Raw(b.data(), b.size());
      return;
    }
    case channel::Value::Type::kInt32List:
      TypedList(kTagInt32List, *v.int32_list_if());
      return;
    case channel::Value::Type::kInt64List:
      TypedList(kTagInt64List, *v.int64_list_if());
      return;
    case channel::Value::Type::kFloat32List:
      TypedList(kTagFloat32List, *v.float32_list_if());
      return;
    case channel::Value::Type::kFloat64List:
      TypedList(kTagFloat64List, *v.float64_list_if());
      return;
    case channel::Value::Type::kList: {
      const ValueList& list = *v.list_if();
      Byte(kTagList);
      Size(list.size());
      for (const auto& item : list) Value(item);
      return;
    }
    case channel::Value::Type::kMap: {
      const ValueMap& map = *v.map_if();
      Byte(kTagMap);
      Size(map.size());
      for (const auto& entry : map) {
        Value(entry.key);
        Value(entry.value);
      }
      return;
    }
  }
}

// Worst-case encoded size is hard to know up front; this estimate avoids most regrowth for
// the common shapes (byte payloads, small maps) without walking the value twice.
size_t SizeHint(const Value& v) {
  if (const Bytes* b = v.bytes_if()) return b->size() + 8;
  if (const ValueMap* m = v.map_if()) return 16 + m->size() * 24;
  if (const ValueList* l = v.list_if()) return 16 + l->size() * 64;
  return 32;
}

class Reader {
 public:
  explicit Reader(std::span<const uint8_t> bytes) : data_(bytes.data()), size_(bytes.size()) {}

  bool failed() const { return !error_.empty(); }
  const std::string& error() const { return error_; }
  size_t error_offset() const { return error_offset_; }
  size_t position() const { return pos_; }
  bool at_end() const { return pos_ == size_; }
  size_t remaining() const { return size_ - pos_; }

  bool Fail(const char* what) {
    if (error_.empty()) {
      error_ = what;
      error_offset_ = pos_;
    }
    return false;
  }

  bool Byte(uint8_t& b) {
    if (pos_ >= size_) return Fail("unexpected end of data");
    b = data_[pos_++];
    return true;
  }

  template <typename T>
  bool Scalar(T& v) {
    if (remaining() < sizeof(T)) return Fail("unexpected end of data");
    std::memcpy(&v, data_ + pos_, sizeof(T));
    pos_ += sizeof(T);
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
    const size_t mod = pos_ % alignment;
    if (mod == 0) return true;
    if (remaining() < alignment - mod) return Fail("unexpected end of data in alignment padding");
    pos_ += alignment - mod;
    return true;
  }

  template <typename T>
  bool TypedList(std::vector<T>& out) {
    size_t n;
    if (!Size(n) || !Align(sizeof(T))) return false;
    if (n > remaining() / sizeof(T)) return Fail("typed list longer than the data");
    if constexpr (sizeof(T) == 1) {
      out.assign(data_ + pos_, data_ + pos_ + n);
    } else {
      out.resize(n);
      if (n) std::memcpy(out.data(), data_ + pos_, n * sizeof(T));
    }
    pos_ += n * sizeof(T);
    return true;
  }

  bool String(std::string& out) {
    size_t n;
    if (!Size(n)) return false;
    if (n > remaining()) return Fail("string longer than the data");
    if (!IsValidUtf8(data_ + pos_, n)) return Fail("string is not valid UTF-8");
    out.assign(reinterpret_cast<const char*>(data_ + pos_), n);
    pos_ += n;
    return true;
  }

  bool ReadValue(Value& out, int depth = 0);

 private:
  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
  std::string error_;
  size_t error_offset_ = 0;
};

bool Reader::ReadValue(Value& out, int depth) {
  uint8_t tag;
  if (!Byte(tag)) return false;
  switch (tag) {
    case kTagNull:
      out = Value();
      return true;
    case kTagTrue:
      out = Value(true);
      return true;
    case kTagFalse:
      out = Value(false);
      return true;
    case kTagInt32: {
      int32_t v;
      if (!Scalar(v)) return false;
      out = Value(v);
      return true;
    }
    case kTagInt64: {
      int64_t v;
      if (!Scalar(v)) return false;
      out = Value(v);
      return true;
    }
    case kTagFloat64: {
      double v;
      if (!Align(8) || !Scalar(v)) return false;
      out = Value(v);
      return true;
    }
    case kTagString: {
      std::string s;
      if (!String(s)) return false;
      out = Value(std::move(s));
      return true;
    }
    case kTagUint8List: {
      Bytes b;
      if (!TypedList(b)) return false;
      out = Value(std::move(b));
      return true;
    }
    case kTagInt32List: {
      Int32List l;
      if (!TypedList(l)) return false;
      out = Value(std::move(l));
      return true;
    }
    case kTagInt64List: {
      Int64List l;
      if (!TypedList(l)) return false;
      out = Value(std::move(l));
      return true;
    }
    case kTagFloat32List: {
      Float32List l;
      if (!TypedList(l)) return false;
      out = Value(std::move(l));
      return true;
    }
    case kTagFloat64List: {
      Float64List l;
      if (!TypedList(l)) return false;
      out = Value(std::move(l));
      return true;
    }
    case kTagList: {
      if (depth >= kMaxNestingDepth) return Fail("nesting too deep");
      size_t n;
      if (!Size(n)) return false;
      // Every element takes at least one byte, so a larger count is a lie; checking first
      // keeps a hostile count from reserving gigabytes.
      if (n > remaining()) return Fail("list longer than the data");
      out = Value(ValueList());
      ValueList& list = *out.mutable_list_if();
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
      out = Value(ValueMap());
      ValueMap& map = *out.mutable_map_if();
      map.reserve(n);
      for (size_t i = 0; i < n; ++i) {
        Value key;
        Value value;
        if (!ReadValue(key, depth + 1) || !ReadValue(value, depth + 1)) return false;
        map.Append(std::move(key), std::move(value));
      }
      return true;
    }
    case kTagLargeInt:
      --pos_;
      return Fail("large integers (type 5) are not supported");
    default:
      --pos_;
      return Fail("unknown type tag");
  }
}

template <typename T>
Decoded<T> Failure(const Reader& reader) {
  Decoded<T> d;
  d.error = reader.error();
  d.error_offset = reader.error_offset();
  return d;
}

template <typename T>
Decoded<T> Failure(const char* what, size_t offset) {
  Decoded<T> d;
  d.error = what;
  d.error_offset = offset;
  return d;
}

}  // namespace

void EncodeValue(const Value& value, Bytes& out) { Writer(out).Value(value); }

Bytes EncodeMessage(const Value& value) {
  Bytes out;
  out.reserve(SizeHint(value));
  EncodeValue(value, out);
  return out;
}

Decoded<Value> DecodeMessage(std::span<const uint8_t> bytes) {
  Decoded<Value> result;
  if (bytes.empty()) {
    result.value.emplace();
    return result;
  }
  Reader reader(bytes);
  Value value;
  if (!reader.ReadValue(value)) return Failure<Value>(reader);
  if (!reader.at_end()) return Failure<Value>("bytes left over after the value", reader.position());
  result.value = std::move(value);
  return result;
}

Bytes EncodeMethodCall(const MethodCall& call) {
  Bytes out;
  out.reserve(call.method.size() + 8 + SizeHint(call.arguments));
  {
    Writer w(out);  // trims `out` to what was written when it goes
    w.Value(Value(call.method));
    w.Value(call.arguments);
  }
  return out;
}

Decoded<MethodCall> DecodeMethodCall(std::span<const uint8_t> bytes) {
  Reader reader(bytes);
  Value method;
  if (!reader.ReadValue(method)) return Failure<MethodCall>(reader);
  std::string* name = const_cast<std::string*>(method.string_if());
  if (!name) return Failure<MethodCall>("method name is not a string", 0);
  Value arguments;
  if (!reader.ReadValue(arguments)) return Failure<MethodCall>(reader);
  if (!reader.at_end()) {
    return Failure<MethodCall>("bytes left over after the method call", reader.position());
  }
  Decoded<MethodCall> result;
  result.value = MethodCall{std::move(*name), std::move(arguments)};
  return result;
}

Bytes EncodeSuccessEnvelope(const Value& result) {
  Bytes out;
  out.reserve(1 + SizeHint(result));
  {
    Writer w(out);
    w.Byte(0);
    w.Value(result);
  }
  return out;
}

Bytes EncodeErrorEnvelope(const MethodError& error) {
  Bytes out;
  out.reserve(16 + error.code.size() + SizeHint(error.details));
  {
    Writer w(out);
    w.Byte(1);
    w.Value(Value(error.code));
    w.Value(error.message ? Value(*error.message) : Value());
    w.Value(error.details);
    if (error.stacktrace) w.Value(Value(*error.stacktrace));
  }
  return out;
}

Decoded<MethodReply> DecodeEnvelope(std::span<const uint8_t> bytes) {
  Decoded<MethodReply> result;
  if (bytes.empty()) {
    result.value.emplace();  // not implemented
    return result;
  }
  Reader reader(bytes);
  uint8_t status;
  reader.Byte(status);
  MethodReply reply;
  if (status == 0) {
    reply.kind = MethodReply::Kind::kSuccess;
    if (!reader.ReadValue(reply.value)) return Failure<MethodReply>(reader);
  } else if (status == 1) {
    reply.kind = MethodReply::Kind::kError;
    Value code, message;
    if (!reader.ReadValue(code)) return Failure<MethodReply>(reader);
    if (!code.string_if()) return Failure<MethodReply>("error code is not a string", 1);
    const size_t message_at = reader.position();
    if (!reader.ReadValue(message)) return Failure<MethodReply>(reader);
    if (!message.is_null() && !message.string_if()) {
      return Failure<MethodReply>("error message is neither a string nor null", message_at);
    }
    if (!reader.ReadValue(reply.error.details)) return Failure<MethodReply>(reader);
    if (!reader.at_end()) {
      const size_t trace_at = reader.position();
      Value trace;
      if (!reader.ReadValue(trace)) return Failure<MethodReply>(reader);
      if (const std::string* s = trace.string_if()) {
        reply.error.stacktrace = *s;
      } else if (!trace.is_null()) {
        return Failure<MethodReply>("error stacktrace is neither a string nor null", trace_at);
      }
    }
    reply.error.code = *code.string_if();
    if (const std::string* s = message.string_if()) reply.error.message = *s;
  } else {
    return Failure<MethodReply>("envelope status is neither success nor error", 0);
  }
  if (!reader.at_end()) {
    return Failure<MethodReply>("bytes left over after the envelope", reader.position());
  }
  result.value = std::move(reply);
  return result;
}

}  // namespace corvane::channel
