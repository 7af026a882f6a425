// Behaviour of PObject: value semantics and the read rules. Its text form is pinned
// where it shows, in the daemon's log of each request.
#include <gtest/gtest.h>

#include <stdexcept>

#include "foundation/object.h"

namespace {

TEST(PObjectValue, CopiesAreDeepAndAssigningFromOwnMemberIsSafe) {
    PObject a;
    a["list"].asArray().push_back(PObject("x"));
    a["map"]["inner"] = uint64_t{7};
    PObject b(a);
    b["map"]["inner"] = uint64_t{8};
    b["list"].asArray().push_back(PObject("y"));
    EXPECT_EQ(a["map"]["inner"].asInteger(), 7u);
    EXPECT_EQ(a["list"].asArray().size(), 1u);
    EXPECT_EQ(b.toString(), ustring("{\"list\": [\"x\", \"y\"], \"map\": {\"inner\": 8}}"));
    a = a["map"];
    EXPECT_EQ(a.toString(), ustring("{\"inner\": 7}"));
    PObject moved(std::move(a));
    EXPECT_TRUE(a.isNull());
    EXPECT_TRUE(moved.hasMember("inner"));
}

TEST(PObjectValue, AssignmentAndWritingAccessorsReplaceTheKind) {
    PObject o("text");
    o = int32_t{-1};
    EXPECT_EQ(o.asUInt64(), 18446744073709551615ull);
    EXPECT_EQ(o.asInt32(), -1);
    o.asArray().push_back(PObject("a"));
    EXPECT_TRUE(o.isArray());
    o["k"] = "v";  // a non-map becomes a map
    EXPECT_EQ(o.asMap().size(), 1u);
    o.clear();
    EXPECT_TRUE(o.isNull());
}

TEST(PObjectRead, WrongKindOrWidthReadsGiveZeroEmptyOrTheLowBits) {
    const PObject s("42");
    EXPECT_EQ(s.asInteger(), 0u);
    EXPECT_TRUE(s.asMap().empty());
    EXPECT_TRUE(s.asArray().empty());
    EXPECT_TRUE(s.asBinary().empty());
    EXPECT_TRUE(s["key"].isNull());
    EXPECT_TRUE(s[0].isNull());
    EXPECT_TRUE(s.isString());  // const reads changed nothing

    EXPECT_EQ(PObject(uint64_t{5}).asString(), ustring("5"));
    EXPECT_EQ(PObject(uint64_t{4294967297ull}).asString(), ustring("1")) << "low 32 bits only";
    EXPECT_EQ(PObject(uint64_t{4294967297ull}).toString(), ustring("4294967297"));
    PObject wide(uint64_t{0x1234567890ABCDEFull});
    EXPECT_EQ(wide.asUInt32(), 0x90ABCDEFu);
    EXPECT_EQ(wide.asUInt16(), 0xCDEFu);
    EXPECT_EQ(wide.asInt8(), static_cast<int8_t>(0xEF));

    EXPECT_TRUE(PObject("false").asBool()) << "truth is non-emptiness";
    EXPECT_FALSE(PObject("").asBool());
    EXPECT_FALSE(PObject(uint64_t{0}).asBool());
    EXPECT_FALSE(PObject(uint64_t{0}).isEmpty());
    PObject m;
    m.asMap();
    EXPECT_FALSE(m.asBool());
}

TEST(PObjectAccess, IndexesWalkMapsInKeyOrder) {
    PObject o;
    o["b"] = uint64_t{2};
    o["a"] = uint64_t{1};
    o["B"] = uint64_t{3};  // a key differing only in case is a different key
    const PObject& c = o;
    EXPECT_EQ(c[0].asInteger(), 3u);  // "B" sorts first
    EXPECT_EQ(c[1].asInteger(), 1u);
    EXPECT_TRUE(c[3].isNull());
    EXPECT_TRUE(c[-1].isNull());
    o[2] = uint64_t{9};
    EXPECT_EQ(c["b"].asInteger(), 9u);
    EXPECT_THROW(o[3], std::out_of_range);
    PObject arr;
    arr.asArray().push_back(PObject("e"));
    EXPECT_EQ(static_cast<const PObject&>(arr)[0].asString(), ustring("e"));
    EXPECT_THROW(arr[0], std::out_of_range);  // arrays are read through const access
}

}  // namespace
