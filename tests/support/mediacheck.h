// Checks on media files written by the server: JPEG headers, what ffprobe reads from a
// video file, and the TCP connections a process holds to a port.
#pragma once

#include <string>

namespace cmstest {

// Width and height from a JPEG's frame header; false unless the bytes start and end as a
// JPEG does.
bool JpegSize(const std::string& jpeg, int& width, int& height);
// Standard output of a shell command.
std::string Shell(const std::string& command);
// "codec,width,height" of the first video stream of a file as ffprobe reads it ("" when it
// cannot), e.g. "h264,320,240".
std::string ProbeVideo(const std::string& file);
// The duration in seconds ffprobe gives for a file; -1 when it cannot tell.
double ProbeDuration(const std::string& file);
// Established TCP connections (IPv4, loopback included) whose remote port is `port`.
int ConnectionsTo(int port);

}  // namespace cmstest
