#include "listing/asker_lock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

static std::string file_of(const std::string& list_path) {
  return list_path + "-asker";
}

// A lock of the whole file, for F_OFD_SETLK: closing another descriptor of the file keeps it.
static struct flock lock_of(short type) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return lock;
}

int acquire_asker_lock(const std::string& list_path) {
  const int handle = open(file_of(list_path).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
  struct flock lock = lock_of(F_WRLCK);
  if (handle == -1 || fcntl(handle, F_OFD_SETLK, &lock) == 0) return handle;
  const int error = errno;
  close(handle);
  errno = error;
  return -1;
}

bool is_asker_lock_visible(int handle) {
  struct stat status = {};
  return fstat(handle, &status) == 0 && status.st_nlink > 0;
}

bool is_asker_running(const std::string& list_path) {
  const int handle = open(file_of(list_path).c_str(), O_RDONLY | O_CLOEXEC);
  if (handle == -1) return false;
  struct flock lock = lock_of(F_RDLCK);
  const bool is_held = fcntl(handle, F_OFD_GETLK, &lock) == 0 && lock.l_type == F_WRLCK;
  close(handle);
  return is_held;
}
