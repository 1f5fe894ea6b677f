#include "legacy/property_list.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace corvane::legacy {

namespace {

constexpr size_t kHeaderSize = 8;    // "bplist00"
constexpr size_t kTrailerSize = 32;  // sizes, object count, root and offset-table position

uint64_t ReadBigEndian(const uint8_t* p, size_t n) {
  uint64_t v = 0;
  for (size_t i = 0; i < n; ++i) v = (v << 8) | p[i];
  return v;
}

// The object table of a binary list, read only as far as needed to walk its references.
class BinaryGraph {
 public:
  BinaryGraph(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  bool Open() {
    if (size_ < kHeaderSize + kTrailerSize) return false;
    const uint8_t* trailer = data_ + size_ - kTrailerSize;
    offset_size_ = trailer[6];
    ref_size_ = trailer[7];
    count_ = ReadBigEndian(trailer + 8, 8);
    root_ = ReadBigEndian(trailer + 16, 8);
    table_ = ReadBigEndian(trailer + 24, 8);
    const uint64_t end = size_ - kTrailerSize;
    if (offset_size_ < 1 || offset_size_ > 8 || ref_size_ < 1 || ref_size_ > 8) return false;
    if (count_ == 0 || root_ >= count_ || table_ < kHeaderSize || table_ > end) return false;
    return count_ <= (end - table_) / offset_size_;
  }

  uint64_t count() const { return count_; }
  uint64_t root() const { return root_; }

  // The references held by object `index` (none for scalars) and the bytes its own value takes
  // once materialised; false when malformed. A dictionary's keys must be strings without a
  // NUL: libplist asserts on reading such a key, which would end the process.
  bool Children(uint64_t index, const uint8_t** refs, uint64_t* n, uint64_t* bytes) const {
    uint8_t type;
    uint64_t length, pos;
    if (!Object(index, &type, &length, &pos)) return false;
    *n = 0;
    *bytes = ValueBytes(type, length);
    if (type != 0xA && type != 0xC && type != 0xD) return true;  // array, set, dictionary
    const uint64_t end = size_ - kTrailerSize;
    const uint64_t refs_count = type == 0xD ? length * 2 : length;
    if (length > end || refs_count > (end - pos) / ref_size_) return false;
    *refs = data_ + pos;
    *n = refs_count;
    if (type == 0xD) {
      for (uint64_t i = 0; i < length; ++i) {
        const uint64_t key = Reference(*refs, i);
        if (key >= count_ || !StringWithoutNul(key)) return false;
      }
    }
    return true;
  }

  uint64_t Reference(const uint8_t* refs, uint64_t i) const {
    return ReadBigEndian(refs + i * ref_size_, ref_size_);
  }

 private:
  // Data and strings are copied out of the file, UTF-16 turned into UTF-8 (three bytes per
  // unit at most); a length past the end of the file is caught when the object is read.
  static uint64_t ValueBytes(uint8_t type, uint64_t length) {
    switch (type) {
      case 0x4:  // data
      case 0x5:  // ASCII
      case 0x7:  // UTF-8
        return length;
      case 0x6:  // UTF-16
        return length > UINT64_MAX / 3 ? UINT64_MAX : length * 3;
      default:
        return 0;
    }
  }

  // Object `index`'s type (high nibble of its marker), its length (count of bytes, units or
  // references) and where its contents begin.
  bool Object(uint64_t index, uint8_t* type, uint64_t* length, uint64_t* pos) const {
    const uint64_t offset = ReadBigEndian(data_ + table_ + index * offset_size_, offset_size_);
    const uint64_t end = size_ - kTrailerSize;
    if (offset < kHeaderSize || offset >= end) return false;
    const uint8_t marker = data_[offset];
    *type = marker >> 4;
    *pos = offset + 1;
    *length = marker & 0x0F;
    if (*length == 0x0F && *type >= 0x4) {  // the length follows as an integer object
      if (*pos >= end || (data_[*pos] & 0xF0) != 0x10) return false;
      const uint64_t width = uint64_t{1} << (data_[*pos] & 0x0F);
      if (width > 8 || end - *pos - 1 < width) return false;
      *length = ReadBigEndian(data_ + *pos + 1, width);
      *pos += 1 + width;
    }
    return true;
  }

  bool StringWithoutNul(uint64_t index) const {
    uint8_t type;
    uint64_t length, pos;
    if (!Object(index, &type, &length, &pos)) return false;
    const uint64_t end = size_ - kTrailerSize;
    const uint64_t unit = type == 0x5 ? 1 : type == 0x6 ? 2 : 0;  // ASCII, UTF-16
    if (unit == 0 || length > (end - pos) / unit) return false;
    for (uint64_t i = 0; i < length; ++i) {
      const uint8_t* c = data_ + pos + i * unit;
      if (c[0] == 0 && (unit == 1 || c[1] == 0)) return false;
    }
    return true;
  }

  const uint8_t* data_;
  size_t size_;
  uint8_t offset_size_ = 0;
  uint8_t ref_size_ = 0;
  uint64_t count_ = 0;
  uint64_t root_ = 0;
  uint64_t table_ = 0;
};

// A NUL in an XML list, raw or as a character reference, could end up inside a key, on which
// libplist asserts.
bool XmlMayHoldNul(std::string_view text) {
  if (text.find('\0') != std::string_view::npos) return true;
  for (size_t i = text.find("&#"); i != std::string_view::npos; i = text.find("&#", i + 2)) {
    size_t j = i + 2;
    const bool hex = j < text.size() && (text[j] == 'x' || text[j] == 'X');
    j += hex;
    while (j < text.size() && text[j] == '0') ++j;
    if (j < text.size() && text[j] == ';') return true;
  }
  return false;
}

// Nesting depth of an XML list, counting every opening array or dict tag that is not empty.
// Tags inside comments count too, which can only make the estimate larger.
int XmlDepth(std::string_view text) {
  int depth = 0, deepest = 0;
  for (size_t i = text.find('<'); i != std::string_view::npos; i = text.find('<', i + 1)) {
    std::string_view rest = text.substr(i + 1);
    const bool closing = !rest.empty() && rest[0] == '/';
    if (closing) rest.remove_prefix(1);
    size_t name = 0;
    if (rest.substr(0, 5) == "array") {
      name = 5;
    } else if (rest.substr(0, 4) == "dict") {
      name = 4;
    } else {
      continue;
    }
    const size_t close = rest.find('>', name);
    if (close == std::string_view::npos) break;
    if (closing) {
      depth -= depth > 0;
    } else if (rest[close - 1] != '/') {
      deepest = std::max(deepest, ++depth);
    }
  }
  return deepest;
}

}  // namespace

bool BinaryPropertyListWithinBounds(const uint8_t* data, size_t size) {
  BinaryGraph graph(data, size);
  if (!graph.Open()) return false;
  // Post-order walk that gives each object the nodes, bytes and depth of the tree it expands
  // to, computed once per object; a reference back into the current path is a cycle.
  enum : uint8_t { kUnseen, kOnPath, kDone };
  struct Expansion {
    uint64_t nodes = 0, bytes = 0;
    uint32_t depth = 0;
    // Sums saturate: a shared object may be counted more times than fit in 64 bits.
    void Add(const Expansion& child) {
      nodes = std::min(nodes + child.nodes, kMaxPropertyListNodes + 1);
      bytes = std::min(bytes + child.bytes, kMaxPropertyListExpansion + 1);
      depth = std::max(depth, child.depth + 1);
    }
    bool WithinBounds() const {
      return nodes <= kMaxPropertyListNodes && bytes <= kMaxPropertyListExpansion &&
             depth <= static_cast<uint32_t>(kMaxPropertyListDepth);
    }
  };
  struct Frame {
    uint64_t index;
    const uint8_t* refs;
    uint64_t n;
    uint64_t next;
    Expansion total;
  };
  std::vector<uint8_t> state(graph.count(), kUnseen);
  std::vector<Expansion> expansion(graph.count());
  std::vector<Frame> path;

  auto enter = [&](uint64_t index) {
    Frame f{index, nullptr, 0, 0, {1, 0, 1}};
    if (!graph.Children(index, &f.refs, &f.n, &f.total.bytes)) return false;
    f.total.bytes = std::min(f.total.bytes, kMaxPropertyListExpansion + 1);
    state[index] = kOnPath;
    path.push_back(f);
    return path.size() <= static_cast<size_t>(kMaxPropertyListDepth) && f.total.WithinBounds();
  };
  if (!enter(graph.root())) return false;
  while (!path.empty()) {
    Frame& top = path.back();
    if (top.next == top.n) {
      state[top.index] = kDone;
      expansion[top.index] = top.total;
      const Expansion done = top.total;
      path.pop_back();
      if (!path.empty()) {
        path.back().total.Add(done);
        if (!path.back().total.WithinBounds()) return false;
      }
      continue;
    }
    const uint64_t child = graph.Reference(top.refs, top.next++);
    if (child >= graph.count() || state[child] == kOnPath) return false;
    if (state[child] == kDone) {
      top.total.Add(expansion[child]);
      if (!top.total.WithinBounds()) return false;
      continue;
    }
    if (!enter(child)) return false;
  }
  return expansion[graph.root()].WithinBounds();
}

Plist ParsePropertyList(const uint8_t* data, size_t size) {
  if (!data || size == 0 || size > kMaxPropertyListBytes) return nullptr;
  const char* text = reinterpret_cast<const char*>(data);
  const auto length = static_cast<uint32_t>(size);
  plist_t root = nullptr;
  if (plist_is_binary(text, length)) {
    if (!BinaryPropertyListWithinBounds(data, size)) return nullptr;
    plist_from_bin(text, length, &root);
  } else {
    const std::string_view xml(text, size);
    if (XmlMayHoldNul(xml) || XmlDepth(xml) > kMaxPropertyListDepth) return nullptr;
    plist_from_xml(text, length, &root);
  }
  return Plist(root);
}

std::vector<uint8_t> SerializeBinary(plist_t node) {
  char* bytes = nullptr;
  uint32_t length = 0;
  plist_to_bin(node, &bytes, &length);
  if (!bytes) return {};
  std::vector<uint8_t> out(bytes, bytes + length);
  plist_to_bin_free(bytes);
  return out;
}

}  // namespace corvane::legacy
