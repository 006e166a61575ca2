#include "qmhlp-path-file-operations.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <set>
#include <string>
#include <utility>

#include "log.hpp"
#include "qm_handles.hpp"
#include "qmerror.hpp"

namespace {

constexpr size_t kMaxVariableName = 255;
constexpr size_t kCopyBlock = 64 * 1024;

bool s_is_dot_or_dotdot(const char* name) { return strcmp(name, ".") == 0 || strcmp(name, "..") == 0; }

// Opens the directory `name` below `parent_fd` without following a link; a directory
// that denies its owner access (a package may ship one) is opened up first.
qm::unique_fd s_open_dir_for_removal(int parent_fd, const char* name) {
  const int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  qm::unique_fd fd(openat(parent_fd, name, flags));
  if (!fd && errno == EACCES && fchmodat(parent_fd, name, S_IRWXU, 0) == 0) fd.reset(openat(parent_fd, name, flags));
  struct stat st {};
  if (fd && fstat(fd.get(), &st) == 0 && (st.st_mode & S_IRWXU) != S_IRWXU) fchmod(fd.get(), st.st_mode | S_IRWXU);
  return fd;
}

int s_remove_tree_at(int parent_fd, const char* name, const std::string& shown) {
  qm::unique_fd fd = s_open_dir_for_removal(parent_fd, name);
  if (!fd) {
    log_error("Failed to open directory %s, %s", shown.c_str(), QMstrerror(errno));
    return -1;
  }
  qm::dir_ptr dir(fdopendir(fd.get()));
  if (!dir) {
    log_error("Failed to open directory %s, %s", shown.c_str(), QMstrerror(errno));
    return -1;
  }
  fd.release();  // the directory stream owns it now
  const int dir_fd = dirfd(dir.get());
  while (const dirent* entry = readdir(dir.get())) {
    if (s_is_dot_or_dotdot(entry->d_name)) continue;
    const std::string child = shown + "/" + entry->d_name;
    struct stat st {};
    if (fstatat(dir_fd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
      log_error("Failed to stat %s, %s", child.c_str(), QMstrerror(errno));
      return -1;
    }
    if (S_ISDIR(st.st_mode)) {
      if (s_remove_tree_at(dir_fd, entry->d_name, child) != 0) return -1;
    } else if (unlinkat(dir_fd, entry->d_name, 0) != 0) {
      log_error("Failed to remove %s, %s", child.c_str(), QMstrerror(errno));
      return -1;
    }
  }
  dir.reset();
  if (unlinkat(parent_fd, name, AT_REMOVEDIR) != 0) {
    log_error("Failed to remove %s, %s", shown.c_str(), QMstrerror(errno));
    return -1;
  }
  return 0;
}

// Writes all of `len` bytes, resuming after short writes and interruptions.
bool s_write_all(int fd, const char* data, size_t len) {
  while (len > 0) {
    const ssize_t n = write(fd, data, len);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}

using s_dir_identity = std::pair<dev_t, ino_t>;

// Copies the entries of `source` (absolute) into the existing or new `dest` (absolute).
// `ancestors` holds the directories being copied above this one, to stop link loops.
int s_copy_dir(const std::string& source, const std::string& dest, std::set<s_dir_identity>& ancestors) {
  qm::dir_ptr dir(opendir(source.c_str()));
  if (!dir) {
    log_error("Failed to open source dir %s", source.c_str());
    return -1;
  }
  struct stat self {};
  if (fstat(dirfd(dir.get()), &self) != 0 || !ancestors.emplace(self.st_dev, self.st_ino).second) {
    log_error("Failed to copy %s: it lies inside itself through a symbolic link", source.c_str());
    return -1;
  }
  log_debug("copying %s to %s", source.c_str(), dest.c_str());
  if (!qmhlp_IsDir(dest.c_str())) {
    log_trace("%s does not yet exist", dest.c_str());
    if (qmhlp_create_dir(dest.c_str(), true, 0750) != 0) {
      log_trace("Failed to create %s (%s", dest.c_str(), QMstrerror(errno));
    } else {
      log_trace("%s created", dest.c_str());
    }
  }
  if (access(dest.c_str(), W_OK) != 0) {
    const int error = errno;
    log_error("%s is not writable (%d), %s", dest.c_str(), error, QMstrerror(error));
    return -1;
  }
  while (const dirent* entry = readdir(dir.get())) {
    if (s_is_dot_or_dotdot(entry->d_name)) continue;
    struct stat st {};
    if (fstatat(dirfd(dir.get()), entry->d_name, &st, 0) != 0) {
      log_error("Failed to stat %s, %s", entry->d_name, QMstrerror(errno));
      return -1;
    }
    const std::string origin = source + "/" + entry->d_name;
    const std::string target = dest + "/" + entry->d_name;
    if (!S_ISDIR(st.st_mode)) {
      if (copy_file(origin.c_str(), target.c_str()) != 0) {
        log_error("error copying %s, %s", entry->d_name, QMstrerror(errno));
        return -1;
      }
      if (chmod(target.c_str(), st.st_mode & 07777) != 0) {
        log_error("Failed to chmod file %s, %s", target.c_str(), QMstrerror(errno));
        return -1;
      }
      continue;
    }
    if (qmhlp_create_dir(target.c_str(), true, 0755) != 0) return -1;
    if (s_copy_dir(origin, target, ancestors) != 0) return -1;
  }
  ancestors.erase({self.st_dev, self.st_ino});
  return 0;
}

// Appends a variable's value, or fails when it is not set.
bool s_append_variable(std::string& out, const std::string& name, const char* path) {
  const char* value = getenv(name.c_str());
  if (value == nullptr) {
    log_error("Cannot expand path \"%s\": environment variable \"%s\" is not set", path, name.c_str());
    return false;
  }
  out += value;
  return true;
}

bool s_is_name_start(char c) { return isalpha(static_cast<unsigned char>(c)) != 0 || c == '_'; }
bool s_is_name_char(char c) { return isalnum(static_cast<unsigned char>(c)) != 0 || c == '_'; }

qm::opt_string s_expand(const char* path) {
  const std::string in(path);
  std::string out;
  out.reserve(in.size() + 64);
  size_t i = 0;
  while (i < in.size()) {
    if (in[i] != '$' || i + 1 == in.size()) {
      out += in[i++];
      continue;
    }
    if (in[i + 1] == '{') {
      const size_t close = in.find('}', i + 2);
      if (close == std::string::npos) {
        out += in[i++];  // "${" without "}": keep the "$", the rest follows unchanged
        continue;
      }
      const std::string name = in.substr(i + 2, close - i - 2);
      if (name.empty() || name.size() > kMaxVariableName) {
        out.append(in, i, close - i + 1);
      } else if (!s_append_variable(out, name, path)) {
        return std::nullopt;
      }
      i = close + 1;
      continue;
    }
    if (!s_is_name_start(in[i + 1])) {
      out += in[i++];
      continue;
    }
    size_t end = i + 1;
    while (end < in.size() && s_is_name_char(in[end])) ++end;
    const std::string name = in.substr(i + 1, end - i - 1);
    if (name.size() > kMaxVariableName) {
      out.append(in, i, end - i);
    } else if (!s_append_variable(out, name, path)) {
      return std::nullopt;
    }
    i = end;
  }
  return out;
}

}  // namespace

bool qmhlp_IsFile(const char* path) {
  struct stat st {};
  return path != nullptr && lstat(path, &st) == 0;
}

bool qmhlp_IsDir(const char* path) {
  struct stat st {};
  return path != nullptr && stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

bool qmhlp_IsWritable(const char* path) { return path != nullptr && access(path, W_OK) == 0; }

int qmhlp_create_dir(const char* dirname, bool change_mode, mode_t mode) {
  if (dirname == nullptr) return -1;
  if (!qmhlp_IsDir(dirname)) {
    if (mkdir(dirname, 0755) != 0) {
      log_error("Failed to create directory %s, %s", dirname, QMstrerror(errno));
      return -1;
    }
    log_trace("%s created", dirname);
  }
  if (change_mode) {
    if (chmod(dirname, mode) != 0) {
      log_error("Failed to chmod directory %s, %s", dirname, QMstrerror(errno));
      return -1;
    }
    log_trace("Permissions changed on %s", dirname);
  }
  return 0;
}

int qmhlp_RemoveDir(const char* which_dir) {
  if (which_dir == nullptr || *which_dir == '\0') return -1;
  return s_remove_tree_at(AT_FDCWD, which_dir, which_dir);
}

int copy_file(const char* source, const char* dest) {
  if (source == nullptr || dest == nullptr) {
    errno = EINVAL;
    return -1;
  }
  qm::unique_fd in(open(source, O_RDONLY | O_CLOEXEC));
  if (!in) return -1;
  qm::unique_fd out(open(dest, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!out) return -1;
  char block[kCopyBlock];
  for (;;) {
    const ssize_t n = read(in.get(), block, sizeof block);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    if (n == 0) break;
    if (!s_write_all(out.get(), block, static_cast<size_t>(n))) return -1;
  }
  return close(out.release()) == 0 ? 0 : -1;
}

int copy_dir_recursive(const char* source, const char* dest) {
  if (source == nullptr || dest == nullptr) return -1;
  std::error_code ec;
  // Absolute: the caller's current directory may change while the copy runs.
  const std::string abs_source = std::filesystem::absolute(source, ec).string();
  const std::string abs_dest = std::filesystem::absolute(dest, ec).string();
  if (ec) {
    log_error("Failed to open source dir %s", source);
    return -1;
  }
  std::set<s_dir_identity> ancestors;
  return s_copy_dir(abs_source, abs_dest, ancestors);
}

qm::opt_string qmhlp_expand_path(const char* path) {
  if (path == nullptr || *path == '\0') return std::nullopt;
  log_trace("Expanding path: %s", path);
  try {
    qm::opt_string expanded = s_expand(path);
    if (expanded) log_trace("Expanded path: %s", expanded->c_str());
    return expanded;
  } catch (const std::bad_alloc&) {
    log_error("Failed to allocate memory for expanded path");
    return std::nullopt;
  }
}
