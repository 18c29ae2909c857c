#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "comm/localdata.h"
#include "comm/sysutil.h"

namespace {

_VCA_ZONE Zone(const char* name, int type, int points, uint32_t rule, int mode) {
    _VCA_ZONE z{};
    snprintf(z.szName, sizeof z.szName, "%s", name);
    z.usZoneType = static_cast<uint16_t>(type);
    z.usPointSize = static_cast<uint16_t>(points);
    for (int i = 0; i < points; ++i)
        z.usZonePoints[i] = {uint16_t(10 * i + 1), uint16_t(10 * i + 2)};
    z.usRule = rule;
    for (int i = 0; i < 16; ++i) z.usPares[i] = 100 + i;
    z.nParesEx[0] = 42;  // never written
    z.nMode = mode;
    return z;
}

std::string Params() {
    std::string s;
    for (int i = 0; i < 16; ++i) s += std::to_string(100 + i) + "&";
    return s;
}

TEST(RuleDocTest, ZoneTextIsExactAndReadsBackSaveForPointlessZones) {
    auto rule = std::make_unique<_tag_commzonemsg>();
    rule->dwReserved = 3;
    rule->ZoneSize = 2;
    rule->Zones[0] = Zone("door", 1, 2, 7, 0);
    rule->Zones[1] = Zone("yard", 2, 4, 0xFFFFFFFFu, -5);
    char text[2000];
    ASSERT_EQ(FormatRuleFroXML(rule.get(), text), 1);
    EXPECT_EQ(text, "<mode>3</mode><zn><name>door</name><info>1;1&2@11&12@;7;" + Params() +
                        ";0</info></zn><zn><name>yard</name><info>2;1&2@11&12@21&22@31&32@;-1;" +
                        Params() + ";-5</info></zn>");

    auto back = std::make_unique<_tag_commzonemsg>();
    ASSERT_EQ(ParasRuleFromXML(text, back.get()), 1);
    EXPECT_EQ(back->dwReserved, 3u);
    EXPECT_EQ(back->ZoneSize, 2);
    for (_VCA_ZONE& z : rule->Zones) z.nParesEx[0] = 0;  // not carried by the text
    EXPECT_EQ(memcmp(back->Zones, rule->Zones, sizeof rule->Zones), 0);

    EXPECT_EQ(FormatRuleFroXML(rule.get(), text, 40), 0);  // does not fit
    EXPECT_STREQ(text, "");

    // A zone without points is written with ";;" and read with the empty field skipped:
    // everything after it shifts.
    rule->ZoneSize = 1;
    rule->Zones[0] = Zone("line", 4, 0, 9, 2);
    ASSERT_EQ(FormatRuleFroXML(rule.get(), text), 1);
    EXPECT_NE(strstr(text, "<info>4;;9;100&"), nullptr);
    back = std::make_unique<_tag_commzonemsg>();
    ParasRuleFromXML(text, back.get());
    ASSERT_EQ(back->ZoneSize, 1);
    EXPECT_EQ(back->Zones[0].usPointSize, 0);
    EXPECT_EQ(back->Zones[0].usRule, 100u);  // the first parameter
    EXPECT_EQ(back->Zones[0].nMode, 0);
}

TEST(RuleDocTest, OversizedInputIsCutToTheRecord) {
    std::string points;
    for (int i = 0; i < 30; ++i) points += "1&2@";
    std::string text = "<mode>1</mode><zn><name>" + std::string(300, 'n') + "</name><info>" +
                       std::string(400, '7') + "</info></zn>";
    for (int i = 0; i < 25; ++i) {
        text += "<zn><name>z</name><info>1;" + points + ";2;" + Params() + "9&9&9&;3</info></zn>";
    }
    auto back = std::make_unique<_tag_commzonemsg>();
    ASSERT_EQ(ParasRuleFromXML(text.c_str(), back.get()), 1);
    EXPECT_EQ(back->ZoneSize, VCA_MAX_ZONES);
    EXPECT_EQ(strlen(back->Zones[0].szName), 63u);
    EXPECT_EQ(back->Zones[19].usPointSize, VCA_MAX_POINTS);
    EXPECT_EQ(back->Zones[19].usPares[15], 115u);

    // Counts beyond the arrays and unterminated names are written only up to the arrays.
    auto wild = std::make_unique<_tag_commzonemsg>();
    memset(wild.get(), 0x7f, sizeof *wild);
    char out[20000];
    ASSERT_EQ(FormatRuleFroXML(wild.get(), out), 1);
    back = std::make_unique<_tag_commzonemsg>();
    ParasRuleFromXML(out, back.get());
    EXPECT_EQ(back->ZoneSize, VCA_MAX_ZONES);
}

TEST(RuleDocTest, RuleListRoundTrip) {
    auto a = std::make_unique<_ruleinfo>();
    auto b = std::make_unique<_ruleinfo>();
    strcpy(a->szSerial, "CAM-A");
    a->nNodeID = 12;
    a->rule.ZoneSize = 1;
    a->rule.Zones[0] = Zone("a", 1, 3, 5, 0);
    strcpy(b->szSerial, "CAM-B");
    b->rule.dwReserved = 2;
    char one[1000];
    ASSERT_EQ(FormatIntvRule(b.get(), one), 1);
    EXPECT_STREQ(one, "<rule><sn>CAM-B</sn><mode>2</mode></rule>");

    char* text = nullptr;
    int len = 0;
    ASSERT_EQ(FormatRuleListFroXML({a.get(), nullptr, b.get()}, text, len), 1);
    std::string s(text, len);
    delete[] text;
    EXPECT_EQ(s.substr(s.size() - 49), "<rule><sn>CAM-B</sn><mode>2</mode></rule></rules>");

    s.insert(7, "<rule><mode>1</mode></rule>");  // no serial: skipped
    s += "<rule><sn>ABCDEFGHIJKLMNOPQRSTUVWXYZ</sn></rule>";
    std::vector<_ruleinfo*> back;
    ASSERT_EQ(ParasRuleListFromXML(s.c_str(), back), 1);
    ASSERT_EQ(back.size(), 3u);
    EXPECT_EQ(back[0]->nNodeID, 0);
    a->rule.Zones[0].nParesEx[0] = 0;
    EXPECT_EQ(memcmp(&back[0]->rule.Zones[0], &a->rule.Zones[0], sizeof(_VCA_ZONE)), 0);
    EXPECT_STREQ(back[1]->szSerial, "CAM-B");
    EXPECT_STREQ(back[2]->szSerial, "ABCDEFGHIJKLMNOPQRS");
    ReleaseArray(back);
}

}  // namespace
