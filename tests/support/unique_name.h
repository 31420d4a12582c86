#ifndef AMBIT_TESTS_SUPPORT_UNIQUE_NAME_H_
#define AMBIT_TESTS_SUPPORT_UNIQUE_NAME_H_

#include <unistd.h>

#include <string>

#include "gtest/gtest.h"

// A name no other test uses at the same time: prefix, pid and test name.
inline std::string UniqueName(const std::string& prefix) {
  const ::testing::TestInfo* info =
      ::testing::UnitTest::GetInstance()->current_test_info();
  std::string name = prefix + "-" + std::to_string(::getpid());
  if (info != nullptr) name += std::string("-") + info->name();
  return name;
}

#endif  // AMBIT_TESTS_SUPPORT_UNIQUE_NAME_H_
