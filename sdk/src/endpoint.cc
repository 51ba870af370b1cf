// Which transport an endpoint means, and the names of the transports.
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "sock.h"
#include "vane/vane.h"
#include "vane/wire.h"

extern "C" enum vane_transport vane_resolve_transport(const vane_endpoint* ep) {
  if (ep != nullptr && ep->transport != VANE_TRANSPORT_AUTO) return ep->transport;
  const char* env = getenv("VANE_TRANSPORT");  // NOLINT(concurrency-mt-unsafe)
  if (env != nullptr && strcmp(env, "netlink") == 0) return VANE_TRANSPORT_NETLINK;
  if (env != nullptr && strcmp(env, "unix") == 0) return VANE_TRANSPORT_UNIX;
  // A daemon announces itself by its sockets; without them the module is the
  // only dispatcher there can be.
  const std::string sock = vane::RunDir(ep) + "/" VANE_WIRE_SOCK_NORMAL;
  struct stat st {};
  if (stat(sock.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) return VANE_TRANSPORT_UNIX;
  return VANE_TRANSPORT_NETLINK;
}

extern "C" const char* vane_transport_name(enum vane_transport t) {
  switch (t) {
    case VANE_TRANSPORT_NETLINK:
      return "netlink";
    case VANE_TRANSPORT_UNIX:
      return "unix";
    case VANE_TRANSPORT_DRY_RUN:
      return "dry-run";
    default:
      return "auto";
  }
}
