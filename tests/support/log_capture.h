#ifndef AMBIT_TESTS_SUPPORT_LOG_CAPTURE_H_
#define AMBIT_TESTS_SUPPORT_LOG_CAPTURE_H_

#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "ambit/trace.h"
#include "support/child_process.h"
#include "support/temp_dir.h"

// Points the library's own log file at a fresh directory for the life of
// the object, at the given level, and puts the log back afterwards. Lines()
// gives what was written, without the time and id prefix.
class LogCapture {
 public:
  explicit LogCapture(unsigned long level = 2) {
    std::memcpy(m_savedDir, g_AmbitTrace.dir, sizeof m_savedDir);
    m_savedLevel = AmbitTrace::m_level;
    Close();
    std::snprintf(g_AmbitTrace.dir, sizeof g_AmbitTrace.dir, "%s",
                  m_dir.Path().c_str());
    AmbitTrace::m_level = level;
  }
  ~LogCapture() {
    Close();
    std::memcpy(g_AmbitTrace.dir, m_savedDir, sizeof m_savedDir);
    AmbitTrace::m_level = m_savedLevel;
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> Lines() const {
    std::vector<std::string> lines;
    for (const std::string& name : m_dir.List()) {
      std::istringstream in(ReadFile(m_dir.Path() + "/" + name));
      std::string line;
      while (std::getline(in, line)) {
        const size_t p = line.find(") ");
        lines.push_back(p == std::string::npos ? line : line.substr(p + 2));
      }
    }
    return lines;
  }
  const std::string& Dir() const { return m_dir.Path(); }

 private:
  static void Close() {
    if (g_AmbitTrace.file != nullptr) std::fclose(g_AmbitTrace.file);
    g_AmbitTrace.file = nullptr;
    g_AmbitTrace.day = 0;
  }

  TempDir m_dir;
  char m_savedDir[sizeof g_AmbitTrace.dir];
  unsigned long m_savedLevel;
};

#endif  // AMBIT_TESTS_SUPPORT_LOG_CAPTURE_H_
