// Local file store: small binary objects (snapshots, face and registration pictures,
// record outputs) kept in the storage areas of m_arrFilePath.
//
// An area of mode 0 keeps one file per object id, "<root>/<id>". An area of mode 1 keeps a
// directory per object id holding numbered pictures, "<root>/<id>/<number>.jpg". Areas of
// any other mode store nothing.
//
// Locks: none. m_arrFilePath is filled once at start-up and only read afterwards.
// Paths are built in 255-byte buffers; a path that would not fit is refused (0), never
// truncated, so a long root can never make a write land on some other file.
#pragma once

#include <climits>
#include <cstddef>

#include "comm/settings.h"

// Index header in front of a packed read result, sent as it stands to clients.
// Integers are little-endian on the wire.
struct _msg_image_head_ex {
    int nPos[8];     // picture number (mode 1), or -1 for the single file of mode 0
    int nPicLen[8];  // byte length of each picture; unused entries 0
};
static_assert(sizeof(_msg_image_head_ex) == 64, "_msg_image_head_ex layout");

// ---- Areas ----
// First area whose name matches without regard to case (or whose type matches); null when
// there is none. The record belongs to m_arrFilePath.
_file_path* GetPathFromName(const char* name);
_file_path* GetPathFromType(int type);

// ---- Object operations by area ----
// Store `length` bytes as object `id` of the area; `pos` picks the picture number in a
// mode-1 area (255: the next free number, created exclusively so that concurrent saves
// never share one) and is ignored in mode 0. 1 on success; 0 when the
// area is missing, its mode is unknown or writing fails.
int SaveFileEx(const char* name, int id, int pos, const char* data, int length);
int SaveFileEx2(int type, int id, int pos, const char* data, int length);

// Read object `id` of the area of `type` as a packed result: the 64-byte header followed by
// the pictures. On 1, `buffer` is a new[] allocation the caller delete[]s and `length` its
// size. `pos` is not used. 0 (and `buffer` untouched or null) on failure, and when the
// result would be longer than `maxLength` (checked from the file sizes, before reading).
int GetFileEx(int type, int id, int pos, char*& buffer, int& length, int maxLength = INT_MAX);

// Remove object `id`: mode 0 returns 1 only when the file was removed; mode 1 removes the
// picture directory with everything in it. 0 when the area is missing or of unknown mode.
int DeleteFileEx(int type, int id);

// ---- Workers on an explicit root ----
int SaveFile(const char* root, int id, const char* data, int length);               // mode 0
int SavePathFile(const char* root, int id, int pos, const char* data, int length);  // mode 1
// Mode 0: root longer than 3 characters and id non-zero; one trailing '/' of the root is
// ignored. Buffer ownership as for GetFileEx.
int GetPathFile(const char* root, int id, char*& buffer, int& length, int maxLength = INT_MAX);
// Mode 1: at most 8 regular files of "<root>/<id>", opened inside that directory, in
// directory order. 0 and a null buffer when none could be read.
int GetPathFileEx(const char* root, int id, char*& buffer, int& length, int maxLength = INT_MAX);
int DeleteFile(const char* root, int id);          // removes "<root>/<id>"; always 1
int DeletePathFile(const char* root, int number);  // removes "<root>/<number>.jpg"; always 1
// Next free picture number of a directory: 1 + the largest leading number of the names of
// its regular files; 0 for an empty directory or one that cannot be opened.
int GetFilePos(const char* directory);
