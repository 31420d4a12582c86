#ifndef AMBIT_TESTS_SUPPORT_TEMP_DIR_H_
#define AMBIT_TESTS_SUPPORT_TEMP_DIR_H_

#include <string>
#include <vector>

// A fresh directory, removed with its content when the object goes.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& Path() const { return m_path; }
  // Names of the entries, sorted, without "." and "..".
  std::vector<std::string> List() const;

 private:
  std::string m_path;
};

#endif  // AMBIT_TESTS_SUPPORT_TEMP_DIR_H_
