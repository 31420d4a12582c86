#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "ambit/portable.h"

namespace {

// Memory order of the bytes as the text forms show them.
constexpr int kTextOrder[16] = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};

const unsigned char* Bytes(const CPortable::PUUID* uuid) {
  return reinterpret_cast<const unsigned char*>(uuid);
}

std::string Format(const char* format, const CPortable::PUUID* uuid) {
  const unsigned char* b = Bytes(uuid);
  unsigned v[16];
  for (int i = 0; i < 16; ++i) v[i] = b[kTextOrder[i]];
  char text[40];
  std::snprintf(text, sizeof text, format, v[0], v[1], v[2], v[3], v[4], v[5],
                v[6], v[7], v[8], v[9], v[10], v[11], v[12], v[13], v[14], v[15]);
  return text;
}

void Parse(const char* format, const std::string& text, CPortable::PUUID* uuid) {
  unsigned v[16] = {};
  std::sscanf(text.c_str(), format, &v[0], &v[1], &v[2], &v[3], &v[4], &v[5],
              &v[6], &v[7], &v[8], &v[9], &v[10], &v[11], &v[12], &v[13], &v[14],
              &v[15]);
  unsigned char* b = reinterpret_cast<unsigned char*>(uuid);
  for (int i = 0; i < 16; ++i) b[kTextOrder[i]] = static_cast<unsigned char>(v[i]);
}

const char kDashed[] =
    "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x";
const char kSansDashes[] =
    "%01x%02x%02x%02x%02x%02x%02x%02x%02x%02x%02x%02x%02x%02x%02x%02x";

}  // namespace

std::string CPortable::newPUUID() {
  PUUID uuid;
  std::memset(&uuid, 0, sizeof uuid);
  const int fd = ::open("/dev/urandom", O_RDONLY | O_CLOEXEC);
  if (fd >= 0) {
    const ssize_t n = ::read(fd, &uuid, sizeof uuid);
    (void)n;
    ::close(fd);
  }
  return PUUIDToString(&uuid);
}

std::string CPortable::nilPUUID() {
  static const std::string nil = [] {
    PUUID zero;
    std::memset(&zero, 0, sizeof zero);
    return PUUIDToString(&zero);
  }();
  return nil;
}

std::string CPortable::PUUIDToString(PUUID* uuid) { return Format(kDashed, uuid); }

std::string CPortable::PUUIDToStringSansDashes(PUUID* uuid) {
  return Format(kSansDashes, uuid);
}

void CPortable::PUUIDFromString(std::string text, PUUID* uuid) {
  Parse(kDashed, text, uuid);
}

void CPortable::PUUIDFromStringSansDashes(std::string text, PUUID* uuid) {
  Parse(kSansDashes, text, uuid);
}

void CPortable::PUUIDNil(PUUID* uuid) { std::memset(uuid, 0, sizeof *uuid); }

int CPortable::PUUIDIsNil(PUUID* uuid) {
  if (uuid == nullptr) return 1;
  static const unsigned char zero[16] = {};
  return std::memcmp(uuid, zero, sizeof zero) == 0 ? 1 : 0;
}

int CPortable::PUUIDEqual(PUUID* a, PUUID* b) {
  return std::memcmp(a, b, sizeof *a) == 0 ? 1 : 0;
}

int CPortable::PUUIDLessThan(PUUID* a, PUUID* b) {
  return std::memcmp(a, b, sizeof *a) < 0 ? 1 : 0;
}

int CPortable::PUUIDGreaterThan(PUUID* a, PUUID* b) {
  return std::memcmp(a, b, sizeof *a) > 0 ? 1 : 0;
}
