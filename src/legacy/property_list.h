// Property lists through libplist, binary and XML alike, within bounds that a hostile file
// cannot push past: its size, the nodes and bytes it expands to and how deeply it nests.
#pragma once

#include <plist/plist.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace corvane::legacy {

// A preference store is a few kilobytes; anything past this is not one.
inline constexpr size_t kMaxPropertyListBytes = 16u << 20;
// A binary list can name one object from many places; libplist copies the object each time,
// so a small file can describe an exponentially large tree. Counted before libplist sees it.
inline constexpr uint64_t kMaxPropertyListNodes = 1u << 20;
// The same sharing multiplies data and strings: every copy is materialised, first by libplist
// and again as channel values. This bounds the sum of the bytes of every data and string value
// as the tree holds them.
inline constexpr uint64_t kMaxPropertyListExpansion = 32u << 20;
// libplist parses and frees recursively.
inline constexpr int kMaxPropertyListDepth = 512;

struct PlistFree {
  void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using Plist = std::unique_ptr<void, PlistFree>;

// The root of the list in `data`, or null when it is neither format, malformed, or out of bounds.
Plist ParsePropertyList(const uint8_t* data, size_t size);

// True when a binary list's object graph stays within the node, byte and depth bounds (and is
// well-formed enough to walk). Exposed for tests.
bool BinaryPropertyListWithinBounds(const uint8_t* data, size_t size);

// `node` in the binary format; empty when libplist cannot write it.
std::vector<uint8_t> SerializeBinary(plist_t node);

}  // namespace corvane::legacy
