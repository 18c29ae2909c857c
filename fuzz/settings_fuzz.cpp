// The settings readers over any file content: the local and server settings, the file-store
// roots and the stream templates. The first byte picks the file.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "comm/globle.h"
#include "comm/settings.h"
#include "comm/sysutil.h"
#include "fuzzinput.h"

namespace {

// A plain array: it outlives every exit handler, including the one that removes it.
char g_dir[] = "/dev/shm/cms_fuzz_settings_XXXXXX";

const std::string& ConfigDir() {
    static const std::string dir = [] {
        if (!mkdtemp(g_dir)) std::abort();
        SetConfigDir(g_dir);
        std::atexit([] {
            std::error_code ignored;
            std::filesystem::remove_all(g_dir, ignored);
        });
        return std::string(g_dir);
    }();
    return dir;
}

void Write(const char* name, const fuzz::Input& in) {
    const std::string path = ConfigDir() + "/" + name;
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) std::abort();
    std::fwrite(in.data(), 1, in.size(), f);
    std::fclose(f);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input in(data, size);
    switch (in.Byte() % 4) {
        case 0: {
            Write("cmslocal.xml", in);
            _LoaclParam p{};
            readconfig(&p);
            break;
        }
        case 1: {
            Write("cmsparam.xml", in);
            _cmsParam p{};
            readcmsconfig(&p);
            break;
        }
        case 2: {
            Write("cmsparam.xml", in);
            OwnedList<_file_path> paths;
            readfilepath(paths.v);
            break;
        }
        default:
            Write("dev.xml", in);
            readdevconfig();
            ReleaseArray(m_arrRtspString);
            break;
    }
    return 0;
}
