#include "stack/Que.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>

namespace {

int DescLength(const _tagQUEBUF* q) { return q ? q->dwLength : 0; }

bool ValidDesc(const _tagQUEBUF* q) {
    return q && q->dwLength >= 0 && (q->dwLength == 0 || q->lpBuff);
}

}  // namespace

CQue::CQue() : m_nMaxCount(MAX_QUE_SLOTS), m_nHead(0), m_nTail(0), m_nCount(0),
               m_bTailLent(false) {}

CQue::~CQue() { m_FlushAllQue(); }

int CQue::Advance(int index) const {
    ++index;
    return index >= m_nMaxCount ? 0 : index;
}

int CQue::m_InitQue(void* /*unused*/, int max) {
    std::lock_guard<std::mutex> lock(m_cs);
    m_nMaxCount = std::clamp(max, 0, MAX_QUE_SLOTS);
    for (int i = 0; i < m_nMaxCount; ++i) {
        m_aQueBuf[i].acbBuff.reset();
        m_aQueBuf[i].dwLength = 0;
    }
    return 1;
}

void CQue::StoreLocked(std::unique_ptr<char[]> buf, int length) {
    // A stale buffer in the slot (left by m_InitQue) is released here, not leaked.
    _tagSTATICQUEBUF& slot = m_aQueBuf[m_nHead];
    slot.acbBuff = std::move(buf);
    slot.dwLength = length;
    m_nHead = Advance(m_nHead);
    ++m_nCount;
}

void CQue::DropOldestLocked() {
    _tagSTATICQUEBUF& slot = m_aQueBuf[m_nTail];
    slot.acbBuff.reset();
    slot.dwLength = 0;
    m_nTail = Advance(m_nTail);
    --m_nCount;
}

int CQue::InQueImpl(const _tagQUEBUF* first, const _tagQUEBUF* second, bool dropOldest) {
    if (!ValidDesc(first) || (second && !ValidDesc(second))) return -1;
    if (DescLength(first) > INT_MAX - DescLength(second)) return -1;
    const int length = DescLength(first) + DescLength(second);

    // Copy before taking the lock so producers hold it only to link the entry in.
    std::unique_ptr<char[]> buf(new (std::nothrow) char[length > 0 ? length : 1]);
    if (!buf) return -1;
    if (first->dwLength > 0) std::memcpy(buf.get(), first->lpBuff, first->dwLength);
    if (second && second->dwLength > 0)
        std::memcpy(buf.get() + first->dwLength, second->lpBuff, second->dwLength);

    std::lock_guard<std::mutex> lock(m_cs);
    if (m_nCount + 1 <= m_nMaxCount) {
        StoreLocked(std::move(buf), length);
        return 0;
    }
    // Full. The entry a consumer is reading in place must survive.
    if (dropOldest && m_nCount > 0 && !m_bTailLent) {
        DropOldestLocked();
        if (m_nCount + 1 <= m_nMaxCount) StoreLocked(std::move(buf), length);
    }
    return -3;
}

int CQue::m_InQue(const _tagQUEBUF* first, const _tagQUEBUF* second) {
    return InQueImpl(first, second, false);
}

int CQue::m_InQueEx(const _tagQUEBUF* first, const _tagQUEBUF* second) {
    return InQueImpl(first, second, true);
}

int CQue::m_OutQue(_tagQUEBUF* dest, int& remaining) {
    if (!dest || dest->dwLength < 0 || (dest->dwLength > 0 && !dest->lpBuff)) return -1;
    std::unique_ptr<char[]> buf;
    int length = 0;
    {
        std::lock_guard<std::mutex> lock(m_cs);
        if (m_nCount <= 0) return -3;
        _tagSTATICQUEBUF& slot = m_aQueBuf[m_nTail];
        buf = std::move(slot.acbBuff);
        length = slot.dwLength;
        slot.dwLength = 0;
        --m_nCount;
        m_nTail = Advance(m_nTail);
        m_bTailLent = false;
    }
    // The entry is ours now, so the copy needs no lock.
    const int n = buf ? std::min(length, dest->dwLength) : 0;
    if (n > 0) std::memcpy(dest->lpBuff, buf.get(), n);
    dest->dwLength = n;
    remaining = length - n;
    return 0;
}

_tagSTATICQUEBUF* CQue::m_LockQue() {
    std::lock_guard<std::mutex> lock(m_cs);
    if (m_nCount <= 0) return nullptr;
    m_bTailLent = true;
    return &m_aQueBuf[m_nTail];
}

void CQue::m_UnlockQue(_tagSTATICQUEBUF* slot) {
    if (!slot) return;
    std::lock_guard<std::mutex> lock(m_cs);
    // Only the slot that was lent out may be released; a stale pointer changes nothing.
    if (m_nCount <= 0 || slot != &m_aQueBuf[m_nTail]) return;
    DropOldestLocked();
    m_bTailLent = false;
}

int CQue::m_GetQueCount() const {
    std::lock_guard<std::mutex> lock(m_cs);
    return m_nCount;
}

int CQue::m_PeekQueTailDataLength() const {
    std::lock_guard<std::mutex> lock(m_cs);
    return m_aQueBuf[m_nTail].dwLength;
}

bool CQue::m_IsQueFull() const {
    std::lock_guard<std::mutex> lock(m_cs);
    return m_nCount == m_nMaxCount;
}

bool CQue::m_IsQueEmpty() const {
    std::lock_guard<std::mutex> lock(m_cs);
    return m_nCount == 0;
}

bool CQue::m_IsQueExist() const {
    std::lock_guard<std::mutex> lock(m_cs);
    return m_nCount >= QUE_BACKLOG_COUNT;
}

int CQue::m_FlushAllQue() {
    std::lock_guard<std::mutex> lock(m_cs);
    // Every slot, not only those below the capacity: a shrunk queue may still hold some.
    for (_tagSTATICQUEBUF& slot : m_aQueBuf) {
        slot.acbBuff.reset();
        slot.dwLength = 0;
    }
    m_nHead = m_nTail = m_nCount = 0;
    m_bTailLent = false;
    return 0;
}
