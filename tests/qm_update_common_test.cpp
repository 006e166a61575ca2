#include "qm_update_common.hpp"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <future>
#include <iterator>
#include <sstream>
#include <set>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "qm_handles.hpp"
#include "test_support.hpp"
#include "update_server_fixture.hpp"

namespace fs = std::filesystem;

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
  return qmtest::Child({"/usr/bin/flock", "-n", path, "true"}).wait(std::chrono::seconds(30)) == 0;
}

// The installed layout below a base directory whose name has a blank (install.sh's
// arguments must stay whole), a private temporary directory, and a directory outside of
// both that no package may touch.
class UpdateLayout : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(work);
    fs::create_directories(tempdir);
    fs::create_directories(outside);
    qmtest::write_file(outside + "/sentinel", "untouched");
    qmtest::write_file(outside + "/evil.sh", "#!/bin/sh\ntouch " + outside + "/ran\n");
  }
  void TearDown() override {
    qm_update_set_extract_limits(512ull << 20, 10000);
    qm_update_set_install_time_limit_ms(0);
  }

  // Installs the package `entries` named `filename` into a new version directory.
  int install(const std::string& filename, const std::vector<ZipEntry>& entries, bool truncate = false) {
    pkg = work + "/" + filename;
    make_zip(pkg, entries);
    if (truncate) fs::resize_file(pkg, fs::file_size(pkg) / 2);
    return install_made_package(filename);
  }
  int install_made_package(const std::string& filename) {
    qm_upd_pkg_info_t info;
    pkg_info_init(&info);
    info.filename = filename;
    info.pkg_file = work + "/" + filename;
    fs::create_directories(new_dir);
    return update_ver_dir_content(base.c_str(), tempdir.c_str(), nullptr, new_dir.c_str(), "bin", true, &info,
                                  "broker");
  }

  qmtest::TempDir tmp;
  const std::string base = tmp.file("base dir");
  const std::string work = base + "/qm-av-broker";
  const std::string new_dir = work + "/1700000001";
  const std::string tempdir = tmp.file("t");
  const std::string extract_dir = tempdir + "/quillmere_update_broker";
  const std::string outside = tmp.file("outside");
  std::string pkg;
};

const ZipEntry kInstallScript{
    "install.sh", "#!/bin/sh\nset -e\nprintf '%s\\n' \"$@\" > \"$3/args\"\ncp -p \"$1/bin/tool\" \"$3/tool\"\n", 'f',
    0644};
const ZipEntry kTool{"bin/tool", "tool v2", 'f', 0755};

TEST_F(UpdateLayout, InstallRunsTheScriptWithItsThreeArgumentsAndConsumesThePackage) {
  const std::string cwd = fs::current_path();
  ASSERT_EQ(install("pkg_20250301001.zip", {kInstallScript, kTool}), 0);
  const std::string content = new_dir + "/bin";
  EXPECT_EQ(qmtest::read_file(content + "/args"), extract_dir + "\n" + base + "\n" + content + "\n");
  EXPECT_EQ(qmtest::read_file(content + "/tool"), "tool v2");
  EXPECT_EQ(fs::status(content + "/tool").permissions() & fs::perms::owner_exec, fs::perms::owner_exec);
  EXPECT_EQ(qmtest::read_file(content + "/.version.qm"), "20250301001");
  EXPECT_EQ(get_curr_ver(new_dir.c_str(), "bin"), "20250301001");
  EXPECT_FALSE(fs::exists(pkg));
  EXPECT_FALSE(fs::exists(extract_dir));
  EXPECT_EQ(fs::current_path(), cwd);
}

// The broker blocks its process signals in every thread and ignores SIGPIPE: the install
// script must start with neither.
TEST_F(UpdateLayout, TheInstallScriptStartsWithACleanSignalState) {
  // Shell builtins only: the shell's own state, not one it sets while waiting for a command.
  const ZipEntry script{"install.sh",
                        "#!/bin/sh\nwhile read -r key value; do\n  case $key in SigBlk:|SigIgn:) echo \"$key$value\";; "
                        "esac\ndone < /proc/$$/status > \"$3/signals\"\n",
                        'f', 0644};
  {
    const qmtest::BrokerSignalState as_in_the_broker;
    ASSERT_EQ(install("pkg_20250301001.zip", {script, kTool}), 0);
  }
  const std::string seen = qmtest::read_file(new_dir + "/bin/signals");
  ASSERT_EQ(seen.rfind("SigBlk:0000000000000000\nSigIgn:", 0), 0u) << seen;
  EXPECT_EQ(std::stoull(seen.substr(seen.rfind(':') + 1), nullptr, 16) & (1u << (SIGPIPE - 1)), 0u) << seen;
}

// Each bad package fails the installation, is deleted, leaves no extraction directory and
// writes nothing outside it.
TEST_F(UpdateLayout, BadPackagesFailCleanlyAndWriteNothingOutside) {
  struct Case {
    const char* what;
    std::string filename;
    std::vector<ZipEntry> entries;
    std::string expected_log;
    bool truncate = false;
  };
  const std::vector<Case> cases = {
      {"no install.sh", "pkg_20250301001.zip", {kTool}, "Failed to change permissions of"},
      {"install.sh exits 1", "pkg_20250301001.zip", {{"install.sh", "exit 1\n"}}, "exit status 1"},
      {"short version", "pkg_2025.zip", {kInstallScript, kTool}, "Version string length (4) of pkg_2025.zip"},
      {"../ entry", "pkg_20250301001.zip", {kInstallScript, {"../../outside/escape", "x"}}, "Path contains '..'"},
      {"absolute entry", "pkg_20250301001.zip", {kInstallScript, {outside + "/abs", "x"}}, "Path is absolute"},
      {"write through a planted link",
       "pkg_20250301001.zip",
       {kInstallScript, {"link", outside, 'l'}, {"link/through", "x"}},
       "Cannot extract through symlink link/through"},
      {"install.sh links outside",
       "pkg_20250301001.zip",
       {{"install.sh", outside + "/evil.sh", 'l'}},
       "not a regular file"},
      {"truncated zip",
       "pkg_20250301001.zip",
       {kInstallScript, {"bin/big", std::string(200000, 'q')}},
       "Failed to extract update package",
       true},
  };
  const auto before = qmtest::dir_entries(outside);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    qmtest::LogCapture log(QMLOG_TRACE);
    EXPECT_EQ(install(c.filename, c.entries, c.truncate), -1);
    EXPECT_TRUE(log.contains(c.expected_log)) << log.text();
    EXPECT_FALSE(fs::exists(pkg));
    EXPECT_FALSE(fs::exists(extract_dir));
    EXPECT_FALSE(fs::exists(tempdir + "/escape"));
    EXPECT_EQ(qmtest::dir_entries(outside), before);
    EXPECT_EQ(qmtest::read_file(outside + "/sentinel"), "untouched");
    fs::remove_all(new_dir);
  }
}

// 1 GiB of zeros packs into about 1 MiB. Unpacking stops at the budget, not at a full
// disk: at once when the archive announces the size, and while inflating when it does not
// (no central directory, so the entries are read as a stream without sizes).
TEST_F(UpdateLayout, ZipBombStopsAtTheExtractionBudget) {
  const std::string bomb = tmp.file("bomb.zip");
  make_zip(bomb, {kInstallScript}, int64_t{1} << 30);
  ASSERT_LT(fs::file_size(bomb), 16u << 20);
  qm_update_set_extract_limits(32u << 20, 100);
  for (const bool announced : {true, false}) {
    SCOPED_TRACE(announced ? "size announced" : "streamed");
    pkg = work + "/pkg_20250301001.zip";
    fs::copy_file(bomb, pkg);
    if (!announced) fs::resize_file(pkg, fs::file_size(pkg) - 200);
    qmtest::LogCapture log(QMLOG_ERROR);
    EXPECT_EQ(install_made_package("pkg_20250301001.zip"), -1);
    EXPECT_TRUE(log.contains("Update package expands beyond what it may write to " + extract_dir)) << log.text();
    EXPECT_FALSE(fs::exists(extract_dir));
    EXPECT_FALSE(fs::exists(pkg));
    fs::remove_all(new_dir);
  }
}

bool process_gone(pid_t pid) {
  const std::string stat = qmtest::read_file("/proc/" + std::to_string(pid) + "/stat");
  const size_t state = stat.rfind(") ");
  return stat.empty() || (state != std::string::npos && stat[state + 2] == 'Z');
}

// An install.sh that hangs past its time, ignoring SIGTERM, is killed with the child it
// started; the installation fails cleanly. (A stop request ends it the same way.)
TEST_F(UpdateLayout, AHangingInstallScriptIsEndedWithItsChildren) {
  const std::string pids = outside + "/pids";
  qm_update_set_install_time_limit_ms(2000);
  make_zip(work + "/pkg_20250301001.zip",
           {{"install.sh", "#!/bin/sh\ntrap '' TERM\nsleep 600 &\necho $! $$ > '" + pids + "'\nwait\n"}});
  qmtest::LogCapture log(QMLOG_ERROR);
  EXPECT_EQ(install_made_package("pkg_20250301001.zip"), -1);
  EXPECT_TRUE(log.contains("ended because it ran longer than allowed")) << log.text();
  std::istringstream started(qmtest::read_file(pids));
  const std::vector<pid_t> pids_started{std::istream_iterator<pid_t>(started), std::istream_iterator<pid_t>()};
  ASSERT_EQ(pids_started.size(), 2u);
  for (pid_t pid : pids_started) EXPECT_TRUE(qmtest::wait_until([&] { return process_gone(pid); }, std::chrono::seconds(10)));
  EXPECT_FALSE(fs::exists(work + "/pkg_20250301001.zip"));
  EXPECT_FALSE(fs::exists(extract_dir));
}

TEST_F(UpdateLayout, ManualPackageIsFoundOnlyOnTheDayItsNameCarries) {
  auto name_for_day = [](int offset_days) {
    const time_t t = time(nullptr) + offset_days * 86400;
    char date[16];
    struct tm local {};
    strftime(date, sizeof date, "%Y%m%d", localtime_r(&t, &local));
    return std::string(kComponent) + "_" + date + "001_manual.zip";
  };
  qmtest::write_file(work + "/" + name_for_day(-1), "pk");
  qm_upd_pkg_info_t info;
  EXPECT_EQ(get_updated_component_from_local(kComponent, work.c_str(), &info), 0);

  const std::string today = name_for_day(0);
  make_zip(work + "/" + today, {kInstallScript, kTool});
  pkg_info_init(&info);
  const int found = get_updated_component_from_local(kComponent, work.c_str(), &info);
  if (name_for_day(0) != today) GTEST_SKIP() << "the date changed during the test";
  ASSERT_EQ(found, 1);
  EXPECT_EQ(info.filename, today);
  fs::create_directories(new_dir);
  ASSERT_EQ(
      update_ver_dir_content(base.c_str(), tempdir.c_str(), nullptr, new_dir.c_str(), "bin", true, &info, "broker"), 0);
  EXPECT_EQ(std::string(kComponent) + "_" + get_curr_ver(new_dir.c_str(), "bin") + "_manual.zip", today);
  EXPECT_FALSE(fs::exists(info.pkg_file));
}

TEST_F(UpdateLayout, VersionFileAndLatestLink) {
  EXPECT_EQ(get_curr_ver((work + "/latest").c_str(), "bin"), QM_UPDATE_FALLBACK_VERSION);
  fs::create_directories(new_dir + "/bin");
  EXPECT_EQ(create_version_file(new_dir.c_str(), "bin", "2025"), -1);
  ASSERT_EQ(create_version_file(new_dir.c_str(), "bin", "20250301001-and-more"), 0);
  EXPECT_EQ(qmtest::read_file(new_dir + "/bin/.version.qm"), "20250301001");

  ASSERT_EQ(update_latest_link(work.c_str(), "/nowhere"), 0);
  ASSERT_EQ(update_latest_link(work.c_str(), new_dir.c_str()), 0);
  EXPECT_EQ(fs::read_symlink(work + "/latest"), new_dir);
  EXPECT_EQ(get_curr_ver((work + "/latest").c_str(), "bin"), "20250301001");
  EXPECT_EQ(qmtest::dir_entries(work), (std::set<std::string>{"1700000001", "latest"}));
}

TEST_F(UpdateLayout, PruningKeepsTheNewestVersionDirectoriesAndTheActiveOne) {
  for (const char* d : {"1700000001", "1700000002", "1700000003", "abc", "17000000001"})
    fs::create_directories(work + "/" + d);
  qmtest::write_file(work + "/temp.dwnld", "");
  fs::create_symlink(work + "/gone", work + "/1700000009");  // dangling links are no obstacle
  const std::string latest = work + "/latest";
  EXPECT_EQ(clean_old_versions(work.c_str(), latest.c_str(), 2), -1);  // no link: nothing removed
  EXPECT_EQ(qmtest::dir_entries(work).size(), 7u);

  fs::create_symlink(work + "/1700000003", latest);
  const fs::path cwd = fs::current_path();
  fs::current_path(base);  // relative paths are the caller's
  EXPECT_EQ(clean_old_versions("qm-av-broker", "qm-av-broker/latest", 2), 0);
  EXPECT_EQ(fs::current_path(), base);
  fs::current_path(cwd);
  EXPECT_EQ(qmtest::dir_entries(work), (std::set<std::string>{"1700000002", "1700000003", "abc", "17000000001", "latest",
                                                  "temp.dwnld", "1700000009"}));
  fs::remove(latest);
  fs::create_symlink(work + "/1700000002/", latest);
  ASSERT_EQ(clean_old_versions(work.c_str(), latest.c_str(), 0), 0);
  EXPECT_TRUE(fs::exists(work + "/1700000002"));
  EXPECT_FALSE(fs::exists(work + "/1700000003"));
}

TEST_F(UpdateLayout, HostLockExcludesOtherProcessesAndIsNotInherited) {
  const std::string path = base + "/.update.lock";
  qm::c_ptr<qm_update_lockfile_t, qm_update_lockfile_destroy> lock(qm_update_lockfile_new(path.c_str()));
  EXPECT_EQ(lock_release(lock.get()), 0);  // never opened
  {
    qmtest::Child holder(lock_holder(path));
    ASSERT_TRUE(qmtest::wait_until([&] { return holder.out() == "locked\n"; }, std::chrono::seconds(30)));
    qmtest::LogCapture log(QMLOG_DEBUG);
    EXPECT_EQ(lock_check_create(lock.get()), 0);
    EXPECT_TRUE(log.contains("File already locked"));
  }
  ASSERT_EQ(lock_check_create(lock.get()), 1);
  EXPECT_FALSE(other_can_lock(path));
  EXPECT_EQ(lock_release(lock.get()), 0);
  EXPECT_TRUE(other_can_lock(path));

  ASSERT_EQ(lock_check_create(lock.get()), 1);
  qmtest::Child bystander({"/bin/sleep", "600"});  // must not inherit the lock's descriptor
  const std::string cmdline = "/proc/" + std::to_string(bystander.pid()) + "/cmdline";
  ASSERT_TRUE(qmtest::wait_until([&] { return qmtest::read_file(cmdline).starts_with("/bin/sleep"); },
                                 std::chrono::seconds(30)));  // exec'd: the copy of the fork is gone
  lock.reset();
  EXPECT_TRUE(other_can_lock(path));
}

TEST_F(UpdateLayout, ClusterLock) {
  qm::c_ptr<qm_update_lockfile_t, qm_update_lockfile_destroy> lock(
      qm_update_cluster_lock_new(base.c_str(), "qm-av-broker"));
  ASSERT_TRUE(lock);
  EXPECT_EQ(std::string(qm_update_lockfile_path(lock.get())), base + "/config/.qm-av-broker_update.lck");
  {
    // A shared directory that cannot hold the lock file: warn and let the update go on.
    qmtest::write_file(base + "/config", "not a directory");
    qmtest::LogCapture log(QMLOG_WARN);
    EXPECT_TRUE(qm_update_cluster_lock_acquire(lock.get(), "qm-av-broker"));
    EXPECT_FALSE(qm_update_cluster_lock_is_held());
    EXPECT_TRUE(log.contains("proceeding without cluster-wide serialisation"));
    fs::remove(base + "/config");
  }
  fs::create_directories(base + "/config");
  {
    qmtest::Child other_node(lock_holder(qm_update_lockfile_path(lock.get())));
    ASSERT_TRUE(qmtest::wait_until([&] { return other_node.out() == "locked\n"; }, std::chrono::seconds(30)));
    qmtest::LogCapture log(QMLOG_INFO);
    EXPECT_FALSE(qm_update_cluster_lock_acquire(lock.get(), "qm-av-broker"));
    EXPECT_TRUE(log.contains("Another cluster node is updating qm-av-broker — skipping this check cycle"));
  }
  ASSERT_TRUE(qm_update_cluster_lock_acquire(lock.get(), "qm-av-broker"));
  EXPECT_TRUE(qm_update_cluster_lock_is_held());
  EXPECT_GE(qm_update_cluster_lock_held_seconds(), 0);
  qmtest::LogCapture log(QMLOG_DEBUG);
  qm_update_cluster_lock_release(lock.get(), "update cycle finished");
  EXPECT_FALSE(qm_update_cluster_lock_is_held());
  EXPECT_TRUE(log.contains("Released the cluster update lock (update cycle finished)"));
}

// ---- download against a local update server -------------------------------------------

class Download : public UpdateLayout {
 protected:
  int download(const qmtest::UpdateServer& server, qm_upd_pkg_info_t* info, qm_update_abort_fn abort = nullptr,
               void* udata = nullptr) {
    cfg.update_server = server.base_url();
    pkg_info_init(info);
    return qm_update_download_package(kComponent, "20240101001", work.c_str(), info, &cfg, &net, abort, udata);
  }
  qm_update_config_t cfg;
  qm_network_config_t net;
  const std::string body = std::string(100000, 'p') + "package";
};

TEST_F(Download, AnswersThatAreNotAVerifiedPackageLeaveNothingBehind) {
  struct Case {
    const char* answer;
    int result;
    const char* expected_log;
  };
  const std::vector<Case> cases = {
      {R"({"status": 304})", 0, "No update available"},
      {R"({"status": 500})", -1, "Error on http request. Response code: 500"},
      {R"({"body": "pkg", "md5": "00112233445566778899aabbccddeeff"})", -1, "Digests don't match"},
      {R"({"body": "pkg", "md5": "omit"})", -1, "Digests don't match"},
      {R"({"body": "pkg", "length": "omit"})", -1, "Inconsistent file size. From header: 0 / Downloaded: 100007"},
  };
  qmtest::UpdateServer server;
  server.add_file("pkg", body);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.answer);
    server.plan(std::string(R"({"/v1/update": )") + c.answer + "}");
    qmtest::LogCapture log(QMLOG_TRACE);
    qm_upd_pkg_info_t info;
    EXPECT_EQ(download(server, &info), c.result);
    EXPECT_TRUE(log.contains(c.expected_log)) << log.text();
    EXPECT_TRUE(fs::is_empty(work));
  }
}

TEST_F(Download, RedirectNamesThePackage) {
  qmtest::UpdateServer server;
  server.add_file("pkg", body);
  server.plan(R"({"/v1/update": {"status": 302, "location": "/files/pkg_20250301001.zip"},
                  "/files/pkg_20250301001.zip": {"body": "pkg"}})");
  qm_upd_pkg_info_t info;
  ASSERT_EQ(download(server, &info), 1);
  EXPECT_EQ(info.filename, "/pkg_20250301001.zip");
  EXPECT_EQ(info.size, body.size());
  EXPECT_EQ(qmtest::dir_entries(work), std::set<std::string>{"pkg_20250301001.zip"});
  EXPECT_EQ(qmtest::read_file(work + "/pkg_20250301001.zip"), body);
  EXPECT_EQ(server.requests(), "/v1/update?component=" + std::string(kComponent) +
                                   "&version=latest&ssl=1&have=20240101001\n/files/pkg_20250301001.zip\n");
}

TEST_F(Download, HttpsTrustsOnlyTheConfiguredAuthorityUnlessCheckingIsOff) {
  qmtest::UpdateServer server(true);
  server.add_file("pkg", body);
  server.plan(R"({"/v1/update": {"body": "pkg"}})");
  qm_upd_pkg_info_t info;
  {
    qmtest::LogCapture log(QMLOG_ERROR);
    EXPECT_EQ(download(server, &info), -1);  // the test's CA is not among the system's
    EXPECT_TRUE(log.contains("Error requesting update: "));
  }
  cfg.update_ca_file = server.ca_file();
  EXPECT_EQ(download(server, &info), 1);
  cfg.update_ca_file.reset();
  cfg.no_certificate_check = true;
  EXPECT_EQ(download(server, &info), 1);
}

TEST_F(Download, StalledDownloadEndsWhenStopIsRequested) {
  qmtest::UpdateServer server;
  server.add_file("pkg", body);
  server.plan(R"({"/v1/update": {"body": "pkg", "stall": true}})");
  std::atomic<bool> stop{false};
  auto stop_requested = [](void* flag) { return static_cast<std::atomic<bool>*>(flag)->load(); };
  qm_upd_pkg_info_t info;
  auto result = std::async(std::launch::async, [&] { return download(server, &info, stop_requested, &stop); });
  ASSERT_TRUE(qmtest::wait_until([&] { return !server.requests().empty(); }, std::chrono::seconds(30)));
  ASSERT_EQ(result.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  stop = true;
  // Far below the 60 s the low-speed limit would take.
  ASSERT_EQ(result.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_EQ(result.get(), -1);
  EXPECT_TRUE(fs::is_empty(work));
}

}  // namespace
