// pcapng blocks (see pcapng.h).
#include "pcapng.h"

#include <algorithm>
#include <cstring>

namespace vanectl::pcapng {

namespace {

constexpr uint32_t kShb = 0x0A0D0D0A;
constexpr uint32_t kIdb = 0x00000001;
constexpr uint32_t kEpb = 0x00000006;
constexpr uint32_t kByteOrderMagic = 0x1A2B3C4D;
constexpr uint16_t kLinkEthernet = 1;
constexpr uint16_t kOptEnd = 0;
constexpr uint16_t kOptComment = 1;
constexpr uint16_t kShbUserAppl = 4;
constexpr uint16_t kIfName = 2;
constexpr uint16_t kIfTsresol = 9;
constexpr uint8_t kNanoseconds = 9;

template <typename T>
void Put(std::string* b, T v) {
  char raw[sizeof v];
  std::memcpy(raw, &v, sizeof v);
  b->append(raw, sizeof v);
}

void Pad(std::string* b) { b->append((4 - b->size() % 4) % 4, '\0'); }

void Option(std::string* b, uint16_t code, std::string_view value) {
  Put<uint16_t>(b, code);
  Put<uint16_t>(b, static_cast<uint16_t>(value.size()));
  b->append(value);
  Pad(b);
}

void EndOptions(std::string* b) {
  Put<uint16_t>(b, kOptEnd);
  Put<uint16_t>(b, 0);
}

// Type, total length, body, total length again.
std::string Block(uint32_t type, const std::string& body) {
  const auto total = static_cast<uint32_t>(12 + body.size());
  std::string b;
  Put(&b, type);
  Put(&b, total);
  b += body;
  Put(&b, total);
  return b;
}

}  // namespace

std::string SectionHeader(std::string_view application) {
  std::string body;
  Put(&body, kByteOrderMagic);
  Put<uint16_t>(&body, 1);
  Put<uint16_t>(&body, 0);
  Put<int64_t>(&body, -1);
  if (!application.empty()) {
    Option(&body, kShbUserAppl, application.substr(0, 0xFFFF));
    EndOptions(&body);
  }
  return Block(kShb, body);
}

std::string EthernetInterface(std::string_view name, uint32_t snaplen) {
  std::string body;
  Put<uint16_t>(&body, kLinkEthernet);
  Put<uint16_t>(&body, 0);
  Put(&body, snaplen);
  if (!name.empty()) {
    Option(&body, kIfName, name.substr(0, 0xFFFF));
  }
  Option(&body, kIfTsresol, std::string_view(reinterpret_cast<const char*>(&kNanoseconds), 1));
  EndOptions(&body);
  return Block(kIdb, body);
}

std::string Packet(uint64_t ts_ns, const uint8_t* data, uint32_t captured, uint32_t original,
                   const std::vector<std::string>& comments) {
  std::string body;
  Put<uint32_t>(&body, 0);
  Put(&body, static_cast<uint32_t>(ts_ns >> 32));
  Put(&body, static_cast<uint32_t>(ts_ns));
  Put(&body, captured);
  Put(&body, std::max(original, captured));
  body.append(reinterpret_cast<const char*>(data), captured);
  Pad(&body);
  if (!comments.empty()) {
    for (const std::string& c : comments) {
      Option(&body, kOptComment, std::string_view(c).substr(0, 0xFFFF));
    }
    EndOptions(&body);
  }
  return Block(kEpb, body);
}

}  // namespace vanectl::pcapng
