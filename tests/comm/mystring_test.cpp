#include "comm/mystring.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

// A destination followed by a guard, to see that nothing is written past the buffer.
template <size_t N>
struct Guarded {
    char buf[N] = {};
    char guard[8] = {'G', 'G', 'G', 'G', 'G', 'G', 'G', 'G'};
    bool intact() const { return std::memcmp(guard, "GGGGGGGG", 8) == 0; }
};

const char kUtf8Zhongwen[] = "\xe4\xb8\xad\xe6\x96\x87";  // two Chinese characters
const char kGbZhongwen[] = "\xd6\xd0\xce\xc4";

TEST(TagValue, CopiesBetweenFirstTagsAndReturnsEndTagOffset) {
    char out[16] = {};
    EXPECT_EQ(6, _get_valuefromstring_v1("a<x>12</x>", "<x>", "</x>", out));
    EXPECT_STREQ("12", out);

    char first[16] = {};
    EXPECT_EQ(1, _get_valuefromstring("<v>1</v><v>2</v>", "<v>", "</v>", first));
    EXPECT_STREQ("1", first);
}

TEST(TagValue, MissingTagLeavesOutputUntouched) {
    char out[8] = "keep";
    EXPECT_EQ(-1, _get_valuefromstring_v1("a<x>12", "<x>", "</x>", out));
    EXPECT_EQ(-1, _get_valuefromstring_v1("a12</x>", "<x>", "</x>", out));
    EXPECT_EQ(0, _get_valuefromstring("a<x>12", "<x>", "</x>", out));
    EXPECT_EQ(-1, _get_valuefromstring_v1(nullptr, "<x>", "</x>", out));
    EXPECT_STREQ("keep", out);
}

TEST(TagValue, IteratesRepeatedElementsByOffsetPlusEndTag) {
    const char* text = "<zn>a</zn><zn>bc</zn>\n<zn></zn><zn>d</zn>";
    std::string seen;
    for (const char* p = text;;) {
        char out[16] = {};
        const int at = _get_valuefromstring_v1(p, "<zn>", "</zn>", out);
        if (at < 0) break;
        seen += std::string("[") + out + "]";
        p += at + 5;
    }
    EXPECT_EQ("[a][bc][][d]", seen);
}

TEST(TagValue, OverlongOrMisorderedValueStaysInsideBuffer) {
    Guarded<8> g;
    const std::string text = "<x>" + std::string(500, 'v') + "</x>";
    EXPECT_EQ(503, _get_valuefromstring_v1(text.c_str(), "<x>", "</x>", g.buf, sizeof g.buf));
    EXPECT_EQ(std::string(7, 'v'), g.buf);
    EXPECT_TRUE(g.intact());

    // An end tag before the start tag copies nothing and does not crash.
    char out[8] = {};
    EXPECT_EQ(0, _get_valuefromstring_v1("</x>abc<x>", "<x>", "</x>", out));
    EXPECT_STREQ("", out);
}

TEST(Findstr, SimpleScanKeepsItsBlindSpot) {
    EXPECT_EQ(6, findstr("hello world", "wor"));
    EXPECT_EQ(0, findstr("abc", "abc"));
    EXPECT_EQ(-1, findstr("abc", "abd"));
    EXPECT_EQ(-1, findstr("ab", "abc"));  // too few bytes left once the start matches
    // A mismatch does not restart at the failing byte: deliberate.
    EXPECT_EQ(-1, findstr("aaab", "aab"));
    EXPECT_EQ(-1, findstr("<<x>", "<x>"));
    EXPECT_EQ(-1, findstr(nullptr, "a"));
    EXPECT_EQ(-1, findstr("a", nullptr));
}

TEST(GetValueBeforeCh, CopiesUpToCharOrWholeText) {
    char out[8] = {};
    EXPECT_EQ(-1, getvaluebeforech("abc", out, 'x'));
    EXPECT_STREQ("abc", out);

    char key[8] = {};
    EXPECT_EQ(3, getvaluebeforech("key:val", key, ':'));
    EXPECT_STREQ("key", key);

    Guarded<4> g;
    EXPECT_EQ(7, getvaluebeforech("abcdefg:h", g.buf, sizeof g.buf, ':'));
    EXPECT_STREQ("abc", g.buf);
    EXPECT_TRUE(g.intact());
}

TEST(Strchri, LastOccurrence) {
    char text[] = "a/b/c";
    EXPECT_EQ(text + 3, strchri(text, '/'));
    EXPECT_EQ(nullptr, strchri(text, 'x'));
    EXPECT_EQ(nullptr, strchri(static_cast<const char*>(""), 'a'));
    EXPECT_EQ(nullptr, strchri(static_cast<const char*>(nullptr), 'a'));
}

TEST(Strstri, CaseInsensitiveFirstMatch) {
    const char* text = "GET /Snap?Cmd=MCAP";
    EXPECT_EQ(text + 5, strstri(text, "snap"));
    EXPECT_EQ(text + 14, strstri(text, "mCaP"));
    EXPECT_EQ(nullptr, strstri(text, "mcapx"));
    EXPECT_EQ(nullptr, strstri(static_cast<const char*>(nullptr), "a"));
}

TEST(GetValue, TakesEverythingAfterTheEqualsSign) {
    char out[32] = {};
    EXPECT_EQ(1, _get_value("x=1&user = admin&z", "user", out));
    EXPECT_STREQ(" admin&z", out);
    EXPECT_EQ(0, _get_value("x=1", "user", out));

    char empty[4] = {};
    EXPECT_EQ(1, _get_value("user", "user", empty));  // no "=" after the key: empty value
    EXPECT_STREQ("", empty);

    Guarded<4> g;
    EXPECT_EQ(1, _get_value("k=123456", "k", g.buf, sizeof g.buf));
    EXPECT_STREQ("123", g.buf);
    EXPECT_TRUE(g.intact());
}

TEST(GetFieldValue, NameKeepsTheEqualsSign) {
    char name[8] = {}, value[8] = {};
    EXPECT_EQ(1, get_field_value("k=v", name, value));
    EXPECT_STREQ("k=", name);
    EXPECT_STREQ("v", value);
    EXPECT_EQ(0, get_field_value("kv", name, value));

    Guarded<4> n, v;
    EXPECT_EQ(1, get_field_value("longname=longvalue", n.buf, sizeof n.buf, v.buf, sizeof v.buf));
    EXPECT_STREQ("lon", n.buf);
    EXPECT_STREQ("lon", v.buf);
    EXPECT_TRUE(n.intact() && v.intact());
}

TEST(Charset, Utf8ToGb2312ReportsSpaceLeft) {
    char out[6];
    std::memset(out, 'x', sizeof out);
    int left = -1;
    ASSERT_EQ(1, UTF8ToCHAR(kUtf8Zhongwen, 6, out, left));
    EXPECT_EQ(0, std::memcmp(out, kGbZhongwen, 4));
    EXPECT_EQ(2, left);  // space left over, not bytes written
    EXPECT_EQ(0, out[4]);
    EXPECT_EQ(0, out[5]);
}

TEST(Charset, FailureLeavesOutLeftAlone) {
    char out[8] = {};
    int left = 42;
    EXPECT_EQ(0, UTF8ToCHAR("\xff\xfe", 2, out, left));  // not UTF-8
    EXPECT_EQ(42, left);
}

TEST(Charset, PaddedGbNameConvertsAlthoughTheZeroTailDoesNotFit) {
    // Callers pass a zero-padded record field: the text converts, then the padding runs out
    // of space, so the result is 0 while the output holds the whole name.
    char name[8] = {};
    std::memcpy(name, kGbZhongwen, 4);
    char out[8];
    int left = 42;
    EXPECT_EQ(0, CHARToUTF8(name, sizeof name, out, left));
    EXPECT_STREQ(kUtf8Zhongwen, out);
    EXPECT_EQ(42, left);

    char ascii[8] = "cam01";
    char outAscii[8];
    EXPECT_EQ(1, CHARToUTF8(ascii, sizeof ascii, outAscii, left));
    EXPECT_STREQ("cam01", outAscii);
    EXPECT_EQ(0, left);
}

}  // namespace
