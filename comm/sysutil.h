// System utilities: time, files, addresses, node codes, owned-record vectors, reboot,
// Base64. Stateless; no locks.
#pragma once

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
int mkdirEx(const char* path);
// `out` holds at least 256 bytes; longer results are truncated.
void Getfilepath(const char* dir, const char* name, char* out);
int DeletePath(const char* path);

// ---- Addresses and codes ----
int IpToChar(uint32_t ip, char* out);
uint32_t CharToIp(const char* text);
bool IsIpAddress(const char* text);
bool IsSerial(const char* text);
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

// ---- Reboot ----
// The reboot call goes through this seam so that tests never reboot the machine.
using RebootFunc = int (*)(int cmd);
RebootFunc SetRebootFunc(RebootFunc f);  // returns the previous one
bool SystemReboot(int mode);

// ---- Base64 ----
uint32_t Base64Encode(const unsigned char* data, uint32_t length, char* out);
uint32_t Base64Decode(const char* text, unsigned char* out, uint32_t capacity);
int load_block(const char* text, int length, int pos, unsigned char out[4]);
