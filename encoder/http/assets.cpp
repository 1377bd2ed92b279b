// SPDX-License-Identifier: Apache-2.0
#include "http/assets.h"

#include <openssl/evp.h>
#include <zlib.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <utility>

namespace mdencoder::http {
namespace {

constexpr std::pair<std::string_view, const char*> kTypes[] = {{".html", "text/html; charset=utf-8"},
                                                               {".css", "text/css; charset=utf-8"},
                                                               {".js", "text/javascript; charset=utf-8"},
                                                               {".mjs", "text/javascript; charset=utf-8"},
                                                               {".json", "application/json"},
                                                               {".geojson", "application/geo+json"},
                                                               {".webmanifest", "application/manifest+json"},
                                                               {".svg", "image/svg+xml"},
                                                               {".png", "image/png"},
                                                               {".webp", "image/webp"},
                                                               {".ico", "image/x-icon"},
                                                               {".woff2", "font/woff2"},
                                                               {".txt", "text/plain; charset=utf-8"}};

std::string TypeOf(std::string_view path) {
  for (const auto& [suffix, type] : kTypes) {
    if (path.ends_with(suffix)) return type;
  }
  return "application/octet-stream";
}

// The same bytes have the same tag in every build.
std::string TagOf(std::string_view bytes) {
  std::array<uint8_t, 32> digest{};
  EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, EVP_sha256(), nullptr);
  std::string tag = "\"";
  for (size_t i = 0; i < 12; ++i) {
    char digits[3];
    std::snprintf(digits, sizeof(digits), "%02x", digest.at(i));
    tag += digits;
  }
  return tag + "\"";
}

// Returns the bytes as gzip, or "" if that is not smaller.
std::string Compress(std::string_view bytes) {
  constexpr int kGzip = 15 + 16;
  constexpr int kMemory = 8;
  z_stream stream{};
  if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kGzip, kMemory, Z_DEFAULT_STRATEGY) != Z_OK) return {};
  std::string compressed(deflateBound(&stream, static_cast<uLong>(bytes.size())), '\0');
  // zlib's interface has no const, and changes nothing.
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
  stream.avail_in = static_cast<uInt>(bytes.size());
  stream.next_out = reinterpret_cast<Bytef*>(compressed.data());
  stream.avail_out = static_cast<uInt>(compressed.size());
  const bool isWhole = deflate(&stream, Z_FINISH) == Z_STREAM_END;
  compressed.resize(stream.total_out);
  deflateEnd(&stream);
  if (!isWhole || compressed.size() >= bytes.size()) return {};
  return compressed;
}

}  // namespace

Assets::Assets(std::span<const BundledFile> files) {
  for (const BundledFile& each : files) {
    File file;
    file.plain = {reinterpret_cast<const char*>(each.begin), static_cast<size_t>(each.end - each.begin)};
    file.type = TypeOf(each.path);
    file.tag = TagOf(file.plain);
    file.compressed = Compress(file.plain);
    if (std::string_view(each.path) == "/index.html") m_files["/"] = file;
    m_files[each.path] = std::move(file);
  }
}

Answer Assets::Get(std::string_view path, const Request& request) const {
  const auto found = m_files.find(path);
  if (found == m_files.end()) throw Refusal{404, "there is nothing here"};
  const File& file = found->second;
  Answer answer;
  answer.type = file.type;
  answer.fields = {{"ETag", file.tag}, {"Cache-Control", "no-cache"}, {"Vary", "Accept-Encoding"}};
  if (request.knownTag == file.tag) {
    answer.status = 304;
    return answer;
  }
  const bool isCompressed = request.acceptsGzip && !file.compressed.empty();
  if (isCompressed) answer.fields.emplace_back("Content-Encoding", "gzip");
  answer.body = isCompressed ? file.compressed : std::string(file.plain);
  return answer;
}

}  // namespace mdencoder::http
