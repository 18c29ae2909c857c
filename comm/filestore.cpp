#include "comm/filestore.h"

#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "comm/globle.h"
#include "comm/sysutil.h"

namespace {

constexpr size_t kPathSize = 255;
constexpr int kMaxPictures = 8;
constexpr int kHeadSize = static_cast<int>(sizeof(_msg_image_head_ex));

struct FileCloser {
    void operator()(FILE* f) const { fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

struct DirCloser {
    void operator()(DIR* d) const { closedir(d); }
};
using DirPtr = std::unique_ptr<DIR, DirCloser>;

// snprintf into a path buffer. A path that does not fit is refused rather than cut, since
// a cut "<root>/123" would name another object.
__attribute__((format(printf, 2, 3))) bool FormatPath(char (&out)[kPathSize], const char* fmt,
                                                      ...) {
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(out, sizeof out, fmt, ap);
    va_end(ap);
    return n >= 0 && static_cast<size_t>(n) < sizeof out;
}

// The root of an area as a C string; the record's array need not be terminated.
struct AreaRoot {
    char text[kPathSize + 1] = {};
    explicit AreaRoot(const _file_path& area) {
        memcpy(text, area.path, strnlen(area.path, sizeof area.path));
    }
};

bool SameName(const _file_path& area, const char* name) {
    size_t n = strnlen(area.name, sizeof area.name);
    return strlen(name) == n && strncasecmp(area.name, name, n) == 0;
}

// atoi of a file name, clamped instead of overflowing on absurdly long digit runs.
int LeadingNumber(const char* text) {
    long long v = strtoll(text, nullptr, 10);
    return static_cast<int>(std::clamp<long long>(v, INT_MIN, INT_MAX));
}

bool IsDotEntry(const char* name) { return strcmp(name, ".") == 0 || strcmp(name, "..") == 0; }

// Regular files only; links are not followed, so nothing outside the directory is reached.
bool StatRegular(DIR* dir, const dirent* e, int64_t* size) {
    if (IsDotEntry(e->d_name)) return false;
    if (e->d_type != DT_REG && e->d_type != DT_UNKNOWN) return false;
    struct stat st {};
    if (fstatat(dirfd(dir), e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) return false;
    if (!S_ISREG(st.st_mode)) return false;
    if (size) *size = st.st_size;
    return true;
}

int WriteWhole(const char* path, const char* data, int length) {
    printf("save file %s\n", path);
    if (!mkdirEx(path)) return 0;
    FilePtr f(fopen(path, "wb"));
    if (!f) return 0;
    if (length > 0 &&
        fwrite(data, 1, static_cast<size_t>(length), f.get()) != static_cast<size_t>(length)) {
        return 0;
    }
    return fclose(f.release()) == 0 ? 1 : 0;
}

// Writes "<dir>/<n>.jpg" for the first number n from `first` up that is still free. The
// file is created exclusively, so two concurrent saves never pick the same number: the
// one that loses the race takes the next.
int WriteNewPicture(const char* dir, int first, const char* data, int length) {
    constexpr int kMaxClashes = 1000;
    char path[kPathSize];
    int fd = -1;
    for (long long n = first; fd < 0 && n < first + kMaxClashes && n <= INT_MAX; ++n) {
        if (!FormatPath(path, "%s/%lld.jpg", dir, n)) return 0;
        if (n == first && !mkdirEx(path)) return 0;
        fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd < 0 && errno != EEXIST) return 0;
    }
    if (fd < 0) return 0;
    printf("save file %s\n", path);
    FilePtr f(fdopen(fd, "wb"));
    if (!f) {
        close(fd);
        return 0;
    }
    if (length > 0 &&
        fwrite(data, 1, static_cast<size_t>(length), f.get()) != static_cast<size_t>(length)) {
        return 0;
    }
    return fclose(f.release()) == 0 ? 1 : 0;
}

void PutLE32(char* p, int value) {
    uint32_t v = static_cast<uint32_t>(value);
    for (int i = 0; i < 4; ++i) p[i] = static_cast<char>((v >> (8 * i)) & 0xff);
}

void PutHeader(char* buffer, const _msg_image_head_ex& head) {
    for (int i = 0; i < 8; ++i) {
        PutLE32(buffer + 4 * i, head.nPos[i]);
        PutLE32(buffer + 32 + 4 * i, head.nPicLen[i]);
    }
}

// Reads up to `want` bytes of an open stream into `out`; returns the count read.
int ReadInto(FILE* f, char* out, int64_t want) {
    return static_cast<int>(fread(out, 1, static_cast<size_t>(want), f));
}

struct Picture {
    char name[256];
    int64_t size;
};

// The first regular files of a directory, in directory order, with their sizes.
int ListPictures(DIR* dir, Picture (&pics)[kMaxPictures]) {
    int count = 0;
    while (count < kMaxPictures) {
        const dirent* e = readdir(dir);
        if (!e) break;
        int64_t size = 0;
        if (!StatRegular(dir, e, &size)) continue;
        snprintf(pics[count].name, sizeof pics[count].name, "%s", e->d_name);
        pics[count].size = size;
        ++count;
    }
    return count;
}

// Opens a picture inside the object directory, whatever the working directory is.
FilePtr OpenInside(DIR* dir, const char* name) {
    int fd = openat(dirfd(dir), name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return nullptr;
    FILE* f = fdopen(fd, "rb");
    if (!f) close(fd);
    return FilePtr(f);
}

int SaveToArea(const _file_path* area, int id, int pos, const char* data, int length) {
    if (!area) return 0;
    AreaRoot root(*area);
    switch (area->mode) {
        case 0:
            return SaveFile(root.text, id, data, length);
        case 1:
            return SavePathFile(root.text, id, pos, data, length);
        default:
            return 0;
    }
}

}  // namespace

_file_path* GetPathFromName(const char* name) {
    if (!name) return nullptr;
    for (_file_path* p : m_arrFilePath) {
        if (p && SameName(*p, name)) return p;
    }
    return nullptr;
}

_file_path* GetPathFromType(int type) {
    for (_file_path* p : m_arrFilePath) {
        if (p && p->type == type) return p;
    }
    return nullptr;
}

int SaveFileEx(const char* name, int id, int pos, const char* data, int length) {
    return SaveToArea(GetPathFromName(name), id, pos, data, length);
}

int SaveFileEx2(int type, int id, int pos, const char* data, int length) {
    return SaveToArea(GetPathFromType(type), id, pos, data, length);
}

int GetFileEx(int type, int id, int pos, char*& buffer, int& length, int maxLength) {
    const _file_path* area = GetPathFromType(type);
    if (!area) return 0;
    AreaRoot root(*area);
    switch (area->mode) {
        case 0:
            return GetPathFile(root.text, id, buffer, length, maxLength);
        case 1:
            return GetPathFileEx(root.text, id, buffer, length, maxLength);
        default:
            return 0;
    }
}

int DeleteFileEx(int type, int id) {
    const _file_path* area = GetPathFromType(type);
    if (!area || (area->mode != 0 && area->mode != 1)) return 0;
    AreaRoot root(*area);
    char path[kPathSize];
    if (!FormatPath(path, "%s/%d", root.text, id)) return 0;
    if (area->mode == 0) return remove(path) == 0 ? 1 : 0;
    return DeletePath(path);
}

int SaveFile(const char* root, int id, const char* data, int length) {
    if (!root || !data || length < 0) return 0;
    char path[kPathSize];
    if (!FormatPath(path, "%s/%d", root, id)) return 0;
    return WriteWhole(path, data, length);
}

int SavePathFile(const char* root, int id, int pos, const char* data, int length) {
    if (!root || !data || length < 0) return 0;
    char dir[kPathSize];
    if (!FormatPath(dir, "%s/%d", root, id)) return 0;
    // 255 asks for the next free number rather than a fixed one.
    if (pos == 255) return WriteNewPicture(dir, GetFilePos(dir), data, length);
    const int number = pos;
    char path[kPathSize];
    if (!FormatPath(path, "%s/%d.jpg", dir, number)) return 0;
    return WriteWhole(path, data, length);
}

int GetFilePos(const char* directory) {
    if (!directory) return 0;
    DirPtr dir(opendir(directory));
    if (!dir) return 0;
    long long largest = -1;
    while (const dirent* e = readdir(dir.get())) {
        if (!StatRegular(dir.get(), e, nullptr)) continue;
        char stem[24] = {};
        memcpy(stem, e->d_name, std::min(strcspn(e->d_name, "."), sizeof stem - 1));
        largest = std::max<long long>(largest, LeadingNumber(stem));
    }
    return static_cast<int>(std::min<long long>(largest + 1, INT_MAX));
}

int GetPathFile(const char* root, int id, char*& buffer, int& length, int maxLength) {
    if (!root || strlen(root) <= 3 || id == 0) return 0;
    size_t n = strlen(root);
    if (root[n - 1] == '/') --n;
    char path[kPathSize];
    if (n > kPathSize || !FormatPath(path, "%.*s/%d", static_cast<int>(n), root, id)) return 0;
    FilePtr f(fopen(path, "rb"));
    if (!f) return 0;
    struct stat st {};
    if (fstat(fileno(f.get()), &st) != 0 || !S_ISREG(st.st_mode)) return 0;
    if (st.st_size > static_cast<int64_t>(maxLength) - kHeadSize) return 0;
    char* out = new (std::nothrow) char[kHeadSize + st.st_size]();
    if (!out) return 0;
    int got = ReadInto(f.get(), out + kHeadSize, st.st_size);
    _msg_image_head_ex head{};
    head.nPos[0] = -1;
    head.nPicLen[0] = got;
    PutHeader(out, head);
    buffer = out;
    length = kHeadSize + got;
    return 1;
}

int GetPathFileEx(const char* root, int id, char*& buffer, int& length, int maxLength) {
    if (!root || id == 0) return 0;
    char path[kPathSize];
    if (!FormatPath(path, "%s/%d", root, id)) return 0;
    DirPtr dir(opendir(path));
    if (!dir) return 0;
    Picture pics[kMaxPictures];
    int count = ListPictures(dir.get(), pics);
    int64_t total = kHeadSize;
    for (int i = 0; i < count; ++i) total += pics[i].size;
    if (total > maxLength) return 0;
    std::unique_ptr<char[]> out(new (std::nothrow) char[total]());
    if (!out) return 0;
    _msg_image_head_ex head{};
    int used = kHeadSize;
    int read = 0;
    for (int i = 0; i < count; ++i) {
        FilePtr f = OpenInside(dir.get(), pics[i].name);
        if (!f) continue;
        // A picture that grew since it was sized is cut to the space reserved for it.
        int got = ReadInto(f.get(), out.get() + used, pics[i].size);
        head.nPos[read] = LeadingNumber(pics[i].name);
        head.nPicLen[read] = got;
        used += got;
        ++read;
    }
    if (read == 0) {
        buffer = nullptr;
        return 0;
    }
    PutHeader(out.get(), head);
    buffer = out.release();
    length = used;
    return 1;
}

int DeleteFile(const char* root, int id) {
    char path[kPathSize];
    if (root && FormatPath(path, "%s/%d", root, id)) remove(path);
    return 1;
}

int DeletePathFile(const char* root, int number) {
    char path[kPathSize];
    if (root && FormatPath(path, "%s/%d.jpg", root, number)) DeletePath(path);
    return 1;
}
