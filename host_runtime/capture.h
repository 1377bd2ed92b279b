// One running capture of a video input's KLV.
#ifndef CAPTURE_H
#define CAPTURE_H

#include <vector>

#include "runtime_state.h"

struct CapturedKLV {
  std::vector<BYTE> bytes;
  UINT64 timestamp = 0;
};

class Capture {
 public:
  virtual ~Capture() = default;
  virtual int FD() const = 0;               // readable while KLV waits
  virtual bool Take(CapturedKLV& out) = 0;  // the oldest packet; never blocks
};

#endif  // CAPTURE_H
