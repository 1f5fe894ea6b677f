// Runs one codec case a given number of times and nothing else, for counting instructions
// under callgrind: the count of N+K runs minus the count of N runs, over K, is the cost of one
// operation (decode includes freeing the decoded value), identical from run to run.
//
//   codec_count send_call|listing|bytes_1mib encode|decode|memcpy RUNS
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "codec_messages.h"

namespace {

using namespace corvane;

// Keeps the compiler from dropping work whose result is unused.
template <typename T>
void Keep(const T& value) {
  asm volatile("" : : "r"(&value) : "memory");
}

int Run(std::string_view shape, std::string_view op, long runs) {
  const bool is_call = shape == "send_call";
  channel::MethodCall call;
  channel::Value value;
  if (is_call) {
    call = bench::SendCall();
  } else if (shape == "listing") {
    value = bench::Listing();
  } else if (shape == "bytes_1mib") {
    value = bench::Frame();
  } else {
    return 2;
  }
  const channel::Bytes bytes =
      is_call ? channel::EncodeMethodCall(call) : channel::EncodeMessage(value);
  if (op == "encode") {
    for (long i = 0; i < runs; ++i) {
      channel::Bytes out =
          is_call ? channel::EncodeMethodCall(call) : channel::EncodeMessage(value);
      Keep(out);
    }
  } else if (op == "decode") {
    for (long i = 0; i < runs; ++i) {
      if (is_call) {
        auto decoded = channel::DecodeMethodCall(bytes);
        if (!decoded) return 1;
        Keep(decoded);
      } else {
        auto decoded = channel::DecodeMessage(bytes);
        if (!decoded) return 1;
        Keep(decoded);
      }
    }
  } else if (op == "memcpy") {
    // The same baseline as the timed benchmark: the payload for the byte array, else the
    // whole message.
    const size_t n = shape == "bytes_1mib" ? value.bytes_if()->size() : bytes.size();
    channel::Bytes target(n);
    for (long i = 0; i < runs; ++i) {
      std::memcpy(target.data(), bytes.data() + (bytes.size() - n), n);
      Keep(target);
    }
  } else {
    return 2;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s send_call|listing|bytes_1mib encode|decode|memcpy RUNS\n",
                 argv[0]);
    return 2;
  }
  const int rc = Run(argv[1], argv[2], std::strtol(argv[3], nullptr, 10));
  if (rc == 2) std::fprintf(stderr, "codec_count: unknown case %s %s\n", argv[1], argv[2]);
  if (rc == 1) std::fprintf(stderr, "codec_count: decode failed\n");
  return rc;
}
