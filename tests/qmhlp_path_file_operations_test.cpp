#include "test_prelude.hpp"
#include <stdlib.h>

#include "qmhlp-path-file-operations.hpp"

namespace {

mode_t mode_of(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

TEST(ExpandPath, VariablesAndLiterals) {
  setenv("QM_T_HOME", "/home/q", 1);
  setenv("QM_T_EMPTY", "", 1);
  unsetenv("QM_T_UNSET");
  const std::string long_name(255, 'V');
  setenv(long_name.c_str(), "long", 1);
  const std::string too_long(256, 'W');
  const std::vector<std::pair<std::string, qm::opt_string>> cases = {
      {"a${QM_T_HOME}b$QM_T_HOME-c/x", "a/home/qb/home/q-c/x"},
      {"${QM_T_HOME", "${QM_T_HOME"},
      {"$1abc", "$1abc"},
      {"x$", "x$"},
      {"$-x$/", "$-x$/"},
      {"${}", "${}"},
      {"[$QM_T_EMPTY]", "[]"},
      {"$" + long_name + "/y", "long/y"},
      {"${" + too_long + "}", "${" + too_long + "}"},
      {"$" + too_long, "$" + too_long},
      {"/a/$QM_T_UNSET/b", std::nullopt},
      {"${QM_T_UNSET:-default}", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& [in, out] : cases) EXPECT_EQ(qmhlp_expand_path(in.c_str()), out) << in;
  EXPECT_EQ(qmhlp_expand_path(nullptr), std::nullopt);

  LogCapture log(QMLOG_ERROR);
  qmhlp_expand_path("$QM_T_UNSET/x");
  EXPECT_LOGGED(log, "Cannot expand path \"$QM_T_UNSET/x\": environment variable \"QM_T_UNSET\" is not set");
}

TEST(CopyDirRecursive, CreatesTheDestinationKeepsModesFollowsLinksAndRestoresTheDirectory) {
  TempDir tmp;
  const std::string src = tmp.file("src");
  fs::create_directories(src + "/sub/deeper");
  write_file(src + "/run", "#!/bin/sh\n");
  chmod((src + "/run").c_str(), 0750);
  write_file(src + "/sub/deeper/data", "data");
  chmod((src + "/sub/deeper/data").c_str(), 0600);
  fs::create_symlink(src + "/run", src + "/sub/alias");
  const std::string cwd = fs::current_path();

  fs::current_path(tmp.path());
  ASSERT_EQ(copy_dir_recursive("src", "dst"), 0);  // relative paths mean the caller's directory
  const std::string dst = tmp.file("dst");
  EXPECT_EQ(fs::current_path(), tmp.path());
  fs::current_path(cwd);
  EXPECT_EQ(mode_of(dst), 0750u);
  EXPECT_EQ(mode_of(dst + "/sub"), 0755u);
  EXPECT_EQ(mode_of(dst + "/run"), 0750u);
  EXPECT_EQ(mode_of(dst + "/sub/deeper/data"), 0600u);
  EXPECT_EQ(read_file(dst + "/sub/deeper/data"), "data");
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(dst + "/sub/alias")));
  EXPECT_EQ(read_file(dst + "/sub/alias"), "#!/bin/sh\n");

  fs::create_directory_symlink(src, src + "/sub/loop");
  LogCapture log(QMLOG_ERROR);
  EXPECT_EQ(copy_dir_recursive(src.c_str(), tmp.file("dst2").c_str()), -1);
  EXPECT_LOGGED(log, "lies inside itself");
  EXPECT_EQ(copy_dir_recursive(tmp.file("missing").c_str(), dst.c_str()), -1);
  EXPECT_LOGGED(log, "Failed to open source dir");
}

}  // namespace
