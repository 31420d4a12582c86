#ifndef AMBIT_TESTS_SHM_PLANTED_FILE_H_
#define AMBIT_TESTS_SHM_PLANTED_FILE_H_

// A file outside /tmp (in the working directory, which the isolated tests
// keep) that a hostile user points a symlink at: tests plant the link at
// one of the library's paths and then check that the file kept its content
// and its mode.

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "support/child_process.h"

class PlantedTarget {
 public:
  explicit PlantedTarget(const std::string& content, mode_t mode = 0600)
      : m_content(content), m_mode(mode) {
    char dir[] = "ambit-outside-XXXXXX";
    if (::mkdtemp(dir) == nullptr) return;
    char* cwd = ::getcwd(nullptr, 0);
    m_dir = std::string(cwd) + "/" + dir;
    ::free(cwd);
    m_path = m_dir + "/target";
    const int fd = ::open(m_path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) return;
    const bool written =
        ::write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
    ::fchmod(fd, mode);
    ::close(fd);
    m_ok = written;
  }
  ~PlantedTarget() {
    ::unlink(m_path.c_str());
    ::rmdir(m_dir.c_str());
  }
  PlantedTarget(const PlantedTarget&) = delete;
  PlantedTarget& operator=(const PlantedTarget&) = delete;

  bool Ok() const { return m_ok; }
  const std::string& Path() const { return m_path; }

  // Makes `linkPath` a symlink to the target.
  bool LinkFrom(const char* linkPath) const {
    return m_ok && ::symlink(m_path.c_str(), linkPath) == 0;
  }

  // Empty when the target kept its content and mode, else what changed.
  std::string Damage() const {
    std::string damage;
    struct stat st;
    if (::stat(m_path.c_str(), &st) != 0) return "the target is gone";
    if ((st.st_mode & 07777) != m_mode) damage += "mode changed to " + Octal(st.st_mode & 07777) + "; ";
    const std::string now = ReadFile(m_path);
    if (now != m_content) damage += "content is now \"" + now + "\"";
    return damage;
  }

 private:
  static std::string Octal(unsigned v) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "%04o", v);
    return buf;
  }

  std::string m_content;
  mode_t m_mode;
  std::string m_dir, m_path;
  bool m_ok = false;
};

#endif  // AMBIT_TESTS_SHM_PLANTED_FILE_H_
