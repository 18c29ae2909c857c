#include "support/mediacheck.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace cmstest {

bool IsJpeg(const std::string& j, int width, int height) {
    auto byte = [&](size_t i) { return static_cast<int>(static_cast<uint8_t>(j[i])); };
    if (j.size() < 4 || byte(0) != 0xFF || byte(1) != 0xD8) return false;
    if (byte(j.size() - 2) != 0xFF || byte(j.size() - 1) != 0xD9) return false;
    for (size_t p = 2; p + 9 < j.size() && byte(p) == 0xFF;
         p += 2 + (byte(p + 2) << 8 | byte(p + 3))) {
        if (byte(p + 1) >= 0xC0 && byte(p + 1) <= 0xC2)  // baseline, extended, progressive
            return (byte(p + 5) << 8 | byte(p + 6)) == height &&
                   (byte(p + 7) << 8 | byte(p + 8)) == width;
    }
    return false;
}

std::string Shell(const std::string& command) {
    std::string out;
    if (FILE* p = popen(command.c_str(), "r")) {
        char buf[4096];
        for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
        pclose(p);
    }
    return out;
}

std::string ProbeVideo(const std::string& file, double* duration) {
    std::istringstream out(
        Shell("ffprobe -v error -select_streams v:0 -show_entries "
              "stream=codec_name,width,height:format=duration -of csv=p=0 '" +
              file + "' 2>/dev/null"));
    std::string stream, length;
    std::getline(out, stream);
    std::getline(out, length);
    if (duration) *duration = std::atof(length.c_str());
    return stream;
}

int ConnectionsTo(int port) {
    std::ifstream in("/proc/net/tcp");
    std::string line;
    std::getline(in, line);  // heading
    int n = 0;
    while (std::getline(in, line)) {
        std::istringstream f(line);
        std::string slot, local, remote, state;
        f >> slot >> local >> remote >> state;
        const size_t colon = remote.find(':');
        if (colon == std::string::npos || state != "01") continue;  // 01: established
        n += std::stoi(remote.substr(colon + 1), nullptr, 16) == port;
    }
    return n;
}

}  // namespace cmstest
