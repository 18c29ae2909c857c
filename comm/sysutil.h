// System utilities: time, files, addresses, node codes, owned-record vectors, reboot,
// Base64. Stateless; no locks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

// ---- Time ----
// Wall-clock milliseconds truncated to 32 bits; compare ticks by unsigned subtraction.
uint32_t GetTickCount();
uint32_t GetCurrentTime();  // seconds since 1970
uint32_t gettime(int year, int month, int day, int hour, int minute, int second);
int gettimeex(uint32_t t, int& year, int& month, int& day, int& hour, int& minute, int& second,
              int& weekday);

// ---- Files ----
int64_t get_file_size(const char* path);
int filesize(FILE* stream);
// dir + "/" (unless dir already ends with one) + name. The 3-argument form assumes the
// 256-byte buffers its callers use; longer results are truncated to fit.
void Getfilepath(const char* dir, const char* name, char* out);
void Getfilepath(const char* dir, const char* name, char* out, size_t outSize);
// Creates the directories named before each '/' of `path` (mode 0700: owner only, with the
// search bit so that a server running as a normal user can enter what it made); the part
// after the last '/' is not created. 0 for a null path.
int mkdirEx(const char* path);
// Removes a file, or a directory with everything below it; links are not followed.
int DeletePath(const char* path);

// ---- Addresses and codes ----
// Known defect kept as it stands: appends only the three dots, not the digits. Unused.
int IpToChar(uint32_t ip, char* out);
// "a.b.c.d" -> a | b<<8 | c<<16 | d<<24 (network order in memory on little-endian).
uint32_t CharToIp(const char* text);
bool IsIpAddress(const char* text);
bool IsSerial(const char* text);
// -1 for a null, empty or over-20-character code; 1 for a region (20 characters with type
// "215"/"216" at positions 11-13, or any shorter administrative code); else 0.
int IsNodeGbRegion(const char* code);

// ---- Owned records ----
template <class T>
int ReleaseArray(std::vector<T*>& v) {
    for (T*& p : v) {
        delete p;
        p = nullptr;
    }
    v.clear();
    return 1;
}

// A temporary vector that owns its heap records: they are released when it goes.
template <class T>
struct OwnedList {
    std::vector<T*> v;
    OwnedList() = default;
    ~OwnedList() { ReleaseArray(v); }
    OwnedList(const OwnedList&) = delete;
    OwnedList& operator=(const OwnedList&) = delete;
};

// ---- Reboot ----
// The reboot call goes through this seam so that tests never reboot the machine.
using RebootFunc = int (*)(int cmd);
// Installs `f` (null restores the real reboot call) and returns the previous one.
RebootFunc SetRebootFunc(RebootFunc f);
// sync, then power off (mode 1) or restart (any other mode); true when reboot returned 0.
bool SystemReboot(int mode);

// ---- Base64 ----
// Writes the terminated text and returns its length, 0 on refusal. The 3-argument form
// assumes `out` holds ((length + 2) / 3) * 4 + 1 bytes; the sized form refuses to overrun.
uint32_t Base64Encode(const unsigned char* data, uint32_t length, char* out);
uint32_t Base64Encode(const unsigned char* data, uint32_t length, char* out, size_t outSize);
// Bytes written, 0 when capacity is below three quarters of the text length.
uint32_t Base64Decode(const char* text, unsigned char* out, uint32_t capacity);
// The next four Base64 characters (letters, digits, '+', '/', '=') from `pos`, skipping
// any other byte; 255 fills what the text lacks. Returns the position after the last byte
// looked at.
int load_block(const char* text, int length, int pos, unsigned char out[4]);

// ---- Log ----
// One printf-style line to standard output (comm/writelog.cpp); a newline is added if missing.
void WriteLog(const char* format, ...) __attribute__((format(printf, 1, 2)));
