#include "support/temp_dir.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>

namespace {

void RemoveTree(const std::string& path) {
  if (DIR* d = ::opendir(path.c_str())) {
    while (dirent* e = ::readdir(d)) {
      const std::string name = e->d_name;
      if (name == "." || name == "..") continue;
      const std::string child = path + "/" + name;
      if (e->d_type == DT_DIR)
        RemoveTree(child);
      else
        ::unlink(child.c_str());
    }
    ::closedir(d);
  }
  ::rmdir(path.c_str());
}

}  // namespace

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/ambit-test-XXXXXX";
  if (::mkdtemp(&pattern[0]) != nullptr) m_path = pattern;
}

TempDir::~TempDir() {
  if (!m_path.empty()) RemoveTree(m_path);
}

std::vector<std::string> TempDir::List() const {
  std::vector<std::string> names;
  if (DIR* d = ::opendir(m_path.c_str())) {
    while (dirent* e = ::readdir(d)) {
      const std::string name = e->d_name;
      if (name != "." && name != "..") names.push_back(name);
    }
    ::closedir(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}
