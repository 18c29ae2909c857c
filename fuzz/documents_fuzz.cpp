// Every document reader: camera, ability (rule matches, models, object kinds), rule,
// configuration and registration documents. The first byte picks the reader.
#include "comm/localdata.h"
#include "comm/sysutil.h"
#include "fuzzinput.h"
#include "nodes/subreg.h"

namespace {

// A reader of one record into a zeroed record.
template <class T, int (*Read)(const char*, T*)>
void One(const char* text) {
    T record{};
    Read(text, &record);
}

// A list reader; the records it makes are freed.
template <class T, int (*Read)(const char*, std::vector<T*>&)>
void List(const char* text) {
    OwnedList<T> list;
    Read(text, list.v);
}

using Reader = void (*)(const char*);

constexpr Reader kReaders[] = {
    One<_cammera_info, ParasCameraFromXML>,
    List<_cammera_info, ParasCameraListFromXML>,
    One<_RULE_MATCH, ParasRuleMatchFromXML>,
    One<_model_lib_info, ParasDeepModelFromXML>,
    List<_model_lib_info, ParasDeepModelListFromXML>,
    One<_model_object_info, ParasModelObjectFromXML>,
    List<_model_object_info, ParasModelObjectListFromXML>,
    One<_tag_commzonemsg, ParasRuleFromXML>,
    List<_ruleinfo, ParasRuleListFromXML>,
    One<_intvparam, ParasIntvParamFromXML>,
    One<_planinfo, ParasIntvPlanFromXML>,
    One<_modelparaminfo, ParasModelParamFromXML>,
    One<_ruleinfo, ParasSceneFromXML>,
    One<_record_config, ParasRecordParamFromXML>,
    One<_temple_config, ParasTempleConfigFromXML>,
    One<_paraminfoex, ParasIntvParamExFromXML>,
    List<_paraminfo, ParasIntvParamListFromXML>,
    List<_planinfo, ParasIntvPlanListFromXML>,
    List<_modelparaminfo, ParasModelParamListFromXML>,
    List<_ruleinfo, ParasSceneListFromXML>,
    List<_record_config, ParasRecordParamListFromXML>,
    List<_temple_config, ParasTempleFromXML>,
    List<_paraminfoex, ParasIntvParamExCfg>,
    One<_dev_register, ParasRegistFromXML>,
    List<_dev_register, ParasMediaRegistor>,
    List<_dev_register, ParasDomainRegistor>,
};
constexpr size_t kReaderCount = sizeof kReaders / sizeof kReaders[0];

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input in(data, size);
    const Reader read = kReaders[in.Byte() % kReaderCount];
    read(in.Text().data());
    return 0;
}
