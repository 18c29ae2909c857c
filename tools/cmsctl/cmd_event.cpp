// event alarm|state|diagnosis|face: an event record as a device or server sends it.
//
// The server stores an event only when it knows the sender: either the record is led by
// the sender's serial (--serial; the server acknowledges it with state 0), or it arrives on
// a connection on which the sender has logged in (--as; no acknowledgement).
#include <cstdint>
#include <cstdio>
#include <vector>

#include "commands.h"

using cmsclient::EventFields;
using cmsclient::Reply;
using cmsclient::Request;

namespace cmsctl {

namespace {

// Reads the class-specific options and builds the message; false with `error` set.
using EventBuilder = bool (*)(const Args& args, const EventFields& f, Request& out,
                              std::string& error);

bool BuildAlarm(const Args& args, const EventFields& f, Request& out, std::string& error) {
    int code = 0, param = 0;
    if (!IntOption(args, "--code", 1, 0xFFFF, code, true, error) ||
        !IntOption(args, "--param", INT32_MIN, INT32_MAX, param, false, error))
        return false;
    if (code == INTV_EVENT_FACE) {
        error = "code 64 is a face event: use event face";
        return false;
    }
    out = cmsclient::AlarmEvent(f, code, param);
    return true;
}

bool BuildState(const Args& args, const EventFields& f, Request& out, std::string& error) {
    int state = 0;
    if (!IntOption(args, "--code", 1, 0xFF, state, true, error)) return false;
    out = cmsclient::DeviceStateEvent(f, state);
    return true;
}

bool BuildDiagnosis(const Args& args, const EventFields& f, Request& out, std::string& error) {
    int code = 0;
    if (!IntOption(args, "--code", 1, 0xFF, code, true, error)) return false;
    out = cmsclient::DiagnosisEvent(f, code);
    return true;
}

bool BuildFace(const Args& args, const EventFields& f, Request& out, std::string& error) {
    int person = 0, age = 0, gender = 0, similarity = 0;
    if (!IntOption(args, "--person", INT32_MIN, INT32_MAX, person, true, error) ||
        !IntOption(args, "--age", 0, 255, age, false, error) ||
        !IntOption(args, "--gender", INT32_MIN, INT32_MAX, gender, false, error) ||
        !IntOption(args, "--similarity", INT32_MIN, INT32_MAX, similarity, false, error))
        return false;
    out = cmsclient::FaceEvent(f, person, age, gender, similarity);
    return true;
}

struct EventKind {
    const char* word;
    EventBuilder build;
};
constexpr EventKind kEventKinds[] = {
    {"alarm", BuildAlarm},
    {"state", BuildState},
    {"diagnosis", BuildDiagnosis},
    {"face", BuildFace},
};

// The options every event kind shares.
bool ReadCommonFields(const Args& args, EventFields& f, std::string& error) {
    long long chan = 1;
    if (!IntOption(args, "--chan", 0, 999999, chan, false, error) ||
        !IntOption(args, "--node", INT32_MIN, INT32_MAX, f.nNodeID, false, error) ||
        !IntOption(args, "--node-type", INT32_MIN, INT32_MAX, f.nNodeType, false, error) ||
        !IntOption(args, "--time", 1, UINT32_MAX, f.unTime, false, error))
        return false;
    f.channel = std::to_string(chan);
    if (const std::string* info = args.Get("--info")) f.info = *info;
    if (f.info.size() > sizeof(_msg_alarm_comm::szInfo) - 1) {
        error = "--info takes at most 29 bytes";
        return false;
    }
    std::vector<std::string> pictures = args.All("--picture");
    if (pictures.size() > cmsclient::kMaxPictures) {
        error = "at most 4 pictures";
        return false;
    }
    size_t total = 0;
    for (const std::string& path : pictures) {
        f.pictures.emplace_back();
        if (!ReadInputFile(path, f.pictures.back(), error)) return false;
        total += f.pictures.back().size();
    }
    if (total + sizeof(_msg_device) + sizeof(_msg_alarm_comm) <= kMaxPayload) return true;
    error = "the pictures are too big for one message";
    return false;
}

// Who sends: a serial leading the record, or a login on this connection first.
bool ReadSender(const Args& args, EventFields& f, std::string& login, std::string& error) {
    const std::string* serial = args.Get("--serial");
    const std::string* as = args.Get("--as") ? args.Get("--as") : args.Get("--login");
    if (!serial == !as) {
        error = "event wants the sender: --serial SERIAL or --as SERIAL";
        return false;
    }
    if (serial) {
        if (serial->size() >= sizeof(_msg_device::szSerial) || serial->empty()) {
            error = "--serial takes 1 to 63 bytes";
            return false;
        }
        f.senderSerial = *serial;
        return true;
    }
    if (as->size() > cmsclient::kMaxSerial || as->empty()) {
        error = "--as takes 1 to 99 bytes";
        return false;
    }
    login = *as;
    return true;
}

// Logged-in sender: log in, send, then log in again. The server handles one connection's
// messages in order, so the answer to the second login means the event was handled.
int SendAsLoggedIn(Session& session, const std::string& serial, const Request& event) {
    Reply reply;
    if (!session.Exchange(cmsclient::Login(serial.c_str()), reply)) return kExitFailed;
    if (!reply.IsState() || reply.state != 0) {
        std::printf("login: %s\n", cmsclient::DescribeState(reply.state).c_str());
        return kExitFailed;
    }
    if (!session.Send(event) || !session.Exchange(cmsclient::Login(serial.c_str()), reply))
        return kExitFailed;
    std::printf("event sent as %s and handled\n", serial.c_str());
    return kExitOk;
}

}  // namespace

int RunEvent(const Context& ctx) {
    const auto& words = ctx.args.Positional();
    if (words.size() != 2) return UsageError("event wants one of alarm, state, diagnosis, face");
    const EventKind* kind = nullptr;
    for (const EventKind& k : kEventKinds)
        if (words[1] == k.word) kind = &k;
    if (!kind) return UsageError("unknown event kind '" + words[1] + "'");
    EventFields fields;
    std::string login, error;
    Request event;
    if (!ReadSender(ctx.args, fields, login, error) || !ReadCommonFields(ctx.args, fields, error) ||
        !kind->build(ctx.args, fields, event, error))
        return UsageError(error);

    Session session(ctx);
    if (!login.empty()) return SendAsLoggedIn(session, login, event);
    Reply reply;
    if (!session.Send(event)) return kExitFailed;
    if (!session.Read(reply)) {
        std::fprintf(stderr, "cmsctl: (the server acknowledges only a sender it knows)\n");
        return kExitFailed;
    }
    return StateResult(reply);
}

}  // namespace cmsctl
