// CQue: a bounded first-in-first-out queue of byte buffers, for handing messages from network
// threads to a worker. Each entry owns a heap copy of what was put in.
//
// Return codes: 0 success, -3 full (m_InQue, m_InQueEx) or empty (m_OutQue), -1 for an
// invalid argument (null descriptor, negative length, length sum that does not fit, or no
// memory).
#pragma once

#include <memory>
#include <mutex>

constexpr int MAX_QUE_SLOTS = 512;
constexpr int QUE_BACKLOG_COUNT = 64;

// One queued entry; the queue owns acbBuff.
struct _tagSTATICQUEBUF {
    int dwLength = 0;
    std::unique_ptr<char[]> acbBuff;
};

// A caller's buffer: bytes to enqueue, or space to dequeue into.
struct _tagQUEBUF {
    int dwLength;
    void* lpBuff;
};

class CQue {
public:
    CQue();
    ~CQue();
    CQue(const CQue&) = delete;
    CQue& operator=(const CQue&) = delete;

    // Capacity := max (at most 512). Releases the buffers of the slots below the new capacity
    // but leaves head, tail and count alone, so call it on an empty queue. Returns 1.
    int m_InitQue(void* unused, int max);

    // Stores one entry holding first's bytes followed by second's (second may be null).
    // -3 when full, nothing stored.
    int m_InQue(const _tagQUEBUF* first, const _tagQUEBUF* second = nullptr);
    // As m_InQue, but a full queue drops its oldest entry to make room and still returns -3
    // so the caller learns that something was lost. An entry lent out by m_LockQue is never
    // dropped: then nothing is stored.
    int m_InQueEx(const _tagQUEBUF* first, const _tagQUEBUF* second = nullptr);

    // Removes the oldest entry and copies up to dest->dwLength bytes of it into dest->lpBuff;
    // dest->dwLength becomes the number copied and `remaining` what did not fit (that rest is
    // lost). -3 when empty.
    int m_OutQue(_tagQUEBUF* dest, int& remaining);

    // Lends out the oldest slot for reading in place (null when empty); the entry stays
    // queued until m_UnlockQue(slot) releases it. One consumer; it must unlock before its
    // next m_OutQue, m_LockQue or m_FlushAllQue.
    _tagSTATICQUEBUF* m_LockQue();
    void m_UnlockQue(_tagSTATICQUEBUF* slot);

    int m_GetQueCount() const;
    int m_PeekQueTailDataLength() const;
    bool m_IsQueFull() const;
    bool m_IsQueEmpty() const;
    // A backlog signal: more than 63 entries, deliberately regardless of capacity.
    bool m_IsQueExist() const;

    // Releases every entry; head = tail = count = 0. Returns 0.
    int m_FlushAllQue();

private:
    int Advance(int index) const;  // next index, wrapping at the capacity
    void StoreLocked(std::unique_ptr<char[]> buf, int length);
    void DropOldestLocked();
    int InQueImpl(const _tagQUEBUF* first, const _tagQUEBUF* second, bool dropOldest);

    // All of the state below is guarded by m_cs.
    int m_nMaxCount;
    _tagSTATICQUEBUF m_aQueBuf[MAX_QUE_SLOTS];
    int m_nHead;
    int m_nTail;
    int m_nCount;
    bool m_bTailLent;  // the oldest slot is out on loan through m_LockQue
    mutable std::mutex m_cs;
};
