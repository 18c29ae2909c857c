// Configuration documents: every kind written, listed and read back, the exact text of
// two kinds, and the bounds of readers and writers.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "comm/localdata.h"
#include "comm/sysutil.h"

namespace {

template <class T>
using Writer = int (*)(const T*, char*, size_t);
template <class T>
using ListReader = int (*)(const char*, std::vector<T*>&);

template <class T>
std::string Text(Writer<T> write, const T& record) {
    char out[4096];
    EXPECT_EQ(write(&record, out, sizeof out), 1);
    return out;
}

// Two records written into one list read back as two records that write the same text.
template <class T>
void ExpectRoundTrip(const char* listTag, Writer<T> write, ListReader<T> read, const T& a,
                     const T& b) {
    const std::string ta = Text(write, a), tb = Text(write, b);
    const std::string list = std::string("<") + listTag + ">" + ta + tb + "</" + listTag + ">";
    OwnedList<T> back;
    ASSERT_EQ(read(list.c_str(), back.v), 1) << listTag;
    ASSERT_EQ(back.v.size(), 2u) << listTag;
    EXPECT_EQ(Text(write, *back.v[0]), ta);
    EXPECT_EQ(Text(write, *back.v[1]), tb);
    EXPECT_STREQ(back.v[1]->szSerial, b.szSerial);
    EXPECT_EQ(back.v[1]->nNodeID, 0);
}

template <class T>
T WithSerial(const char* serial) {
    T r{};
    snprintf(r.szSerial, sizeof r.szSerial, "%s", serial);
    return r;
}

_paraminfo Param(const char* serial, int base) {
    auto p = WithSerial<_paraminfo>(serial);
    p.param = {1, base, base + 1, base + 2, base + 3, base + 4, base + 5, -base};
    return p;
}

_planinfo Plan(const char* serial) {
    auto p = WithSerial<_planinfo>(serial);
    p.bEnable = 1;
    p.nSize[0] = 2;
    p.time[0][0] = {480, 720};
    p.time[0][1] = {780, 1080};
    p.nSize[6] = 1;
    p.time[6][0] = {0, 1440};
    return p;
}

}  // namespace

TEST(CfgDocTest, EveryKindRoundTripsThroughItsList) {
    ExpectRoundTrip<_paraminfo>("params", FormatIntvParam, ParasIntvParamListFromXML,
                                Param("1", 10), Param("2", 20));
    _planinfo other = Plan("9");
    other.nSize[3] = 4;
    ExpectRoundTrip<_planinfo>("plans", FormatIntvPlan, ParasIntvPlanListFromXML, Plan("8"), other);

    _modelparaminfo m1 = {"3", 0, 0, 2, {{5, 60, 1}, {7, 80, 0}}};
    ExpectRoundTrip<_modelparaminfo>("models", FormatIntvModel, ParasModelParamListFromXML, m1,
                                     WithSerial<_modelparaminfo>("4"));

    auto s1 = std::make_unique<_ruleinfo>(), s2 = std::make_unique<_ruleinfo>();
    snprintf(s1->szSerial, sizeof s1->szSerial, "5");
    s1->rule.dwReserved = 2;
    s1->rule.ZoneSize = 1;
    s1->rule.Zones[0].usPointSize = 2;
    s1->rule.Zones[0].usZonePoints[1] = {30, 40};
    s1->rule.Zones[0].usRule = 6;
    snprintf(s2->szSerial, sizeof s2->szSerial, "6");
    ExpectRoundTrip<_ruleinfo>("scenes", FormatIntvScene, ParasSceneListFromXML, *s1, *s2);

    _record_config r1 = {"7", 0, 0, 1, 1, 5, 10, 30, 7, 1};
    ExpectRoundTrip<_record_config>("records", FormatRecordParam, ParasRecordParamListFromXML, r1,
                                    WithSerial<_record_config>("8"));

    _temple_config t1 = {"1", 0, 0, "night", 2, 40, 90, 512};
    ExpectRoundTrip<_temple_config>("temples", FormatTemple, ParasTempleFromXML, t1,
                                    WithSerial<_temple_config>("2"));

    _paraminfoex e1 = {"11", 0, 0, 2, {{"gpu", "1"}, {"track", "on"}}};
    ExpectRoundTrip<_paraminfoex>("paramexs", FormatIntvParamEx, ParasIntvParamExCfg, e1,
                                  WithSerial<_paraminfoex>("12"));
}

TEST(CfgDocTest, ExactTextOfParametersAndPlans) {
    const std::string body =
        "<enable>1</enable><sens>10</sens><fps>11</fps><minsize>12</minsize>"
        "<maxsize>13</maxsize><interval>14</interval><snap>15</snap><rectime>-10</rectime>";
    _paraminfo p = Param("7", 10);
    EXPECT_EQ(Text<_paraminfo>(FormatIntvParam, p), "<param><sn>7</sn>" + body + "</param>");
    EXPECT_EQ(Text<_intvparam>(FormatIntvParamFroXML, p.param), body);

    EXPECT_EQ(Text<_planinfo>(FormatIntvPlan, Plan("1")),
              "<plan><sn>1</sn><enable>1</enable><d0>480-720;780-1080;</d0><d1></d1><d2></d2>"
              "<d3></d3><d4></d4><d5></d5><d6>0-1440;</d6></plan>");

    // The cached form carries no serial; the reader takes it as it stands.
    _intvparam back{};
    ASSERT_EQ(ParasIntvParamFromXML(("<param>" + body + "</param>").c_str(), &back), 1);
    EXPECT_EQ(memcmp(&back, &p.param, sizeof back), 0);
    OwnedList<_paraminfo> list;
    ParasIntvParamListFromXML("<param><sens>5</sens></param>", list.v);
    ASSERT_EQ(list.v.size(), 1u);
    EXPECT_STREQ(list.v[0]->szSerial, "");
    EXPECT_EQ(list.v[0]->param.nSensitivity, 5);
}

TEST(CfgDocTest, ReadersAndWritersStayInsideTheirBounds) {
    std::string models = "<model><sn>" + std::string(50, 'S') + "</sn>";
    for (int i = 0; i < 12; ++i) models += "<m><type>" + std::to_string(i) + "</type></m>";
    auto m = std::make_unique<_modelparaminfo>();
    ASSERT_EQ(ParasModelParamFromXML(models.c_str(), m.get()), 1);
    EXPECT_EQ(m->nSize, MODEL_PARAM_MAX);
    EXPECT_EQ(m->model[7].nType, 7);
    EXPECT_EQ(strlen(m->szSerial), 19u);

    _planinfo plan{};
    ParasIntvPlanFromXML("<d2>1-2;3-4;5-6;7-8;9-10;</d2><d3>5;</d3>", &plan);
    EXPECT_EQ(plan.nSize[2], PLAN_SEGMENTS);
    EXPECT_EQ(plan.time[2][3].nStop, 8);
    EXPECT_EQ(plan.nSize[3], 1);  // an item without '-' counts, its period stays zero
    EXPECT_EQ(plan.time[3][0].nStart, 0);

    // Counts out of range are written clamped.
    plan.nSize[2] = 1000;
    plan.nSize[3] = -4;
    EXPECT_NE(Text<_planinfo>(FormatIntvPlan, plan).find("<d2>1-2;3-4;5-6;7-8;</d2><d3></d3>"),
              std::string::npos);

    // A document that does not fit is not written at all.
    char small[40] = "x";
    EXPECT_EQ(FormatIntvPlan(&plan, small, sizeof small), 0);
    EXPECT_STREQ(small, "");
    auto scene = std::make_unique<_ruleinfo>();
    scene->rule.ZoneSize = 3;
    EXPECT_EQ(FormatIntvScene(scene.get(), small, sizeof small), 0);

    // An element longer than the element buffer is read from its first part.
    std::string huge = "<records><record><sn>1</sn><pre>4</pre>" +
                       std::string(3 * CFG_ELEMENT_SIZE, ' ') + "<post>9</post></record></records>";
    OwnedList<_record_config> records;
    ASSERT_EQ(ParasRecordParamListFromXML(huge.c_str(), records.v), 1);
    ASSERT_EQ(records.v.size(), 1u);
    EXPECT_EQ(records.v[0]->nPreRecord, 4);
    EXPECT_EQ(records.v[0]->nPostRecord, 0);
}
