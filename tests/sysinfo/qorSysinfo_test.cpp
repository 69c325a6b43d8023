// Each query is checked against what the machine says by other means, with
// no assumption about the particular machine.
#include <dirent.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <qor/qor_sysinfo.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QStringList>
#include <algorithm>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

namespace {

std::string readFirstLine(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

struct SysInterface {
  std::string name;
  std::string address;
  unsigned long flags;
};

std::vector<SysInterface> sysInterfaces() {
  std::vector<SysInterface> interfaces;
  DIR* dir = opendir("/sys/class/net");
  if (dir == nullptr) return interfaces;
  while (const dirent* entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    const std::string base = std::string("/sys/class/net/") + entry->d_name;
    interfaces.push_back(
        {entry->d_name, readFirstLine(base + "/address"), std::stoul(readFirstLine(base + "/flags"), nullptr, 16)});
  }
  closedir(dir);
  return interfaces;
}

std::string upper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), ::toupper);
  return text;
}

}  // namespace

TEST(qorGetOSVersion, EndsInExactlyOneNewline) {
  char* version = qorGetOSVersion();
  const size_t length = strlen(version);
  ASSERT_GE(length, 1u);
  ASSERT_LE(length, 255u);
  EXPECT_EQ(version[length - 1], '\n');
  if (length >= 2) {
    EXPECT_NE(version[length - 2], '\n');
  }
  EXPECT_EQ(std::string(version, length - 1), QSysInfo::prettyProductName().toLatin1().toStdString());
  delete[] version;
}

TEST(qorGetCurrentTime, IsTheCtimeFormOfNow) {
  const time_t before = time(nullptr);
  const std::string text = qorGetCurrentTime();
  const time_t after = time(nullptr);
  ASSERT_EQ(text.size(), 25u);
  EXPECT_EQ(text.back(), '\n');
  // "Www Mmm dd hh:mm:ss yyyy\n": letters, blanks, digits and colons in fixed places.
  const std::string shape = "Aaa Aaa _9 99:99:99 9999\n";
  for (size_t i = 0; i < shape.size(); ++i) {
    const char c = text[i];
    switch (shape[i]) {
      case 'A':
        EXPECT_TRUE(isupper(c)) << text;
        break;
      case 'a':
        EXPECT_TRUE(islower(c)) << text;
        break;
      case '9':
        EXPECT_TRUE(isdigit(c)) << text;
        break;
      case '_':
        EXPECT_TRUE(c == ' ' || isdigit(c)) << text;
        break;
      default:
        EXPECT_EQ(c, shape[i]) << text;
    }
  }
  // The text is one of the seconds between the two readings of the clock.
  bool matched = false;
  for (time_t t = before; t <= after; ++t) matched = matched || text == ctime(&t);
  EXPECT_TRUE(matched) << text;
}

TEST(qorGetUserName, IsTheEffectiveUsersLoginName) {
  char* name = qorGetUserName();
  const struct passwd* entry = getpwuid(geteuid());
  EXPECT_STREQ(name, entry != nullptr ? entry->pw_name : "unknown");
  delete[] name;  // every result, fallback included, is released the same way
}

TEST(qorGetHostName, IsGethostname) {
  char expected[256] = {};
  ASSERT_EQ(gethostname(expected, sizeof expected - 1), 0);
  char* name = qorGetHostName();
  EXPECT_STREQ(name, expected);
  delete[] name;
}

TEST(qorGetNumProcessors, CountsProcessorLinesOfCpuinfo) {
  std::ifstream cpuinfo("/proc/cpuinfo");
  int expected = 0;
  for (std::string line; std::getline(cpuinfo, line);) {
    if (line.find("processor") != std::string::npos) ++expected;
  }
  EXPECT_EQ(qorGetNumProcessors(), expected);
  // On x86 there is one such line per logical processor.
  EXPECT_EQ(qorGetNumProcessors(), sysconf(_SC_NPROCESSORS_CONF));
}

TEST(qorGetAvailableMemory, IsTotalPhysicalMemoryInMiB) {
  const long expected =
      static_cast<long>(static_cast<long long>(sysconf(_SC_PHYS_PAGES)) * sysconf(_SC_PAGESIZE) / 1048576);
  EXPECT_EQ(qorGetAvailableMemory(), expected);
  // /proc/meminfo's MemTotal is the same amount in KiB.
  std::ifstream meminfo("/proc/meminfo");
  for (std::string line; std::getline(meminfo, line);) {
    if (line.rfind("MemTotal:", 0) == 0) {
      EXPECT_EQ(qorGetAvailableMemory(), std::stol(line.substr(9)) / 1024);
    }
  }
}

// The loopback's address (all zeros) must never appear, and every other
// interface with a real address must.
TEST(qorGetMacAddress, ListsEveryHardwareAddressButTheLoopbacks) {
  const QList<QString> addresses = qorGetMacAddress();
  std::vector<std::string> listed;
  for (const QString& address : addresses) listed.push_back(upper(address.toStdString()));

  std::vector<std::string> allowed;
  for (const SysInterface& interface : sysInterfaces()) {
    const bool loopback = interface.flags & 0x8;
    const std::string address = upper(interface.address);
    if (loopback) continue;
    if (address.empty()) continue;
    allowed.push_back(address);
    if (address.find_first_not_of("0:") != std::string::npos) {
      EXPECT_NE(std::find(listed.begin(), listed.end(), address), listed.end()) << interface.name;
    }
  }
  for (const std::string& address : listed) {
    EXPECT_FALSE(address.empty());
    EXPECT_NE(std::find(allowed.begin(), allowed.end(), address), allowed.end()) << address;
  }
}

// The fallbacks, seen from a child process that has become a user without a
// password entry and may start no process: "unknown" (still a copy the
// caller releases with delete[]) and one processor.
TEST(qorSysinfoFallbacks, UnknownUserAndNoProcessCount) {
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
    if (!unknown) _exit(11);
    const struct rlimit noProcesses = {0, 0};
    if (setrlimit(RLIMIT_NPROC, &noProcesses) != 0) _exit(12);
    _exit(qorGetNumProcessors() == 1 ? 0 : 13);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "10: could not change user, 11: name was not \"unknown\", "
                                       "12: setrlimit failed, 13: processor count was not 1";
}
