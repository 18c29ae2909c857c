// Face registration: staff pictures sent to analytics devices.
#include "nodes/faces.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "comm/sysutil.h"
#include "mysql/cfgtables.h"
#include "mysql/sqldbop.h"
#include "nodes/nodeurl.h"
#include "nodes/remotecfg.h"

namespace {

// A picture larger than this is not a face picture; it is skipped rather than read whole.
constexpr long kMaxPicture = 16L * 1024 * 1024;
constexpr size_t kFaceReplySize = 100;

struct DirCloser {
    void operator()(DIR* d) const { closedir(d); }
};
struct FileCloser {
    void operator()(FILE* f) const { fclose(f); }
};
using DirHandle = std::unique_ptr<DIR, DirCloser>;
using FileHandle = std::unique_ptr<FILE, FileCloser>;

// Names of the regular files of `dir`, sorted so that the same picture always creates the
// face.
std::vector<std::string> PictureNames(DIR* dir, const std::string& path) {
    std::vector<std::string> names;
    while (dirent* e = readdir(dir)) {
        std::string name = e->d_name;
        if (name == "." || name == "..") continue;
        struct stat st {};
        if (stat((path + "/" + name).c_str(), &st) == 0 && S_ISREG(st.st_mode))
            names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// The whole file; false when it cannot be read or is too large for a picture.
bool ReadPicture(const std::string& path, std::vector<char>& data) {
    FileHandle f(fopen(path.c_str(), "rb"));
    if (!f) return false;
    long size = filesize(f.get());
    if (size < 0 || size > kMaxPicture) return false;
    data.resize(static_cast<size_t>(size));
    return size == 0 || fread(data.data(), 1, data.size(), f.get()) == data.size();
}

std::string FaceCommand(const char* url, int type) {
    return std::string(url) + "/xconfig?cmd=setconfig&type=" + std::to_string(type);
}

bool SendToNode(int nodeid, int nodetype, const std::string& suffix) {
    char url[kNodeUrlSize] = {};
    if (!GetUrlFromNode(nodeid, nodetype, url)) return false;
    char ret[200];
    int length = 0;
    return RemoteDevConfig((url + suffix).c_str(), nullptr, 0, ret, sizeof ret, length);
}

}  // namespace

int RegistFace(CMysqlDB* db, const char* url, const char* root, const char* name, int staffId) {
    if (!db || !url || !root || staffId == 0) return 0;
    const std::string dir = std::string(root) + "/" + std::to_string(staffId);
    DirHandle handle(opendir(dir.c_str()));
    if (!handle) return 0;
    // Without a name there is no create address, so the first send fails and nothing is
    // registered; kept so, since every caller passes a name.
    const std::string create = name ? FaceCommand(url, L_CFG_INTV_FACE_ADD) + "&name=" + name : "";
    int faceId = 0;
    for (const std::string& file : PictureNames(handle.get(), dir)) {
        std::vector<char> picture;
        if (!ReadPicture(dir + "/" + file, picture)) continue;
        const std::string target =
            faceId > 0 ? FaceCommand(url, L_CFG_INTV_FACE_ADD) + "&id=" + std::to_string(faceId)
                       : create;
        char ret[kFaceReplySize];
        int length = 0;
        if (!RemoteDevConfig(target.c_str(), picture.data(), static_cast<int>(picture.size()), ret,
                             sizeof ret, length))
            break;
        if (faceId != 0) continue;
        faceId = std::atoi(ret);  // the device answers a create with the new face id
        char sql[96];
        std::snprintf(sql, sizeof sql, "update staffinfo set faceid = %d where id = %d", faceId,
                      staffId);
        db->Execute(sql);
    }
    return 0;
}

int RegistFaceEx(int nodeid, int nodetype, int staffId, const char* root) {
    if (!root) return 0;
    char url[kNodeUrlSize] = {};
    if (!GetUrlFromNode(nodeid, nodetype, url)) return 0;
    CMysqlDB db;
    if (!ConnectDB(&db)) return 0;
    // The staff table is read as "stiffinfo" and written as "staffinfo": both names are
    // the deployed ones.
    char sql[64];
    if (staffId == 0)
        std::snprintf(sql, sizeof sql, "select id from stiffinfo");
    else
        std::snprintf(sql, sizeof sql, "select id from stiffinfo where id = %d", staffId);
    OwnedList<_face_register> staff;
    GetStiff_FromDB(&db, sql, staff.v);
    for (const _face_register* s : staff.v) RegistFace(&db, url, root, s->name, s->id);
    CloseDB(&db);
    return staff.v.empty() ? 0 : 1;
}

bool DeleteFace(int nodeid, int nodetype, int faceId) {
    return SendToNode(nodeid, nodetype,
                      "/xconfig?cmd=setconfig&type=" + std::to_string(L_CFG_INTV_FACE_DELETE) +
                          "&sn=" + std::to_string(faceId));
}

bool ClearFace(int nodeid, int nodetype) {
    return SendToNode(nodeid, nodetype,
                      "/xconfig?cmd=setconfig&type=" + std::to_string(L_CFG_INTV_FACE_CLEAR));
}
