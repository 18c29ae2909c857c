// The built-in driver for devices that stream over RTSP and take commands over the
// platform's HTTP command channel (/xconfig on the device's login port). docs/devices.md
// lists what each call sends.
#pragma once

#include <map>
#include <memory>
#include <mutex>

#include "driver.h"

namespace rusk {

class OpenDriver : public DeviceDriver {
public:
    bool Login(DeviceLogin& login) override;
    void Logout(const DeviceLogin& login) override;
    int OpenLive(const DeviceLogin& login, const Channel& chan, int stream,
                 const StreamSink& sink) override;
    int OpenPlayback(const DeviceLogin& login, const Channel& chan, const RUSK_DVR_TIME& start,
                     const RUSK_DVR_TIME& stop, const StreamSink& sink) override;
    void Close(int streamId) override;
    bool Ptz(const DeviceLogin& login, const Channel& chan, const PtzCommand& ptz) override;
    bool GetConfig(const DeviceLogin& login, int chan, int command, char* buffer,
                   int* length) override;

private:
    int OpenRtsp(const std::string& url, const DeviceLogin& login, const StreamSink& sink);

    std::mutex m_mutex;  // guards m_streams; never held across an RTSP call
    // Sinks of open streams by RTSP client handle. The RTSP reader reads its sink without
    // the lock, so a sink is freed only after its reader has been closed.
    std::map<int, std::unique_ptr<StreamSink>> m_streams;
};

}  // namespace rusk
