// SPDX-License-Identifier: Apache-2.0
// Opens with libavformat what others have made, in every program in the same way.
//
// Limited are the protocols and formats, the tracks of an input, and the size of a block of memory. The certificate of an
// https server must fit, and no server of that kind leads to one without a certificate. How long an opening takes is up to
// the interrupt callback of the caller's context.
#ifndef MEDIA_INPUT_H
#define MEDIA_INPUT_H

#include <chrono>
#include <cstdarg>
#include <string>

struct AVFormatContext;

namespace media_input {

// What an input is opened for. The formats and protocols depend on it.
enum class Purpose {
  Klv,    // its data tracks; datagrams are received by the program
  Video,  // its pictures
  Look    // whatever it has
};

struct Request {
  Purpose purpose = Purpose::Klv;
  std::string name;  // path of a file, or a URL
  std::string
      authorities;  // https: file (PEM) of those that may have signed the certificate; empty: those of the system
  bool endsInSilence = true;  // a peer without a byte for kLongestSilence is an error
};

constexpr std::chrono::seconds kLongestOpening{10};  // for callers without a limit of their own
constexpr std::chrono::seconds kLongestSilence{15};

// Limits what libavformat allocates, and sends its messages to `log`, or nowhere if no caller gave a log.
using Log = void (*)(void* context, int level, const char* format, va_list arguments);
void Prepare(Log log = nullptr);

// Tells whether the protocol of a URL is known. Paths have one that is.
bool KnowsProtocol(Purpose purpose, const std::string& name);

// Returns a context with the limits, or null without memory.
AVFormatContext* MakeContext();

// Opens the input, or frees the context, sets it to null and returns why.
std::string Open(AVFormatContext*& context, const Request& request);

// Returns libav's text of an error.
std::string ErrorText(int error);

}  // namespace media_input

#endif  // MEDIA_INPUT_H
