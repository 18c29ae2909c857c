// Stream address templates by device type, as the server registers them from its device
// settings with RUSK_DVR_SetStreamTemplate, and their expansion.
#pragma once

#include <string>

#include "RUSKNetSDK.h"
#include "VornUrlText.h"
#include "driver.h"

namespace rusk {

struct StreamTemplates {
    std::string live;    // stream 0
    std::string sub;     // any other stream
    std::string replay;  // playback by time
};

// Replaces the templates of `dvrType` (all empty: forgets them). Thread-safe.
void SetStreamTemplates(int dvrType, const StreamTemplates& templates);
// False when nothing is registered for the type.
bool GetStreamTemplates(int dvrType, StreamTemplates& out);

using vorn::PercentEncode;

// What a template's placeholders stand for. {start} and {stop} are left empty when the
// times are null.
struct TemplateValues {
    const DeviceLogin& login;
    const Channel& chan;
    int stream = 0;
    const RUSK_DVR_TIME* start = nullptr;
    const RUSK_DVR_TIME* stop = nullptr;
};

// "rtsp://" followed by `tmpl` with {ip} {port} {user} {pass} {chan} {stream} {start} {stop}
// filled in: {port} is left out when 0, {chan} is the channel's code when it has one,
// {user} and {pass} are percent-encoded (they sit in the address's user part), times are
// "YYYYMMDDThhmmss". Unknown names expand to nothing; an unclosed brace stays as it is.
std::string ExpandTemplate(const std::string& tmpl, const TemplateValues& values);

}  // namespace rusk
