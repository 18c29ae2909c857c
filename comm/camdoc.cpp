// Camera lists, the ability documents of analytics servers and the registration notice.

#include <climits>
#include <cstring>
#include <memory>
#include <new>

#include "comm/docxml.h"
#include "comm/localdata.h"

using docxml::Cut;
using docxml::DocWriter;
using docxml::Elements;
using docxml::ReadInt;
using docxml::ReadText;

namespace {

// Element buffers: an element longer than its buffer is read from its first part only.
constexpr size_t kElementSize = 1024;
constexpr size_t kMatchSize = 512;
constexpr size_t kGpuSize = 200;

// Reads every `tag` element of `text` into a new record appended to `out`. A failed
// allocation ends the list with what was read so far. Returns the number appended.
template <class T, class ReadOne>
int ReadList(const char* text, const char* tag, std::vector<T*>& out, ReadOne readOne) {
    char element[kElementSize];
    Elements elements(text, tag);
    int count = 0;
    while (elements.Next(element, sizeof element)) {
        std::unique_ptr<T> record(new (std::nothrow) T{});
        if (!record) break;
        readOne(element, record.get());
        out.push_back(record.release());
        ++count;
    }
    return count;
}

void ReadRuleConfig(const char* text, _RULE_CONFIG& config) {
    ReadText(text, "name", config.szName);
    ReadInt(text, "pos", config.nPos);
    ReadInt(text, "mode", config.nMode);
    ReadInt(text, "paramsize", config.nParam);
    ReadText(text, "pnames", config.paramNames);
    int enable = 0;
    if (ReadInt(text, "enable", enable)) config.bEnable = enable != 0;
}

void WriteCamera(DocWriter& w, const _cammera_info& c) {
    w.Add("<camera>")
        .Tag("name", c.szName)
        .Tag("sn", c.szSerial)
        .Tag("ip", c.szIP)
        .Tag("port", c.nPort)
        .Tag("type", c.nType)
        .Tag("user", c.szUser)
        .Tag("pass", c.szPass)
        .Tag("chan", c.nChan)
        .Tag("code", c.szChan)
        .Tag("stream", c.nStream)
        .Tag("path", c.szPath)
        .Add("</camera>");
}

}  // namespace

int ParasCameraFromXML(const char* text, _cammera_info* camera) {
    if (!text || !camera) return 0;
    ReadText(text, "name", camera->szName);
    ReadText(text, "sn", camera->szSerial);
    ReadText(text, "parent", camera->szParent);
    ReadText(text, "ip", camera->szIP);
    ReadInt(text, "port", camera->nPort);
    ReadText(text, "user", camera->szUser);
    ReadText(text, "pass", camera->szPass);
    ReadInt(text, "type", camera->nType);
    ReadInt(text, "chan", camera->nChan);
    ReadText(text, "code", camera->szChan);
    ReadInt(text, "index", camera->nStoreIndex);
    ReadInt(text, "stream", camera->nStream);
    ReadText(text, "path", camera->szPath);
    return 1;
}

int ParasCameraListFromXML(const char* text, std::vector<_cammera_info*>& cameras) {
    if (!text) return 0;
    ReadList(text, "camera", cameras, ParasCameraFromXML);
    return 1;
}

int FormatCameraFroXML(const _cammera_info* camera, char* text, size_t size) {
    if (!camera || !text || size == 0) return 0;
    return docxml::WriteWhole(text, size, [camera](DocWriter& w) { WriteCamera(w, *camera); });
}

int FormatCameraListFroXML(const std::vector<_cammera_info*>& cameras, char*& text, int& length) {
    if (cameras.size() > (INT_MAX - 32) / CAMERA_XML_SIZE) return 0;
    // Room for the list tags even when there is no camera.
    size_t size = CAMERA_XML_SIZE * cameras.size() + 32;
    std::unique_ptr<char[]> out(new (std::nothrow) char[size]);
    if (!out) return 0;
    DocWriter w(out.get(), size);
    w.Add("<cameras>");
    for (const _cammera_info* camera : cameras) {
        char one[CAMERA_XML_SIZE];
        if (camera && FormatCameraFroXML(camera, one)) w.Add("%s", one);
    }
    w.Add("</cameras>");
    text = out.release();
    length = static_cast<int>(w.Length());
    return 1;
}

int ParasRuleMatchFromXML(const char* text, _RULE_MATCH* match) {
    if (!text || !match) return 0;
    const char* at = strstr(text, "<rulematch>");
    if (!at) return 0;
    const char* body = at + strlen("<rulematch>");
    ReadInt(body, "type", match->nRuleType);
    ReadInt(body, "icon", match->nEventStart);
    char element[kMatchSize];
    Elements elements(body, "match");
    int n = 0;
    while (n < RULE_MATCH_MAX && elements.Next(element, sizeof element)) {
        ReadRuleConfig(element, match->config[n++]);
    }
    match->nSize = n;
    return 1;
}

int ParasDeepModelFromXML(const char* text, _model_lib_info* model) {
    if (!text || !model) return 0;
    ReadText(text, "desc", model->desc);
    ReadText(text, "file", model->file);
    ReadInt(text, "type", model->type);
    ReadInt(text, "start", model->start);
    ReadInt(text, "mode", model->mode);
    char gpu[kGpuSize];
    if (Cut(text, "gpu", gpu)) {
        ReadInt(gpu, "size", model->gpusize);
        ReadInt(gpu, "ability", model->gpuability);
    }
    return 1;
}

int ParasDeepModelListFromXML(const char* text, std::vector<_model_lib_info*>& models) {
    if (!text) return 0;
    return ReadList(text, "lib", models, ParasDeepModelFromXML) > 0 ? 1 : 0;
}

int ParasModelObjectFromXML(const char* text, _model_object_info* object) {
    if (!text || !object) return 0;
    ReadInt(text, "type", object->nType);
    ReadInt(text, "mode", object->nMode);
    ReadText(text, "name", object->szDescript);
    return 1;
}

int ParasModelObjectListFromXML(const char* text, std::vector<_model_object_info*>& objects) {
    if (!text) return 0;
    ReadList(text, "object", objects, ParasModelObjectFromXML);
    return 1;
}
