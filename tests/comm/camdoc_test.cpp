#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "comm/localdata.h"
#include "comm/sysutil.h"

namespace {

const _cammera_info kCamera = {"SN1",   "P1", "gate 1", "10.0.0.5", 8001,
                               "admin", "pw", 3,        1,          "34020000001320000001",
                               4,       1,    0,        "/rec"};

TEST(CameraDocTest, OneCameraFormatsExactlyAndReadsBack) {
    _cammera_info c = kCamera;
    char text[CAMERA_XML_SIZE];
    ASSERT_EQ(FormatCameraFroXML(&c, text), 1);
    EXPECT_STREQ(text,
                 "<camera><name>gate 1</name><sn>SN1</sn><ip>10.0.0.5</ip><port>8001</port>"
                 "<type>3</type><user>admin</user><pass>pw</pass><chan>1</chan>"
                 "<code>34020000001320000001</code><stream>1</stream><path>/rec</path></camera>");
    EXPECT_EQ(FormatCameraFroXML(&c, text, 20), 0);  // does not fit

    // Absent tags keep the caller's value; present ones are read even when not written.
    _cammera_info back{};
    back.nPort = 77;
    ASSERT_EQ(ParasCameraFromXML("<parent>up</parent><index>6</index>", &back), 1);
    EXPECT_EQ(back.nPort, 77);
    EXPECT_EQ(back.nStoreIndex, 6);
}

TEST(CameraDocTest, ListFormatsReadsBackAndStaysInBounds) {
    _cammera_info cams[3] = {kCamera, kCamera, kCamera};
    strcpy(cams[2].szSerial, "SN3");
    char* text = nullptr;
    int len = 0;
    ASSERT_EQ(FormatCameraListFroXML({&cams[0], nullptr, &cams[1], &cams[2]}, text, len), 1);
    std::unique_ptr<char[]> owned(text);
    std::string s(text);
    EXPECT_EQ(static_cast<int>(s.size()), len);
    EXPECT_EQ(s.substr(s.size() - 19), "</camera></cameras>");

    std::vector<_cammera_info*> back;
    ASSERT_EQ(ParasCameraListFromXML(text, back), 1);
    ASSERT_EQ(back.size(), 3u);
    EXPECT_STREQ(back[2]->szSerial, "SN3");
    EXPECT_EQ(back[1]->nPort, 8001);
    ReleaseArray(back);

    char* empty = nullptr;
    ASSERT_EQ(FormatCameraListFroXML({}, empty, len), 1);
    EXPECT_STREQ(empty, "<cameras></cameras>");
    delete[] empty;

    // A stray closing tag, an over-long value and an unterminated element stay in bounds.
    std::string hostile = "</camera><camera><name>" + std::string(500, 'n') +
                          "</name></camera><camera><sn>B</sn></camera><camera><sn>C";
    ASSERT_EQ(ParasCameraListFromXML(hostile.c_str(), back), 1);
    ASSERT_EQ(back.size(), 3u);
    EXPECT_EQ(strlen(back[1]->szName), 49u);
    EXPECT_STREQ(back[2]->szSerial, "B");
    ReleaseArray(back);
}

TEST(AbilityDocTest, RuleCatalogue) {
    const char* doc =
        "<rulematch><type>4</type><icon>100</icon><match><name>cross</name><pos>2</pos>"
        "<paramsize>3</paramsize><pnames>a,b</pnames><enable>2</enable></match>"
        "<match><enable>0</enable></match></rulematch>";
    _RULE_MATCH m{};
    m.config[1].bEnable = true;
    ASSERT_EQ(ParasRuleMatchFromXML(doc, &m), 1);
    EXPECT_EQ(m.nRuleType, 4);
    EXPECT_EQ(m.nEventStart, 100);
    ASSERT_EQ(m.nSize, 2);
    EXPECT_STREQ(m.config[0].paramNames, "a,b");
    EXPECT_TRUE(m.config[0].bEnable);
    EXPECT_FALSE(m.config[1].bEnable);
    EXPECT_EQ(ParasRuleMatchFromXML("<type>1</type>", &m), 0);

    std::string many = "<rulematch>";
    for (int i = 0; i < 70; ++i) many += "<match><pos>" + std::to_string(i) + "</pos></match>";
    auto big = std::make_unique<_RULE_MATCH>();
    ASSERT_EQ(ParasRuleMatchFromXML(many.c_str(), big.get()), 1);
    EXPECT_EQ(big->nSize, RULE_MATCH_MAX);
    EXPECT_EQ(big->config[63].nPos, 63);
}

TEST(AbilityDocTest, ModelsObjectsAndRegistration) {
    std::vector<_model_lib_info*> models;
    ASSERT_EQ(ParasDeepModelListFromXML(
                  "<lib><desc>car</desc><file>car.bin</file><gpu><size>512</size>"
                  "<ability>3</ability></gpu></lib><lib><desc>p</desc><size>9</size></lib>",
                  models),
              1);
    ASSERT_EQ(models.size(), 2u);
    EXPECT_EQ(models[0]->gpusize, 512);
    EXPECT_EQ(models[1]->gpusize, 0);  // sizes count only inside <gpu>
    ReleaseArray(models);
    EXPECT_EQ(ParasDeepModelListFromXML("<lib>", models), 0);

    std::vector<_model_object_info*> objects;
    ASSERT_EQ(
        ParasModelObjectListFromXML("<object><type>2</type><name>car</name></object>", objects), 1);
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_STREQ(objects[0]->szDescript, "car");
    ReleaseArray(objects);
    EXPECT_EQ(ParasModelObjectListFromXML("", objects), 1);
}

}  // namespace
