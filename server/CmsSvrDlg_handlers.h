// Pieces of the message dispatch shared by the CmsSvrDlg_*.cpp units (message table, login,
// push, node registration). Not an interface for other units.
#pragma once

#include <cstddef>
#include <cstring>
#include <functional>
#include <string>

#include "comm/msgdefine.h"

class CCMSSvrDlg;
class CMysqlDB;
struct _hcrecord_Info;

namespace cmsmsg {

// One received message after the common checks of the dispatcher.
struct MsgContext {
    CCMSSvrDlg* self;
    int clientId;
    _msg_head_info head;           // copied out of the message
    const unsigned char* payload;  // the bytes after the header (owned by the caller)
    int length;                    // payload bytes, >= 0
    bool onWorker;                 // running on the client's queue (ClientQueues)
};

// Runs `work` in the client's order: at once when already on the client's queue, else
// queued behind whatever that client has queued. For the blocking part of a handler that
// runs on a listener thread.
void RunInOrder(const MsgContext& m, std::function<void()> work);

// ---- Handlers of the dispatch table (login and push units) ----
void OnLogin(const MsgContext& m);
void OnPushData(const MsgContext& m);

// ---- Shared steps ----
// A node that logged in again while flagged off-line: writes its status and the run-log
// line. Database I/O: call without holding csCatalog.
void ReportBackOnline(int id, int nodeType, unsigned int status);

// What a device login changed, copied out of the catalogue.
struct DeviceLogin {
    int id = 0;
    unsigned int status = 0;
    bool backOnline = false;  // its off-line flag was set and has been cleared
    char name[64] = {};
};

// Marks device `d` (or, when null, the device with `serial`) as logged in on `clientId` and
// clears its off-line flag, under the catalogue write lock; writes nothing to the database.
// False when there is no such device.
bool TakeDeviceLogin(const char* serial, _hcrecord_Info* d, int clientId, DeviceLogin& out);
// TakeDeviceLogin by serial, then the status change (ReportBackOnline) when there was one.
bool LoginDevice(const char* serial, int clientId);

// Held while a node is looked up and, when missing, fetched or added by serial: another
// holder of the same serial waits, so one node never gets two rows or records. Serials are
// compared as the database compares them (no letter case, no trailing blanks). Taken before
// csCatalog, never while holding it.
class SerialGuard {
public:
    explicit SerialGuard(const char* serial);
    ~SerialGuard();
    SerialGuard(const SerialGuard&) = delete;
    SerialGuard& operator=(const SerialGuard&) = delete;

private:
    std::string m_key;
};

// Id of the domain whose code is `code`; false when there is none.
bool FindDomainIdByCode(const char* code, int& domainId);

// The root region's id, inserting the root (and adding it to the catalogue) when there is
// none. 0 when it could not be had. `inserted` is set to the new id when this call inserted.
int EnsureRootRegion(CMysqlDB& db, int* inserted = nullptr);
// The first region of `type`, inserting one named `name` under the root when there is none.
// 0 when it could not be had. `inserted` as above.
int EnsureTypedRegion(CMysqlDB& db, int type, const char* name, int rootId,
                      int* inserted = nullptr);

// Copies at most outSize-1 bytes of `in` and terminates.
inline void CopyText(char* out, size_t outSize, const char* in) {
    if (!out || outSize == 0) return;
    size_t n = in ? strnlen(in, outSize - 1) : 0;
    std::memcpy(out, in ? in : "", n);
    out[n] = '\0';
}
template <size_t N>
inline void CopyText(char (&out)[N], const char* in) {
    CopyText(out, N, in);
}

// Region types the registration flows create under the root.
constexpr int REGION_TYPE_REGISTER = 254;     // devices that registered themselves
constexpr int REGION_TYPE_NONSTANDARD = 255;  // pushed nodes whose parent is unknown
constexpr const char* ROOT_REGION_NAME = "智能化监控平台";
constexpr const char* REGISTER_REGION_NAME = "注册区域";
constexpr const char* NONSTANDARD_REGION_NAME = "非标区域";

}  // namespace cmsmsg
