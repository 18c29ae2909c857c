// Device drivers behind the RUSK_DVR_* calls. The C calls keep the tables of logins and
// stream handles (devices.cpp); a driver only speaks to devices. Every device type uses the
// built-in open driver unless a vendor driver is registered for it. docs/devices.md tells
// how to add one.
#pragma once

#include <memory>
#include <string>

#include "RUSKNetSDK.h"

namespace rusk {

// One device login as the caller gave it. `token` belongs to the driver (a vendor session
// id, say); the open driver keeps no session and leaves it 0.
struct DeviceLogin {
    std::string ip;
    int port = 0;
    std::string user;
    std::string pass;
    int type = 0;
    long long token = 0;
};

// A channel by number, or by its code when `code` is not empty.
struct Channel {
    int number = 0;
    std::string code;
};

// Where a stream's packets go: the caller's callback with the handle the caller knows.
// A live stream has `live` set, a playback `replay`.
struct StreamSink {
    int handle = -1;
    RUSK_DataCallBack live = nullptr;
    RUSK_ReplayCallBack replay = nullptr;
    void* user = nullptr;

    void Deliver(int dataType, unsigned char* buffer, int length) const;
};

// A PTZ command with its three parameters.
struct PtzCommand {
    int command = 0;
    int param1 = 0;
    int param2 = 0;
    int param3 = 0;
};

// All calls may block on the network and run on the caller's thread; several may run at
// once, for the same login too, so a driver guards its own state. Stream ids are the
// driver's own and need only be unique within it.
class DeviceDriver {
public:
    virtual ~DeviceDriver() = default;

    // True when the device accepted the credentials; may set login.token.
    virtual bool Login(DeviceLogin& login) = 0;
    virtual void Logout(const DeviceLogin& login) = 0;
    // Opens a stream whose packets (each starting with a _media_head) go to `sink`, on a
    // thread of the driver, possibly before the call returns. Stream id >= 0, or -1.
    virtual int OpenLive(const DeviceLogin& login, const Channel& chan, int stream,
                         const StreamSink& sink) = 0;
    virtual int OpenPlayback(const DeviceLogin& login, const Channel& chan,
                             const RUSK_DVR_TIME& start, const RUSK_DVR_TIME& stop,
                             const StreamSink& sink) = 0;
    // Ends a stream: no packet of it is delivered after the call returns.
    virtual void Close(int streamId) = 0;
    virtual bool Ptz(const DeviceLogin& login, const Channel& chan, const PtzCommand& ptz) = 0;
    // Configuration `command` of channel `chan` into `buffer` (`*length` in: capacity;
    // out: bytes written; zero-terminated when there is room).
    virtual bool GetConfig(const DeviceLogin& login, int chan, int command, char* buffer,
                           int* length) = 0;
};

// Makes `driver` serve device type `dvrType` from the next login on; null restores the open
// driver. Logins made before keep the driver they were made with.
void RegisterDriver(int dvrType, std::shared_ptr<DeviceDriver> driver);
// The driver of a device type (the open driver when none is registered). Never null.
std::shared_ptr<DeviceDriver> DriverFor(int dvrType);

}  // namespace rusk
