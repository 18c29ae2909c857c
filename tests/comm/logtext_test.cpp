#include "comm/logtext.h"

#include <gtest/gtest.h>

TEST(LogTextTest, ControlBytesAreEscapedAndTheRestKept) {
    EXPECT_EQ(LogText("SN-01 \xe4\xb8\xad~\\"), "SN-01 \xe4\xb8\xad~\\");
    EXPECT_EQ(LogText("a\nb\r\t\x1b[31m\x7f"), "a\\x0ab\\x0d\\x09\\x1b[31m\\x7f");
    EXPECT_EQ(LogText(nullptr), "");
}
