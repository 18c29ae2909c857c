// Checks on media files written by the server: JPEG headers, what ffprobe reads from a
// video file, and the TCP connections a process holds to a port.
#pragma once

#include <string>

namespace cmstest {

// True when `jpeg` starts and ends as a JPEG does and its frame header gives that size.
bool IsJpeg(const std::string& jpeg, int width, int height);
// Standard output of a shell command.
std::string Shell(const std::string& command);
// "codec,width,height" of the first video stream of a file as ffprobe reads it ("" when it
// cannot), e.g. "h264,320,240"; its duration in seconds into `duration` when asked.
std::string ProbeVideo(const std::string& file, double* duration = nullptr);
// Established TCP connections (IPv4, loopback included) whose remote port is `port`.
int ConnectionsTo(int port);

}  // namespace cmstest
