// File-system helpers of the self-update: tests on paths, directory creation, recursive
// copy and removal, and expansion of environment variables in paths. Failures are logged
// here; results are 0/-1 or a yes/no answer. No helper keeps state.
#pragma once

#include <sys/types.h>

#include "qm_cpp.hpp"

// The path exists, whatever its type (a dangling symbolic link counts).
bool qmhlp_IsFile(const char* path);

// The path is a directory (or a symbolic link to one).
bool qmhlp_IsDir(const char* path);

// The caller may write to the path.
bool qmhlp_IsWritable(const char* path);

// Creates one directory level (mode 0755 less the umask) unless `dirname` already is a
// directory; parents are not created. With `change_mode`, then sets its mode to `mode`.
int qmhlp_create_dir(const char* dirname, bool change_mode, mode_t mode);

// Removes a directory tree depth first. Symbolic links inside it are removed, never
// followed, and subdirectories that deny their owner access are opened up first, so a
// hostile package's tree can always be removed. `which_dir` itself must be a directory,
// not a link to one.
int qmhlp_RemoveDir(const char* which_dir);

// Copies the bytes of `source` to `dest` (created 0644 or truncated). -1 leaves the
// reason in errno and logs nothing: the caller says what was being copied.
int copy_file(const char* source, const char* dest);

// Copies the tree `source` into `dest`. A missing `dest` is created with mode 0750, its
// subdirectories with 0755; files keep their source's mode. Symbolic links are followed
// and copied as what they point to; a link back to one of its own ancestors fails the
// copy. The process's current directory is used during the copy and restored afterwards.
int copy_dir_recursive(const char* source, const char* dest);

// Replaces $NAME and ${NAME} (1 to 255 characters) by the value of that environment
// variable. A name starts with a letter or "_" and goes on with letters, digits and
// "_"; "${}", an over-long name and "$" before anything else stay as they are, and "${"
// without its "}" leaves "$" followed by the rest unchanged. No "~", no defaults, no
// escapes. std::nullopt for a null or empty path, or when a variable is not set.
qm::opt_string qmhlp_expand_path(const char* path);

