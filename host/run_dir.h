// The run directory that holds vaned's sockets. Whoever owns it is the one
// user (besides root) whom vaned takes control messages from, so it must be
// a real directory of the user running vaned, not something planted.
#ifndef VANE_HOST_RUN_DIR_H
#define VANE_HOST_RUN_DIR_H

#include <sys/types.h>

#include <string>

namespace vane::host {

// Creates `path` with mode 0700 when it is missing (its parent must exist),
// then checks it: not a symbolic link, a directory, owned by the effective
// user. Returns 0 with *owner set, or -errno with *err saying why: -ELOOP
// (a symbolic link), -ENOTDIR, -EPERM (owned by someone else), or the error
// of mkdir/open.
int PrepareRunDir(const std::string& path, uid_t* owner, std::string* err);

}  // namespace vane::host

#endif  // VANE_HOST_RUN_DIR_H
