#include "qm_update_common.hpp"

#include "test_prelude.hpp"

#include "update_server_fixture.hpp"

namespace {

constexpr const char* kComponent = "qm-av-broker_nats-bin-linux-glibc2.28.amd64";

struct ZipEntry {
  std::string name;
  std::string data;  // file content, or a symbolic link's target
  char kind = 'f';   // 'f' file, 'l' symbolic link
  mode_t mode = 0644;
};

// A real zip archive written by libarchive; `zero_bytes` > 0 adds a file "zeros" of that
// many zero bytes.
void make_zip(const std::string& path, const std::vector<ZipEntry>& entries, int64_t zero_bytes = 0) {
  qm::archive_write_ptr zip(archive_write_new());
  ASSERT_EQ(archive_write_set_format_zip(zip.get()), ARCHIVE_OK);
  ASSERT_EQ(archive_write_open_filename(zip.get(), path.c_str()), ARCHIVE_OK);
  auto add = [&](const std::string& name, mode_t type, mode_t mode, int64_t size) {
    qm::archive_entry_ptr entry(archive_entry_new());
    archive_entry_set_pathname(entry.get(), name.c_str());
    archive_entry_set_filetype(entry.get(), type);
    archive_entry_set_perm(entry.get(), mode);
    if (size >= 0) archive_entry_set_size(entry.get(), size);  // unset: only the central directory tells
    return entry;
  };
  for (const auto& e : entries) {
    const bool link = e.kind == 'l';
    auto entry = add(e.name, link ? AE_IFLNK : AE_IFREG, link ? 0777 : e.mode, link ? 0 : e.data.size());
    if (link) archive_entry_set_symlink(entry.get(), e.data.c_str());
    ASSERT_EQ(archive_write_header(zip.get(), entry.get()), ARCHIVE_OK) << archive_error_string(zip.get());
    if (!link) archive_write_data(zip.get(), e.data.data(), e.data.size());
  }
  if (zero_bytes > 0) {
    auto entry = add("zeros", AE_IFREG, 0644, -1);
    ASSERT_EQ(archive_write_header(zip.get(), entry.get()), ARCHIVE_OK);
    const std::string block(1 << 20, '\0');
    for (int64_t left = zero_bytes; left > 0; left -= static_cast<int64_t>(block.size()))
      archive_write_data(zip.get(), block.data(), block.size());
  }
  ASSERT_EQ(archive_write_close(zip.get()), ARCHIVE_OK);
}

// A process of its own that takes the lock with flock(1) and holds it until killed.
std::vector<std::string> lock_holder(const std::string& path) {
  return {"/bin/bash", "-c", "exec 9>\"$0\" && /usr/bin/flock 9 && echo locked && exec sleep 600", path};
}

bool other_can_lock(const std::string& path) {
  return Child({"/usr/bin/flock", "-n", path, "true"}).wait(30s) == 0;
}

// The installed layout below a base directory, a private temporary directory, and a
// directory outside of both that no package may touch.
class UpdateLayout : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(work);
    fs::create_directories(tempdir);
    fs::create_directories(outside);
    write_file(outside + "/sentinel", "untouched");
    write_file(outside + "/evil.sh", "#!/bin/sh\ntouch " + outside + "/ran\n");
  }
  // Installs the package `work`/`filename` into a new version directory.
  int install(const std::string& filename) {
    qm_upd_pkg_info_t info;
    pkg_info_init(&info);
    info.filename = filename;
    info.pkg_file = work + "/" + filename;
    fs::create_directories(new_dir);
    return update_ver_dir_content(base.c_str(), tempdir.c_str(), nullptr, new_dir.c_str(), "bin", true, &info,
                                  "broker", nullptr, nullptr, &limits);
  }

  TempDir tmp;
  const std::string base = tmp.file("base");
  const std::string work = base + "/qm-av-broker";
  const std::string new_dir = work + "/1700000001";
  const std::string tempdir = tmp.file("t");
  const std::string extract_dir = tempdir + "/quillmere_update_broker";
  const std::string outside = tmp.file("outside");
  qm_update_install_limits_t limits;
};

// A well-formed package, as the bad ones below differ from it (installing a good one: see
// the update thread's and the end-to-end update tests).
const ZipEntry kInstallScript{"install.sh", "#!/bin/sh\nset -e\ncp -p \"$1/bin/tool\" \"$3/tool\"\n"};
const ZipEntry kTool{"bin/tool", "tool v2", 'f', 0755};

// Each bad package fails the installation, is deleted, leaves no extraction directory and
// writes nothing outside it (entries that climb with ".." or through a link: the seeds of
// update_package_fuzz). A bomb stops at the extraction budget, not at a full disk: at
// once when the archive announces the size, and while inflating when it does not (cut
// before its central directory, the entries are read as a stream without sizes).
TEST_F(UpdateLayout, BadPackagesFailCleanlyAndWriteNothingOutside) {
  struct Case {
    const char* what;
    std::vector<ZipEntry> entries;
    std::string expected_log;
    int64_t cut = 0;  // bytes cut off the archive's end; -1: half of it
    int64_t zero_bytes = 0;
    std::string filename = "pkg_20250301001.zip";
  };
  const std::string too_big = "Update package expands beyond what it may write to " + extract_dir;
  const std::vector<Case> cases = {
      {"no install.sh", {kTool}, "Failed to change permissions of"},
      {"install.sh exits 1", {{"install.sh", "exit 1\n"}}, "exit status 1"},
      {"short version", {kInstallScript, kTool}, "Version string length (4) of pkg_2025.zip", 0, 0, "pkg_2025.zip"},
      // Would install if it were put below the extraction directory.
      {"absolute entry", {kInstallScript, kTool, {outside + "/abs", "x"}}, "Path is absolute"},
      {"install.sh links outside", {{"install.sh", outside + "/evil.sh", 'l'}}, "not a regular file"},
      {"truncated zip",
       {kInstallScript, {"bin/big", std::string(200000, 'q')}},
       "Failed to extract update package",
       -1},
      {"bomb, size announced", {kInstallScript}, too_big, 0, int64_t{8} << 20},
      {"bomb, streamed", {kInstallScript}, too_big, 200, int64_t{8} << 20},
  };
  limits.max_extract_bytes = 2u << 20;
  limits.max_extract_entries = 100;
  const auto before = dir_entries(outside);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string pkg = work + "/" + c.filename;
    make_zip(pkg, c.entries, c.zero_bytes);
    if (c.cut != 0) fs::resize_file(pkg, c.cut < 0 ? fs::file_size(pkg) / 2 : fs::file_size(pkg) - c.cut);
    LogCapture log(QMLOG_TRACE);
    EXPECT_EQ(install(c.filename), -1);
    EXPECT_LOGGED(log, c.expected_log);
    EXPECT_FALSE(fs::exists(pkg));
    EXPECT_FALSE(fs::exists(extract_dir));
    EXPECT_EQ(dir_entries(outside), before);
    EXPECT_EQ(read_file(outside + "/sentinel"), "untouched");
    fs::remove_all(new_dir);
  }
}

// Without an active version nothing is pruned, and the version asked about is the fallback.
TEST_F(UpdateLayout, PruningKeepsTheNewestVersionDirectoriesAndTheActiveOne) {
  for (const char* d : {"1700000001", "1700000002", "1700000003", "abc", "17000000001"})
    fs::create_directories(work + "/" + d);
  fs::create_symlink(work + "/gone", work + "/1700000009");  // dangling links are no obstacle
  EXPECT_EQ(clean_old_versions(work.c_str(), (work + "/latest").c_str(), 0), -1);  // no link: nothing removed
  EXPECT_EQ(dir_entries(work).size(), 6u);
  EXPECT_EQ(get_curr_ver((work + "/latest").c_str(), "bin"), QM_UPDATE_FALLBACK_VERSION);

  fs::create_symlink(work + "/1700000001/", work + "/latest");
  const fs::path cwd = fs::current_path();
  fs::current_path(base);  // relative paths are the caller's
  EXPECT_EQ(clean_old_versions("qm-av-broker", "qm-av-broker/latest", 1), 0);
  EXPECT_EQ(fs::current_path(), base);
  fs::current_path(cwd);
  EXPECT_EQ(dir_entries(work),
            (std::set<std::string>{"1700000001", "1700000003", "abc", "17000000001", "latest", "1700000009"}));
}

// The host lock excludes other processes and, being close-on-exec, is not inherited; the
// cluster lock lives in the shared config directory, gives way to another node, and never
// blocks an update when that directory is broken.
TEST_F(UpdateLayout, HostAndClusterLocks) {
  const std::string path = base + "/.update.lock";
  qm::c_ptr<qm_update_lockfile_t, qm_update_lockfile_destroy> lock(qm_update_lockfile_new(path.c_str()));
  {
    Child holder(lock_holder(path));
    ASSERT_TRUE(wait_until([&] { return holder.out() == "locked\n"; }, 30s));
    EXPECT_EQ(lock_check_create(lock.get()), 0);
  }
  ASSERT_EQ(lock_check_create(lock.get()), 1);
  EXPECT_FALSE(other_can_lock(path));
  EXPECT_EQ(lock_release(lock.get()), 0);
  EXPECT_TRUE(other_can_lock(path));
  ASSERT_EQ(lock_check_create(lock.get()), 1);
  Child bystander({"/bin/sleep", "600"});
  const std::string cmdline = "/proc/" + std::to_string(bystander.pid()) + "/cmdline";
  // Exec'd: the fork's copy of the descriptors is gone, an inherited one would stay.
  ASSERT_TRUE(wait_until([&] { return read_file(cmdline).starts_with("/bin/sleep"); }, 30s));
  lock.reset();
  EXPECT_TRUE(other_can_lock(path));

  lock.reset(qm_update_cluster_lock_new(base.c_str(), "qm-av-broker"));
  EXPECT_EQ(std::string(qm_update_lockfile_path(lock.get())), base + "/config/.qm-av-broker_update.lck");
  write_file(base + "/config", "not a directory");
  LogCapture log(QMLOG_INFO);
  EXPECT_TRUE(qm_update_cluster_lock_acquire(lock.get(), "qm-av-broker"));
  EXPECT_FALSE(qm_update_cluster_lock_is_held(lock.get()));
  EXPECT_LOGGED(log, "proceeding without cluster-wide serialisation");
  fs::remove(base + "/config");
  fs::create_directories(base + "/config");
  {
    Child other_node(lock_holder(qm_update_lockfile_path(lock.get())));
    ASSERT_TRUE(wait_until([&] { return other_node.out() == "locked\n"; }, 30s));
    EXPECT_FALSE(qm_update_cluster_lock_acquire(lock.get(), "qm-av-broker"));
    EXPECT_LOGGED(log, "Another cluster node is updating qm-av-broker \u2014 skipping this check cycle");
  }
  ASSERT_TRUE(qm_update_cluster_lock_acquire(lock.get(), "qm-av-broker"));
  EXPECT_TRUE(qm_update_cluster_lock_is_held(lock.get()));
  qm_update_cluster_lock_release(lock.get(), "done");
  EXPECT_FALSE(qm_update_cluster_lock_is_held(lock.get()));
}

// ---- download against a local update server (the redirect to the package, a stop
// during a stalled transfer: see the end-to-end update tests) ----------------------------

int download(const UpdateServer& server, qm_update_config_t cfg, const std::string& dir) {
  cfg.update_server = server.base_url();
  qm_upd_pkg_info_t info;
  pkg_info_init(&info);
  const qm_network_config_t net;
  return qm_update_download_package(kComponent, "20240101001", dir.c_str(), &info, &cfg, &net);
}

TEST_F(UpdateLayout, DownloadAnswersThatAreNotAVerifiedPackageLeaveNothingBehind) {
  const std::vector<std::tuple<const char*, int, const char*>> cases = {
      {R"({"status": 304})", 0, "No update available"},
      {R"({"status": 500})", -1, "Error on http request. Response code: 500"},
      {R"({"body": "pkg", "md5": "00112233445566778899aabbccddeeff"})", -1, "Digests don't match"},
      {R"({"body": "pkg", "md5": "omit"})", -1, "Digests don't match"},
      {R"({"body": "pkg", "length": "omit"})", -1, "Inconsistent file size. From header: 0 / Downloaded: 100007"},
  };
  UpdateServer server;
  server.add_file("pkg", std::string(100000, 'p') + "package");
  for (const auto& [answer, result, expected_log] : cases) {
    SCOPED_TRACE(answer);
    server.plan(std::string(R"({"/v1/update": )") + answer + "}");
    LogCapture log(QMLOG_TRACE);
    EXPECT_EQ(download(server, {}, work), result);
    EXPECT_LOGGED(log, expected_log);
    EXPECT_TRUE(fs::is_empty(work));
  }
}

TEST_F(UpdateLayout, DownloadOverHttpsTrustsOnlyTheConfiguredAuthorityUnlessCheckingIsOff) {
  UpdateServer server(true);
  server.add_file("pkg", std::string(100000, 'p') + "package");  // digested over many writes
  server.plan(R"({"/v1/update": {"body": "pkg"}})");
  qm_update_config_t cfg;
  {
    LogCapture log(QMLOG_ERROR);
    EXPECT_EQ(download(server, cfg, work), -1);  // the test's CA is not among the system's
    EXPECT_LOGGED(log, "Error requesting update: ");
  }
  cfg.update_ca_file = server.ca_file();
  EXPECT_EQ(download(server, cfg, work), 1);
  cfg.update_ca_file.reset();
  cfg.no_certificate_check = true;
  EXPECT_EQ(download(server, cfg, work), 1);

  // A redirect from https to plain http is not followed.
  UpdateServer plain_http;
  plain_http.add_file("pkg", "package");
  plain_http.plan_package("pkg");
  server.plan_package("pkg", "", plain_http.base_url());
  EXPECT_EQ(download(server, cfg, work), -1);
  EXPECT_EQ(LogCapture::count_in(plain_http.requests(), "/files/"), 0u);
}

}  // namespace
