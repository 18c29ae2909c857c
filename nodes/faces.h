// Face registration on analytics devices: every picture in a staff member's directory of
// the registration store is sent to the device; the first creates the face, the others
// are added to it.
//
// Locks: none held; the address lookups take csCatalog briefly.
#pragma once

class CMysqlDB;

// Registers the pictures of "<root>/<staffId>" with the device at `url` (its play address)
// under `name`: the first accepted picture creates the face, whose id (the reply) is
// stored as staffinfo.faceid; later pictures are added to that id. The walk stops at the
// first refusal. Pictures are sent in name order. Always 0: callers do not rely on it.
int RegistFace(CMysqlDB* db, const char* url, const char* root, const char* name, int staffId);
// Registers staff member `staffId`, or every staff member when it is 0, with the node.
// 1 when staff rows were found.
int RegistFaceEx(int nodeid, int nodetype, int staffId, const char* root);
// Deletes face `faceId` from the node; the node's answer.
bool DeleteFace(int nodeid, int nodetype, int faceId);
// Deletes every face of the node; the node's answer.
bool ClearFace(int nodeid, int nodetype);
