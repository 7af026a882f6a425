// Behaviour of the system's string type: conversions, edits, order, normalization.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "foundation/ustring.h"

namespace {

std::u16string wide(const ustring& s) {
    return std::u16string(s.c_str());
}

TEST(UstringConversion, Utf8AndUtf16RoundTripAndIllFormedBytesSurvive) {
    for (const char* text : {"", "plain", "caf\xC3\xA9", "\xF0\x9F\x98\x80 emoji"}) {
        ustring back(ustring(text).c_str());
        EXPECT_STREQ(back.c_str_utf8(), text);
        EXPECT_TRUE(ustring::is_valid(back));
    }
    EXPECT_EQ(wide(ustring("\xF0\x9F\x98\x80")), std::u16string(u"\U0001F600"));
    EXPECT_EQ(ustring(u"\u00e9t\u00e9").size(), 5u);

    ustring bad("a\xFFz");
    EXPECT_FALSE(ustring::is_valid(bad));
    EXPECT_EQ(bad.c_str()[0], 0) << "no wide form";
    EXPECT_STREQ(bad.c_str_utf8(), "a\xFFz") << "the bytes themselves survive";
    EXPECT_FALSE(ustring::is_valid(ustring("\xC3")));
}

TEST(UstringConversion, WideFormFollowsEditsButNotReplace) {
    ustring s("abc");
    EXPECT_EQ(wide(s), u"abc");
    s.append("d");
    EXPECT_EQ(wide(s), u"abcd");
    s.assign(u"x/z");
    EXPECT_STREQ(s.c_str_utf8(), "x/z");
    EXPECT_EQ(wide(s), u"x/z");
    s.replace('/', '\\');
    EXPECT_STREQ(s.c_str_utf8(), "x\\z");
    EXPECT_EQ(wide(s), u"x/z") << "replace keeps the wide form as it stood";

    EXPECT_EQ(ustring("abc", 10).size(), 3u);
    EXPECT_EQ(ustring("abcdef", 2), ustring("ab"));
    s = "xy";
    s.append(s);
    s += s;
    EXPECT_EQ(s, ustring("xyxyxyxy")) << "appending itself is safe";
    s.append(s.c_str_utf8() + 2, 2);
    EXPECT_EQ(s, ustring("xyxyxyxyxy"));
    EXPECT_EQ(ustring(std::string("hello"), 1, 3), ustring("ell"));
}

TEST(UstringEdit, SubstrUsesBytesAndTrimStripsOnlyTheGivenSet) {
    ustring s("caf\xC3\xA9!");
    EXPECT_EQ(s.substr(3, 2), ustring("\xC3\xA9"));
    EXPECT_EQ(s.substr(4), ustring("\xA9!"));
    EXPECT_EQ(s.substr(0, ustring::npos), s);
    EXPECT_EQ(s.substr(6), ustring(""));
    EXPECT_THROW(s.substr(7), std::out_of_range);

    // Trimming strips only the given set.
    ustring t("  -x y-  ");
    EXPECT_EQ(ustring(t).trim(), ustring("-x y-"));
    EXPECT_EQ(ustring(t).trim(" -"), ustring("x y"));
    EXPECT_EQ(ustring(t).ltrim(" "), ustring("-x y-  "));
    EXPECT_EQ(ustring(t).rtrim(" "), ustring("  -x y-"));
}

TEST(UstringOrder, ComparesUnsignedBytesAndFoldsAsciiOnly) {
    EXPECT_LT(ustring("Z"), ustring("a"));
    EXPECT_LT(ustring("z"), ustring("\xC3\xA9"));  // a high byte is larger, not negative
    EXPECT_LT(ustring("ab"), ustring("abc"));
    EXPECT_EQ(ustring::compare("A", "a", true), 0);
    EXPECT_NE(ustring::compare("\xC3\x89", "\xC3\xA9", true), 0);  // É and é keep their case
    EXPECT_NE(ustring::compare("A", "a", false), 0);
    EXPECT_EQ(ustring("abcX").compare(ustring("abcY"), 3), 0);
    EXPECT_EQ(ustring("a").compare(ustring("b"), 0), 0);
}

TEST(UstringNormalization, ComposesAndDecomposes) {
    ustring composed("caf\xC3\xA9");
    ustring decomposed("cafe\xCC\x81");
    EXPECT_EQ(decomposed.normalize(ustring::NFC), composed);
    EXPECT_EQ(composed.normalize(ustring::NFD), decomposed);
    EXPECT_EQ(ustring::normalize(ustring(""), ustring::NFC), ustring(""));
}

}  // namespace
