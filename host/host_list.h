// SPDX-License-Identifier: Apache-2.0
// An intrusive doubly linked list. No lock of its own.
#ifndef HOST_LIST_H
#define HOST_LIST_H

#include "host_types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct tagFNODE_D {
  struct tagFNODE_D* pNext;
  struct tagFNODE_D* pPrev;
  void* pvObject;  // the record the node lies in
} FNODE_D;

typedef struct tagFLIST_D {
  char acSignature[4];  // "FLST"
  FNODE_D* pHead;
  FNODE_D* pTail;
} FLIST_D;

void FastInitNode(FNODE_D* pNode, void* pvObject);
// Links at the tail.
void FastLinkD(FLIST_D* pList, FNODE_D* pNode);
void FastUnlinkD(FLIST_D* pList, FNODE_D* pNode);

#ifdef __cplusplus
}
#endif

#endif  // HOST_LIST_H
