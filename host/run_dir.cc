// Run directory checks; see run_dir.h.
#include "run_dir.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "log.h"

namespace vane::host {

int PrepareRunDir(const std::string& path, uid_t* owner, std::string* err) {
  if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
    const int e = errno;
    *err = fmt::format("cannot create run directory {}: {}", path, std::strerror(e));
    return -e;
  }
  // O_NOFOLLOW and fstat on the opened directory: what is checked is what
  // the sockets will be created in, not whatever the name points to later.
  const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    const int e = errno;
    struct stat lst {};
    if (lstat(path.c_str(), &lst) == 0 && S_ISLNK(lst.st_mode)) {
      *err = fmt::format("run directory {} is a symbolic link", path);
      return -ELOOP;
    }
    *err = fmt::format("cannot open run directory {}: {}", path, std::strerror(e));
    return e == ELOOP ? -ELOOP : -e;
  }
  struct stat st {};
  const int rc = fstat(fd, &st);
  close(fd);
  if (rc != 0) {
    const int e = errno;
    *err = fmt::format("cannot stat run directory {}: {}", path, std::strerror(e));
    return -e;
  }
  if (!S_ISDIR(st.st_mode)) {
    *err = fmt::format("run directory {} is not a directory", path);
    return -ENOTDIR;
  }
  if (st.st_uid != geteuid()) {
    *err = fmt::format("run directory {} is owned by uid {}, not by uid {} running vaned", path,
                       st.st_uid, geteuid());
    return -EPERM;
  }
  if ((st.st_mode & 077) != 0) {
    Log(kLogWarning, "run directory {} is open to other users (mode {:o})", path,
        st.st_mode & 07777);
  }
  *owner = st.st_uid;
  return 0;
}

}  // namespace vane::host
