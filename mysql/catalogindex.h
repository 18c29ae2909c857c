// Hash indexes beside the global catalogue vectors (used by the lookups only).
//
// An index files every position of its vector under a 64-bit key taken from the record (an
// id, a login handle, a hash of a serial or code). The positions under one key are chained in
// vector order, so the first record of a chain that really matches is the record the linear
// scan finds first; a hash collision only lengthens a chain. Empty text and login -1 are not
// filed: a lookup for them scans, as it did before.
//
// Keeping in step (all under the write lock, see mysql/catalog.h):
//  - appends are picked up when a CatalogWriteLock is released (CatalogIndexSync), and so is
//    a release (ReleaseArray of a global vector marks its index); until then the vector is
//    not in step and its lookups scan;
//  - a changed login handle, serial or code is re-filed at once (CatalogSetLogin,
//    CatalogIndexRefile).
// Checking mode (debug builds, or CMS_CATALOG_CHECK=1 in the environment) compares every
// indexed answer with the scan and verifies every filed key at each sync, and stops the
// process on a difference, so a forgotten update cannot pass silently in the tests.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "mysql/catalog.h"

namespace catidx {

constexpr uint64_t kUnfiled = ~0ull;
constexpr uint32_t kEnd = ~0u;

inline uint64_t IntKey(int v) { return static_cast<uint32_t>(v); }

inline uint64_t TextKey(const char* s, size_t cap) {
    size_t n = s ? strnlen(s, cap) : 0;
    if (n == 0) return kUnfiled;
    uint64_t h = std::hash<std::string_view>{}(std::string_view(s, n));
    return h == kUnfiled ? h - 1 : h;
}
template <size_t N>
uint64_t TextKey(const char (&field)[N]) {
    return TextKey(field, N);
}
inline uint64_t QueryKey(const char* s) { return TextKey(s, SIZE_MAX); }

inline uint64_t ChanKey(int dev, int chan, int type) {
    uint64_t k = (uint64_t{static_cast<uint32_t>(dev)} << 32) ^
                 (uint64_t{static_cast<uint32_t>(chan)} << 16) ^ static_cast<uint32_t>(type);
    return k == kUnfiled ? k - 1 : k;
}

// One key over one vector.
template <class T>
class KeyIndex {
public:
    using KeyOf = uint64_t (*)(const T&);
    explicit KeyIndex(KeyOf keyOf) : keyOf_(keyOf) {}

    void Clear() {
        filed_.clear();
        next_.clear();
        chains_.clear();
    }
    uint64_t KeyOfRecord(const T& r) const { return keyOf_(r); }

    // Files the next position, which holds `r`.
    void Push(const T* r) {
        auto p = static_cast<uint32_t>(filed_.size());
        uint64_t k = r ? keyOf_(*r) : kUnfiled;
        filed_.push_back(k);
        next_.push_back(kEnd);
        if (k == kUnfiled) return;
        auto [it, fresh] = chains_.try_emplace(k, Chain{p, p});
        if (!fresh) {
            next_[it->second.last] = p;
            it->second.last = p;
        }
    }

    // Position `p` now holds `r` with possibly other keys.
    void Refile(uint32_t p, const T* r) {
        uint64_t k = r ? keyOf_(*r) : kUnfiled;
        if (filed_[p] == k) return;
        Unlink(p);
        filed_[p] = k;
        if (k != kUnfiled) Link(p);
    }

    // The first position under `k` whose record satisfies `match`, or kEnd.
    template <class Match>
    uint32_t First(const std::vector<T*>& v, uint64_t k, Match match) const {
        auto it = chains_.find(k);
        if (it == chains_.end()) return kEnd;
        for (uint32_t p = it->second.first; p != kEnd; p = next_[p])
            if (v[p] && match(*v[p])) return p;
        return kEnd;
    }

    // Whether every filed key is still the key of the record at its position.
    bool Verify(const std::vector<T*>& v) const {
        for (size_t p = 0; p < filed_.size(); ++p)
            if (filed_[p] != (v[p] ? keyOf_(*v[p]) : kUnfiled)) return false;
        return true;
    }

private:
    struct Chain {
        uint32_t first, last;
    };

    void Unlink(uint32_t p) {
        auto it = chains_.find(filed_[p]);
        if (it == chains_.end()) return;
        Chain& c = it->second;
        uint32_t prev = kEnd;
        for (uint32_t q = c.first; q != p; q = next_[q]) {
            if (q == kEnd) return;
            prev = q;
        }
        if (prev == kEnd)
            c.first = next_[p];
        else
            next_[prev] = next_[p];
        if (c.last == p) c.last = prev;
        next_[p] = kEnd;
        if (c.first == kEnd) chains_.erase(it);
    }

    // Inserts `p` in vector order into the chain of its key.
    void Link(uint32_t p) {
        auto [it, fresh] = chains_.try_emplace(filed_[p], Chain{p, p});
        if (fresh) return;
        Chain& c = it->second;
        if (p < c.first) {
            next_[p] = c.first;
            c.first = p;
            return;
        }
        uint32_t q = c.first;
        while (next_[q] != kEnd && next_[q] < p) q = next_[q];
        next_[p] = next_[q];
        next_[q] = p;
        if (c.last == q) c.last = p;
    }

    KeyOf keyOf_;
    std::vector<uint64_t> filed_;  // per position
    std::vector<uint32_t> next_;   // per position: next position under the same key
    std::unordered_map<uint64_t, Chain> chains_;
};

// The indexes of one global vector; key 0 is always the record id.
template <class T>
class Table {
public:
    Table(int no, const std::vector<T*>& v, std::initializer_list<typename KeyIndex<T>::KeyOf> keys)
        : no_(no), vec_(v) {
        for (auto k : keys) keys_.emplace_back(k);
    }

    int No() const { return no_; }
    bool Over(const std::vector<T*>& v) const { return &v == &vec_; }
    bool InStep(const std::vector<T*>& v) const {
        return &v == &vec_ && !released_ && v.size() == built_;
    }
    // The vector was released: rebuild at the next sync, whatever it holds by then.
    void Forget() { released_ = true; }
    const KeyIndex<T>& Key(size_t i) const { return keys_[i]; }

    // Picks up appends, and rebuilds after a release (a shorter vector, or another record
    // where the last filed one was).
    void Sync() {
        if (released_ || vec_.size() < built_ || (built_ > 0 && vec_[built_ - 1] != last_)) {
            for (auto& k : keys_) k.Clear();
            built_ = 0;
            released_ = false;
        }
        for (; built_ < vec_.size(); ++built_)
            for (auto& k : keys_) k.Push(vec_[built_]);
        last_ = built_ ? vec_[built_ - 1] : nullptr;
    }

    void Refile(const T* r) {
        if (released_ || vec_.size() < built_) return;  // the next sync rebuilds
        uint64_t id = keys_[0].KeyOfRecord(*r);
        uint32_t p = keys_[0].First(vec_, id, [r](const T& x) { return &x == r; });
        if (p == kEnd) return;  // not filed yet: the next sync files it
        for (auto& k : keys_) k.Refile(p, r);
    }

    // Position `p` was handed out holding `r`; its fields may have changed since.
    void RefileAt(uint32_t p, const T* r) {
        if (released_ || vec_.size() < built_ || p >= built_ || vec_[p] != r) return;
        for (auto& k : keys_) k.Refile(p, r);
    }

    bool Verify() const {
        if (built_ != vec_.size()) return false;
        for (const auto& k : keys_)
            if (!k.Verify(vec_)) return false;
        return true;
    }

private:
    int no_;
    const std::vector<T*>& vec_;
    std::vector<KeyIndex<T>> keys_;
    size_t built_ = 0;
    const T* last_ = nullptr;
    bool released_ = false;
};

// The tables of the global vectors, and the order of their keys.
enum RegionKey { kRegionId, kRegionSerial };
enum DeviceKey { kDeviceId, kDeviceLogin, kDeviceCode, kDeviceSerial };
enum ChanKeyNo { kChanId, kChanCode, kChanSerial, kChanDev };
enum ServerKey { kServerId, kServerLogin, kServerSerial };
enum DomainKey { kDomainId, kDomainLogin, kDomainCode, kDomainSerial };

const Table<_msg_region_base>& Regions();
const Table<_hcrecord_Info>& Devices();
const Table<_msg_video_record_base>& Chans();
const Table<_sysserver_info>& Servers();
const Table<_domain_info>& Domains();

// The writer's notes: a lookup under the write lock notes the position it hands out, and the
// record there is re-filed before the writer's next lookup and when it lets go of the lock,
// so a writer may change what it found (a login handle, say) without telling anyone.
bool Writing();
void Touch(int table, uint32_t p, const void* r);
void FlushTouched();

bool Checking();
// Called in checking mode when an indexed answer differs from the scan; does not return.
[[noreturn]] void Mismatch(const char* lookup);

}  // namespace catidx
