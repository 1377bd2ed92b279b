// SPDX-License-Identifier: Apache-2.0
// The intrusive list. Its users provide the locking.
#include "host.h"

extern "C" {

void FastInitNode(FNODE_D* pNode, void* pvObject) {
  pNode->pNext = nullptr;
  pNode->pPrev = nullptr;
  pNode->pvObject = pvObject;
}

void FastLinkD(FLIST_D* pList, FNODE_D* pNode) {
  pNode->pNext = nullptr;
  pNode->pPrev = pList->pTail;
  (pList->pTail != nullptr ? pList->pTail->pNext : pList->pHead) = pNode;
  pList->pTail = pNode;
}

void FastUnlinkD(FLIST_D* pList, FNODE_D* pNode) {
  // A node outside any list has no neighbours and is not the head.
  if (pNode->pPrev == nullptr && pList->pHead != pNode) return;
  (pNode->pPrev != nullptr ? pNode->pPrev->pNext : pList->pHead) = pNode->pNext;
  (pNode->pNext != nullptr ? pNode->pNext->pPrev : pList->pTail) = pNode->pPrev;
  pNode->pNext = nullptr;
  pNode->pPrev = nullptr;
}

}  // extern "C"
