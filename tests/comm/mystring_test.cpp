#include "comm/mystring.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

// A destination followed by a guard, to see that nothing is written past the buffer.
template <size_t N>
struct Guarded {
    char buf[N] = {};
    char guard[4] = {'G', 'G', 'G', 'G'};
    bool intact() const { return std::memcmp(guard, "GGGG", 4) == 0; }
};

const char kUtf8Zhongwen[] = "\xe4\xb8\xad\xe6\x96\x87";  // two Chinese characters
const char kGbZhongwen[] = "\xd6\xd0\xce\xc4";

TEST(TagValue, FirstElementEndTagOffsetIterationAndBounds) {
    char out[16] = "keep";
    EXPECT_EQ(-1, _get_valuefromstring_v1("a<x>12", "<x>", "</x>", out));
    EXPECT_STREQ("keep", out);  // untouched when a tag is missing
    char v[16] = {};
    EXPECT_EQ(6, _get_valuefromstring_v1("a<x>12</x>", "<x>", "</x>", v));
    EXPECT_STREQ("12", v);

    // Readers of repeated elements advance by the offset plus the end tag's length.
    std::string seen;
    for (const char* p = "<zn>a</zn><zn>bc</zn>\n<zn></zn>";;) {
        char item[8] = {};
        const int at = _get_valuefromstring_v1(p, "<zn>", "</zn>", item);
        if (at < 0) break;
        seen += std::string("[") + item + "]";
        p += at + 5;
    }
    EXPECT_EQ("[a][bc][]", seen);

    // Over-long or misordered values stay inside the buffer.
    Guarded<8> g;
    const std::string text = "<x>" + std::string(500, 'v') + "</x>";
    EXPECT_EQ(503, _get_valuefromstring_v1(text.c_str(), "<x>", "</x>", g.buf, sizeof g.buf));
    EXPECT_EQ(std::string(7, 'v'), g.buf);
    EXPECT_TRUE(g.intact());
    char misordered[8] = {};
    EXPECT_EQ(0, _get_valuefromstring_v1("</x>abc<x>", "<x>", "</x>", misordered));
    EXPECT_STREQ("", misordered);
}

TEST(StringSearch, FindstrKeepsItsSimpleScan) {
    EXPECT_EQ(6, findstr("hello world", "wor"));
    EXPECT_EQ(-1, findstr("aaab", "aab"));  // no restart at the failing byte: deliberate
    EXPECT_EQ(-1, findstr(nullptr, "a"));
    const char* req = "GET /Snap?Cmd=MCAP";
    EXPECT_EQ(req + 14, strstri(req, "mCaP"));
    EXPECT_EQ(req + 9, strchri(req, '?'));
}

TEST(StringSplit, SizedFormsAreBoundedAndKeepLegacyResults) {
    char out[8] = {};
    EXPECT_EQ(-1, getvaluebeforech("abc", out, 'x'));
    EXPECT_STREQ("abc", out);
    Guarded<4> key, value, name, rest;
    EXPECT_EQ(7, getvaluebeforech("abcdefg:h", key.buf, sizeof key.buf, ':'));
    EXPECT_STREQ("abc", key.buf);
    EXPECT_EQ(1, _get_value("x=1&user = admin", "user", value.buf, sizeof value.buf));
    EXPECT_STREQ(" ad", value.buf);

    char n[8] = {}, v[8] = {};
    EXPECT_EQ(1, get_field_value("k=v", n, v));
    EXPECT_STREQ("k=", n);  // keeps the "=" on purpose
    EXPECT_STREQ("v", v);
    EXPECT_EQ(1, get_field_value("longname=x", name.buf, sizeof name.buf, rest.buf, 4));
    EXPECT_STREQ("lon", name.buf);
    EXPECT_TRUE(key.intact() && value.intact() && name.intact());
}

TEST(StringCharset, BothWaysReportSpaceLeftAndPaddedNamesConvert) {
    char out[6];
    int left = -1;
    ASSERT_EQ(1, UTF8ToCHAR(kUtf8Zhongwen, 6, out, left));
    EXPECT_EQ(0, std::memcmp(out, kGbZhongwen, 4));
    EXPECT_EQ(2, left);
    left = 42;
    EXPECT_EQ(0, UTF8ToCHAR("\xff\xfe", 2, out, left));  // not UTF-8
    EXPECT_EQ(42, left);

    // Callers pass a zero-padded record field: the text converts, then the padding runs out
    // of space, so the result is 0 while the output holds the whole name.
    char name[8] = {}, utf8[8];
    std::memcpy(name, kGbZhongwen, 4);
    EXPECT_EQ(0, CHARToUTF8(name, sizeof name, utf8, left));
    EXPECT_STREQ(kUtf8Zhongwen, utf8);
}

TEST(StringCharset, GbkCharactersOutsideGb2312ConvertWhole) {
    // "东门堃摄像机": the third character exists in GBK only.
    const char gbk[] = "\xb6\xab\xc3\xc5\x88\xd2\xc9\xe3\xcf\xf1\xbb\xfa";
    const char utf8[] = "\xe4\xb8\x9c\xe9\x97\xa8\xe5\xa0\x83\xe6\x91\x84\xe5\x83\x8f\xe6\x9c\xba";
    char name[32] = {}, out[32];
    int left = 0;
    std::memcpy(name, gbk, sizeof gbk - 1);
    CHARToUTF8(name, sizeof name, out, left);
    EXPECT_STREQ(utf8, out);
    CHARToUTF8(name + 4, sizeof name - 4, out, left);  // starting with that character
    EXPECT_STREQ(utf8 + 6, out);
    char padded[32] = {}, back[32];
    std::memcpy(padded, utf8, sizeof utf8);
    UTF8ToCHAR(padded, sizeof padded, back, left);
    EXPECT_STREQ(gbk, back);
}

}  // namespace
