// A value of Flutter's standard message codec. Maps keep insertion order so that what the
// Flutter side sent is what it gets back and encodings are reproducible.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace corvane::channel {

class Value;
struct MapEntry;
struct CodecAccess;  // lets the codec build values in place, without temporaries

using Bytes = std::vector<uint8_t>;
using Int32List = std::vector<int32_t>;
using Int64List = std::vector<int64_t>;
using Float32List = std::vector<float>;
using Float64List = std::vector<double>;
using ValueList = std::vector<Value>;

// An ordered map. Lookup is linear: codec maps are small, and order matters more than speed.
class ValueMap {
 public:
  ValueMap() = default;
  ValueMap(std::initializer_list<MapEntry> entries);
  ValueMap(const ValueMap&);
  ValueMap(ValueMap&&) noexcept;
  ValueMap& operator=(const ValueMap&);
  ValueMap& operator=(ValueMap&&) noexcept;
  ~ValueMap();

  // Appends without checking for an existing key, as the codec does when decoding.
  void Append(Value key, Value value);
  // Replaces the value of an existing string key, or appends it.
  void Set(std::string_view key, Value value);
  const Value* Find(std::string_view key) const;
  const Value* Find(const Value& key) const;

  size_t size() const;
  bool empty() const;
  void reserve(size_t n);
  std::vector<MapEntry>::const_iterator begin() const;
  std::vector<MapEntry>::const_iterator end() const;
  const std::vector<MapEntry>& entries() const { return entries_; }

  friend bool operator==(const ValueMap& a, const ValueMap& b);

 private:
  friend struct CodecAccess;
  std::vector<MapEntry> entries_;
};

class Value {
 public:
  enum class Type : uint8_t {
    kNull,
    kBool,
    kInt32,
    kInt64,
    kFloat64,
    kString,
    kBytes,
    kInt32List,
    kInt64List,
    kFloat32List,
    kFloat64List,
    kList,
    kMap,
  };

  Value() = default;
  explicit Value(std::nullptr_t) {}
  explicit Value(bool b) : data_(b) {}
  explicit Value(int32_t i) : data_(i) {}
  explicit Value(int64_t i) : data_(i) {}
  explicit Value(double d) : data_(d) {}
  explicit Value(std::string s) : data_(std::move(s)) {}
  explicit Value(std::string_view s) : data_(std::string(s)) {}
  explicit Value(const char* s) : data_(std::string(s)) {}
  explicit Value(Bytes b) : data_(std::move(b)) {}
  explicit Value(Int32List l) : data_(std::move(l)) {}
  explicit Value(Int64List l) : data_(std::move(l)) {}
  explicit Value(Float32List l) : data_(std::move(l)) {}
  explicit Value(Float64List l) : data_(std::move(l)) {}
  explicit Value(ValueList l) : data_(std::move(l)) {}
  explicit Value(ValueMap m) : data_(std::move(m)) {}

  // The narrowest integer type that holds `i`: what the Flutter side would send for it.
  static Value Integer(int64_t i);

  Type type() const { return static_cast<Type>(data_.index()); }
  bool is_null() const { return type() == Type::kNull; }

  // Typed access: null when the value holds another type.
  const bool* bool_if() const { return std::get_if<bool>(&data_); }
  const double* float64_if() const { return std::get_if<double>(&data_); }
  const std::string* string_if() const { return std::get_if<std::string>(&data_); }
  const Bytes* bytes_if() const { return std::get_if<Bytes>(&data_); }
  const Int32List* int32_list_if() const { return std::get_if<Int32List>(&data_); }
  const Int64List* int64_list_if() const { return std::get_if<Int64List>(&data_); }
  const Float32List* float32_list_if() const { return std::get_if<Float32List>(&data_); }
  const Float64List* float64_list_if() const { return std::get_if<Float64List>(&data_); }
  const ValueList* list_if() const { return std::get_if<ValueList>(&data_); }
  const ValueMap* map_if() const { return std::get_if<ValueMap>(&data_); }
  Bytes* mutable_bytes_if() { return std::get_if<Bytes>(&data_); }
  ValueList* mutable_list_if() { return std::get_if<ValueList>(&data_); }
  ValueMap* mutable_map_if() { return std::get_if<ValueMap>(&data_); }

  // One accessor for "an integer", whichever width it travelled in.
  std::optional<int64_t> integer() const;

  friend bool operator==(const Value& a, const Value& b);

 private:
  friend struct CodecAccess;
  std::variant<std::monostate, bool, int32_t, int64_t, double, std::string, Bytes, Int32List,
               Int64List, Float32List, Float64List, ValueList, ValueMap>
      data_;
};

struct MapEntry {
  Value key;
  Value value;
  friend bool operator==(const MapEntry&, const MapEntry&) = default;
};

// Defined here, where MapEntry is complete: with C++20's constexpr std::vector, clang
// instantiates these where they are declared and rejects the incomplete type.
inline ValueMap::ValueMap(const ValueMap&) = default;
inline ValueMap::ValueMap(ValueMap&&) noexcept = default;
inline ValueMap& ValueMap::operator=(const ValueMap&) = default;
inline ValueMap& ValueMap::operator=(ValueMap&&) noexcept = default;
inline ValueMap::~ValueMap() = default;
inline size_t ValueMap::size() const { return entries_.size(); }
inline bool ValueMap::empty() const { return entries_.empty(); }
inline void ValueMap::reserve(size_t n) { entries_.reserve(n); }
inline std::vector<MapEntry>::const_iterator ValueMap::begin() const { return entries_.begin(); }
inline std::vector<MapEntry>::const_iterator ValueMap::end() const { return entries_.end(); }

// Short description for log lines ("map(3)", "string", ...).
std::string_view TypeName(Value::Type type);

}  // namespace corvane::channel
