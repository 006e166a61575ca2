// The self-update library of the scanning service's programs: asks the update server for
// a component's newest package, checks it against the MD5 digest and length the server
// announces, picks up packages an operator put down by hand, installs a package into a
// fresh version directory, prunes old version directories, and serialises updates with
// a per-host and a per-cluster file lock.
//
// Layout below a base directory BASE, for a component whose work directory is
// BASE/<component> (the broker's is BASE/qm-av-broker):
//   BASE/.update.lock                         host update lock
//   BASE/config/.<service>_update.lck         cluster update lock (config/ is shared)
//   BASE/<component>/<unix-time>/bin/         one version directory per staged version,
//   BASE/<component>/<unix-time>/bin/.version.qm   its 11-character version, no newline
//   BASE/<component>/latest -> <version dir>  the active version
//   BASE/<component>/temp.dwnld               a download in progress
//
// Everything here runs on one update thread, with absolute paths or paths relative to a
// directory descriptor: the process's current directory is never changed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "qm_cpp.hpp"

// What the update thread may update, and from where.
struct qm_update_config {
  bool update_binary = true;
  bool update_data = false;
  bool update_engine = false;
  qm::opt_string update_server;     // unset: the built-in update server
  long update_check_interval = 60;  // minutes
  long update_check_interval_seconds = 0;  // when > 0, the interval in seconds instead
  int update_max_backups = 3;
  bool no_certificate_check = false;
  qm::opt_string update_ca_file;  // PEM trust anchors for the update server; unset: the system's
  // PEM Ed25519 public key whose signature every package must carry; unset: MD5 only.
  qm::opt_string update_public_key;
};
using qm_update_config_t = qm_update_config;

struct qm_network_config {
  qm::opt_string http_proxy;
};
using qm_network_config_t = qm_network_config;

// Life cycle of a worker thread as seen by its owner.
enum qm_thread_status {
  CREATING = 0,
  STARTING = 1,
  READY = 2,
  BUSY = 3,
  HOLD = 4,
  RESUME = 5,
  STOP = 6,
  TERMINATED = 7,
};

// Where an update thread stands with the version it found.
enum qm_update_status {
  WAITING = 0,
  UPDATING = 1,
  FILES_READY = 2,
  WAITING_FOR_TEMP_WORKER = 3,
  WAITING_FOR_RESTART = 4,
};
using qm_update_status_t = qm_update_status;

// The update server asked when none is configured. Deliberately under the reserved
// .invalid domain: every installation names its own server with --update-server.
inline constexpr const char* QM_UPDATE_DEFAULT_SERVER = "https://update.quillmere.invalid";

// Versions are YYYYMMDD and a three-digit sequence number; they compare as strings.
inline constexpr size_t QM_UPDATE_VERSION_LEN = 11;
// The version assumed when a version directory has no readable version file.
inline constexpr const char* QM_UPDATE_FALLBACK_VERSION = "20210101001";

// One update attempt's package, owned by the caller.
struct qm_upd_pkg_info {
  unsigned char md5[16] = {};  // announced in "X-Content-Md5"; all zero when not announced
  std::string filename;        // the package's name; may begin with "/" (see the download)
  size_t size = 0;             // announced in "Content-Length"; 0 when not announced
  std::string pkg_file;        // full path of the package on disk; "" when there is none
  std::string version;         // set for a manual package
  std::string signature;       // base64 Ed25519 signature from "X-Content-Signature"; "" when absent
};
using qm_upd_pkg_info_t = qm_upd_pkg_info;

// Bounds on one installation (NULL: these defaults). Generous for a package of a few
// binaries, small enough that a hostile or broken one cannot fill a disk or hang the
// updater: the bytes of file data it may unpack (further bounded by the free space of
// the extraction file system, less a reserve), its entries, and how long install.sh may
// run, and how long a script that is being ended gets between SIGTERM and SIGKILL.
struct qm_update_install_limits {
  uint64_t max_extract_bytes = 512ull * 1024 * 1024;
  size_t max_extract_entries = 10000;
  int64_t install_time_limit_ms = 10 * 60 * 1000;
  int64_t install_kill_grace_ms = 3000;
};
using qm_update_install_limits_t = qm_update_install_limits;

// Reads one response header line (with its line end) of the update server into
// pkg_info: a status line starts a response afresh; "X-Content-Md5" (32 hex digits),
// "Content-Length" and "X-Content-Signature" are taken in exactly this spelling.
void qm_update_read_header_line(const char* line, size_t len, qm_upd_pkg_info_t* pkg_info);

// Unpacks the package file into `dir`, whose path holds no symbolic link, within
// `limits` (NULL: the defaults) and the free space of its file system. An entry that
// would land outside `dir` ("..", an absolute path, through a symbolic link) fails the
// whole package. 0 or -1 (logged); a failure may leave part of the package in `dir`.
int qm_update_extract_package(const char* package, const char* dir, const qm_update_install_limits_t* limits);

// Resets every field. pkg_info_free forgets the package (the file itself stays).
void pkg_info_init(qm_upd_pkg_info_t* pkg_info);
void pkg_info_free(qm_upd_pkg_info_t* pkg_info);

// Asked about at least once a second while a download or an install script runs; true
// ends it at once.
using qm_update_abort_fn = bool (*)(void* udata);

// Asks the update server (update_config->update_server, else QM_UPDATE_DEFAULT_SERVER)
// for a `component` newer than `curr_ver` and stores a verified package in `dwnld_dir`.
// 1: downloaded and verified, `pkg_info` filled; 0: nothing newer (304); -1: any failure,
// including a stop requested through `should_abort`. Never leaves "temp.dwnld" behind.
// With update_config->update_public_key the body must also carry that key's Ed25519
// signature in "X-Content-Signature" (base64); a package without it is refused and
// deleted. A request to an https server follows redirects to https only.
// A connect gives up after 30 s and a transfer slower than 1 byte/s for 60 s is dropped.
int qm_update_download_package(const char* component, const char* curr_ver, const char* dwnld_dir,
                               qm_upd_pkg_info_t* pkg_info, const qm_update_config_t* update_config,
                               const qm_network_config_t* network_config, qm_update_abort_fn should_abort = nullptr,
                               void* abort_udata = nullptr);

// A package an operator put down as "<component>_<today>001_manual.zip" in `dwnld_dir`
// (today in local time). 1: found and readable, `pkg_info` filled; 0: none; -1: unusable.
// With update_config->update_public_key its signature (base64, as in the download's
// header) must lie beside it in "<package>.sig"; a package without a valid one is deleted
// with its signature file, and the result is -1.
int get_updated_component_from_local(const char* component, const char* dwnld_dir, qm_upd_pkg_info_t* pkg_info,
                                     const qm_update_config_t* update_config = nullptr);

// Fills `new_ver_dir`/`content_subdir`. With `upd_available`: unpacks the package into
// `tempdir`/quillmere_update_<service_name>, writes the version file, and runs the
// package's top-level install.sh, in the extraction directory, with the extraction
// directory, `basedir` and the new content directory as arguments; the package file
// (and a signature file beside it) is consumed either way. Without:
// copies `old_ver_dir`/`content_subdir`. `new_ver_dir` must exist. 0 or -1.
// install.sh runs in a process of its own, in a process group of its own, with no
// descriptor of this process above 2. When `should_abort` says so, or when it
// runs longer than the install time limit, the group gets SIGTERM, then SIGKILL after
// 3 s, and the installation fails.
int update_ver_dir_content(const char* basedir, const char* tempdir, const char* old_ver_dir, const char* new_ver_dir,
                           const char* content_subdir, bool upd_available, qm_upd_pkg_info_t* pkg_info,
                           const char* service_name, qm_update_abort_fn should_abort = nullptr,
                           void* abort_udata = nullptr, const qm_update_install_limits* limits = nullptr);

// The first line of `version_dir`/`content_subdir`/.version.qm, or
// QM_UPDATE_FALLBACK_VERSION when it cannot be read.
std::string get_curr_ver(const char* version_dir, const char* content_subdir);

// Writes the first 11 characters of `version_str` (no newline) to the version file.
int create_version_file(const char* version_dir, const char* content_subdir, const char* version_str);

// Points `path`/latest at `new_ver_dir` (stored as given). The link is replaced in one
// step: readers see either the old or the new target. 0 or -1.
int update_latest_link(const char* path, const char* new_ver_dir);

// Keeps the `max_count` newest version directories (names of ten digits) of the work
// directory `path` and removes the older ones, but never the one that the `latest` link
// at `latest` points to. Without a readable `latest` link nothing is removed and the
// result is -1.
int clean_old_versions(const char* path, const char* latest, int max_count);

// Removes the tree `parent`/`path`, or "/" `path` without a parent. 0 or -1.
int remove_dir(const char* parent, const char* path);

// An advisory flock(2) lock file. The descriptor is close-on-exec, so children never
// inherit the lock.
struct qm_update_lockfile;
using qm_update_lockfile_t = qm_update_lockfile;

// A handle for the lock file at `path`; the file is created by the first lock attempt.
qm_update_lockfile_t* qm_update_lockfile_new(const char* path);
// Closes the file, which drops a lock still held. NULL is allowed.
void qm_update_lockfile_destroy(qm_update_lockfile_t* lockfile);
const char* qm_update_lockfile_path(const qm_update_lockfile_t* lockfile);

// 1: this process now holds the lock; 0: another process holds it; -1: error. The file
// stays open while locked.
int lock_check_create(qm_update_lockfile_t* lockfile);
// Unlocks (the file is not deleted); releasing a file never opened is fine. 0 or -1.
int lock_release(qm_update_lockfile_t* lockfile);

// The cluster lock file "<basedir>/config/.<service_name>_update.lck"; NULL on error.
// Whether it is held, and since when, is the handle's own state.
qm_update_lockfile_t* qm_update_cluster_lock_new(const char* basedir, const char* service_name);
// May the caller go on updating? Yes when the lock is taken or already held, and also
// when the lock file cannot be used at all (a broken shared directory never blocks
// updates); no when another node holds it.
bool qm_update_cluster_lock_acquire(qm_update_lockfile_t* lockfile, const char* service_name);
// Releases the lock if this process holds it; `reason` is for the log.
void qm_update_cluster_lock_release(qm_update_lockfile_t* lockfile, const char* reason);
bool qm_update_cluster_lock_is_held(const qm_update_lockfile_t* lockfile);
// Seconds since the cluster lock was taken; 0 when it is not held.
long qm_update_cluster_lock_held_seconds(const qm_update_lockfile_t* lockfile);
