// Each query against what the machine says by other means, with no
// assumption about the particular machine.
#include <gtest/gtest.h>
#include <pwd.h>
#include <qor/qor_sysinfo.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QSysInfo>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>

TEST(qorSysinfo, TextQueriesMatchTheirSources) {
  char* version = qorGetOSVersion();
  EXPECT_EQ(std::string(version), QSysInfo::prettyProductName().toLatin1().toStdString() + "\n");
  delete[] version;
  const time_t before = time(nullptr);
  const std::string now = qorGetCurrentTime();
  bool matched = false;  // one of the seconds between two readings of the clock
  for (time_t t = before; t <= time(nullptr); ++t) matched = matched || now == ctime(&t);
  EXPECT_TRUE(matched) << now;
  char* user = qorGetUserName();
  const struct passwd* entry = getpwuid(geteuid());
  EXPECT_STREQ(user, entry != nullptr ? entry->pw_name : "unknown");
  delete[] user;
  char host[256] = {};
  ASSERT_EQ(gethostname(host, sizeof host - 1), 0);
  char* name = qorGetHostName();
  EXPECT_STREQ(name, host);
  delete[] name;
  EXPECT_EQ(qorGetAvailableMemory(), sysconf(_SC_PHYS_PAGES) * sysconf(_SC_PAGESIZE) / 1048576);
  for (const QString& address : qorGetMacAddress())
    EXPECT_NE(address.toStdString().find_first_not_of("0:"), std::string::npos);
}

// The count used to come from a shell pipeline found through PATH: with PATH
// empty it printed to standard error and returned 0.
TEST(qorGetNumProcessors, CountsCpuinfoLinesEvenWithoutPath) {
  std::ifstream cpuinfo("/proc/cpuinfo");
  int expected = 0;
  for (std::string line; std::getline(cpuinfo, line);) expected += line.find("processor") != std::string::npos;
  const char* saved = getenv("PATH");
  const std::string path = saved != nullptr ? saved : "";
  setenv("PATH", "", 1);
  const int counted = qorGetNumProcessors();
  setenv("PATH", path.c_str(), 1);
  EXPECT_GE(counted, 1);
  if (expected > 0) {
    EXPECT_EQ(counted, expected);
  }
}

// From a child that has become a user without a password entry: "unknown",
// still a copy the caller releases with delete[].
TEST(qorGetUserName, UnknownUserFallsBackToUnknown) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to change to a user without a password entry";
  uid_t stranger = 54321;
  while (getpwuid(stranger) != nullptr) ++stranger;
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (setgid(stranger) != 0 || setuid(stranger) != 0) _exit(10);
    char* name = qorGetUserName();
    const bool unknown = strcmp(name, "unknown") == 0;
    delete[] name;
    _exit(unknown ? 0 : 11);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "10: could not change user, 11: name was not \"unknown\"";
}
