// One channel socket of vaned (protocol 26 or 27 of the module): the Unix
// datagram socket in the run directory, the sender checks, the port-id rules
// and the clients it knows.
//
// Thread context: everything but Stats-free reads of counters runs on the
// one thread that owns the channel (the daemon's loop, a test, the fuzzer);
// the clients' Deliver runs on the module's sending threads.
#ifndef VANE_HOST_CHANNEL_H
#define VANE_HOST_CHANNEL_H

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "client.h"

namespace vane::host {

struct ChannelCounters {
  uint64_t datagrams = 0;  // received, whatever became of them
  uint64_t refused = 0;    // from a user who may not send (answered -EPERM)
  uint64_t malformed = 0;  // shorter than a header, truncated, or from an
                           // address that cannot be answered (dropped)
  uint64_t files = 0;      // file requests served
  uint64_t overflow = 0;   // from a new address while the client table is full
};

struct ClientInfo {
  uint32_t portid;
  uint32_t pid;
  uint64_t sent;
  uint64_t dropped;
  uint64_t notices;
};

class Channel {
 public:
  static constexpr size_t kMaxClients = 1024;
  static constexpr int kBufferBytes = 4 << 20;

  // Binds a socket at `path` (replacing a stale socket file, refusing when
  // a live vaned answers there). nullptr with *err on failure.
  static std::unique_ptr<Channel> Open(const std::string& path, int protocol, uid_t owner,
                                       std::string* err);
  // Over a socket made by the caller (taken over; closed at destruction).
  Channel(int fd, int protocol, uid_t owner, std::string path = {});
  ~Channel();  // forgets the clients (unbinding their port ids) first
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  int fd() const { return fd_; }
  int protocol() const { return protocol_; }

  // Receives and handles what is queued, at most `budget` datagrams.
  // Returns how many were read.
  size_t Drain(size_t budget = 64);

  // What becomes of one received datagram. A sender whose uid is neither
  // the owner's nor root's gets an -EPERM answer and nothing else happens;
  // otherwise the sender's address is given its port id (its pid when the
  // datagram registers with control message 0, else one of vaned's) and
  // the datagram is served as a file request or sent into the module.
  void HandleDatagram(const sockaddr_un& from, socklen_t from_len, const ucred& cred,
                      const uint8_t* data, size_t len);

  // Sends pending overrun notices and forgets clients that went away.
  void Housekeeping();

  const ChannelCounters& counters() const { return counters_; }
  std::vector<ClientInfo> Clients() const;

 private:
  // The client of this address, bound to the port id the datagram earns;
  // nullptr when no port id could be had.
  Client* Attach(const std::string& key, const sockaddr_un& from, socklen_t from_len, uint32_t pid,
                 bool registers);
  void Refuse(const sockaddr_un& from, socklen_t from_len, const uint8_t* data, size_t len,
              uint32_t pid);

  const int fd_;
  const int protocol_;
  const uid_t owner_;
  const std::string path_;
  uint32_t next_auto_ = 1;
  ChannelCounters counters_;
  std::map<std::string, std::shared_ptr<Client>> clients_;  // by address bytes
  std::vector<uint8_t> buf_;
};

// Whether a datagram holds a control message 0 (a registration).
bool HoldsRegistration(const uint8_t* data, size_t len);

}  // namespace vane::host

#endif  // VANE_HOST_CHANNEL_H
