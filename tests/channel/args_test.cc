#include <gtest/gtest.h>

#include "channel/args.h"

namespace corvane::channel {
namespace {

TEST(Args, WrongTypeReadsLikeMissing) {
  ValueMap m;
  m.Set("port", Value(int64_t{21105}));
  m.Set("host", Value(int32_t{7}));
  m.Set("ratio", Value(int32_t{3}));
  m.Set("empty", Value(""));
  const Value v(m);
  const Args args(v);
  EXPECT_EQ(args.int_in("port", 0, 65535), 21105);
  EXPECT_FALSE(args.int_in("port", 0, 100));
  EXPECT_EQ(args.string("host"), nullptr);
  EXPECT_EQ(args.string("missing"), nullptr);
  EXPECT_EQ(args.number("ratio"), 3.0) << "an integer reads as a number";
  EXPECT_FALSE(args.boolean("port"));
  EXPECT_NE(args.string("empty"), nullptr);
  EXPECT_EQ(args.non_empty_string("empty"), nullptr);

  const Value not_a_map(ValueList{});
  EXPECT_FALSE(Args(not_a_map).is_map());
  EXPECT_EQ(Args(not_a_map).string("host"), nullptr);
}

}  // namespace
}  // namespace corvane::channel
