// SPDX-License-Identifier: Apache-2.0
// The floors: what a plain program in C does for the same work, with no error that it does not meet, no log, no counters.
// Each file says what its loop stands for. They are compiled with -O2, like everything that a benchmark compares them with.
#ifndef FLOORS_H
#define FLOORS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// A finished message; the memory belongs to the caller.
typedef void (*FloorDeliver)(const uint8_t* message, size_t size, void* user);

// --- datagrams (udp.c) -------------------------------------------------------------------------------

enum { kFloorMostRelays = 8, kFloorMostSources = 64, kFloorDatagram = 1500, kFloorRounds = 16 };

// What a rewriting loop does to each message; the elements stand as they go into it, with tag and length.
typedef struct FloorRules {
  uint32_t keep[4];  // tag t is kept if bit t % 32 of word t / 32 is set
  const uint8_t* missionId;
  size_t missionIdSize;
  const uint8_t* securitySet;
  size_t securitySetSize;
} FloorRules;

typedef struct FloorSource {
  int socket;
  int relays;                          // how many of the next ones are used
  int relaySockets[kFloorMostRelays];  // connected
} FloorSource;

typedef struct FloorUdp {
  int epoll;  // watches the sockets; the event's number is the source's index
  int count;
  FloorSource sources[kFloorMostSources];
  const FloorRules* rules;  // null leaves the messages as they are
  FloorDeliver deliver;
  void* user;
} FloorUdp;

// Makes the epoll instance for the sources that are filled in. Returns 0, or -1 with errno.
int FloorUdpOpen(FloorUdp* udp);
// One wait, and one datagram from every socket that is ready.
void FloorUdpPass(FloorUdp* udp);
// One wait, and up to 16 datagrams from every socket that is ready: what the loop gains from fewer waits.
void FloorUdpPassOfMany(FloorUdp* udp);
// One wait, and one recvmmsg of up to 16 datagrams from every socket that is ready.
void FloorUdpPassAtOnce(FloorUdp* udp);

// --- messages (rewrite.c, klv_stream.c, cot_stream.c) --------------------------------------------------

// A message and the memory that it stands in, which the caller frees.
typedef struct FloorMessage {
  uint8_t* block;  // null for none
  uint8_t* data;
  size_t size;
} FloorMessage;

// Rewrites one UAS Local Set into memory from malloc. Returns none for a broken message.
FloorMessage FloorRewrite(const FloorRules* rules, const uint8_t* message, size_t size);
// Both cut, check and deliver the messages of a stream as far as it is held, and return how many bytes they are done with:
// behind them a message begins that is not all there. The Cursor-on-Target one may read eight bytes behind the stream.
size_t FloorKlvStream(const uint8_t* stream, size_t size, FloorDeliver deliver, void* user);
size_t FloorCotStream(const uint8_t* stream, size_t size, FloorDeliver deliver, void* user);

// --- bytes and bits (checksum.c, word_sum.c, crc.c, bits.c, scan.c) ---------------------------------------

uint16_t FloorChecksum(const uint8_t* data, size_t size);
uint16_t FloorWordSum(const uint8_t* data, size_t size);  // the same sum, for little-endian processors
uint16_t FloorCrc(const uint8_t* data, size_t size);
int FloorExtractBits(const uint8_t* input, int* inputBit, uint8_t* output, int* outputBit, int count);
// Position of the pattern, or -1.
ptrdiff_t FloorScan(const void* data, size_t size, const void* pattern, size_t patternSize);

// --- services (buffer.c, mailbox.c, select.c, grid.c) --------------------------------------------------

void FloorBuffer(const uint8_t* data, size_t size);

typedef struct FloorMailbox FloorMailbox;
FloorMailbox* FloorMailboxOpen(void);
void FloorMailboxClose(FloorMailbox* mailbox);
int FloorMailboxSend(FloorMailbox* mailbox, uint32_t event, void* parameter);  // 0, or -1 without memory
int FloorMailboxReceive(FloorMailbox* mailbox, uint32_t* event, void** parameter);

typedef void (*FloorReadable)(int descriptor, void* user);
// One wait on an epoll instance whose events carry the descriptor, and the call for each that is ready.
void FloorSelect(int epoll, FloorReadable readable, void* user);

// Both read `count` numbers from a file. Return 0, or -1.
int FloorGridFixedPoint(const char* path, float* values, size_t count);
int FloorGridScan(const char* path, float* values, size_t count);

#ifdef __cplusplus
}
#endif

#endif  // FLOORS_H
