#ifndef AMBIT_TESTS_SUPPORT_RECORDING_HOOK_H_
#define AMBIT_TESTS_SUPPORT_RECORDING_HOOK_H_

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "ambit/trace.h"

// A tracing hook that keeps every line it is given, with its category and
// level. Install() makes it the library's hook and remembers the previous
// one, which the destructor puts back.
class RecordingHook : public AmbitTracing {
 public:
  struct Line {
    unsigned long category;
    unsigned long level;
    std::string text;
  };

  ~RecordingHook() override {
    if (m_installed) AmbitDebug::setTracingHelper(m_previous);
  }

  void Install() {
    m_previous = AmbitDebug::getTracingHelper();
    AmbitDebug::setTracingHelper(this);
    m_installed = true;
  }

  void traceConditional(unsigned long mask, unsigned long level,
                        const char* format, va_list args) override {
    Record(mask, level, format, args);
  }
  void traceUnconditional(unsigned long level, const char* format,
                          va_list args) override {
    Record(0, level, format, args);
  }

  std::vector<Line> Lines() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lines;
  }
  std::vector<std::string> Texts() const {
    std::vector<std::string> texts;
    for (const Line& l : Lines()) texts.push_back(l.text);
    return texts;
  }
  void Clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.clear();
  }

 private:
  void Record(unsigned long category, unsigned long level, const char* format,
              va_list args) {
    char buffer[2048];
    std::vsnprintf(buffer, sizeof buffer, format, args);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.push_back({category, level, buffer});
  }

  mutable std::mutex m_mutex;
  std::vector<Line> m_lines;
  AmbitTracing* m_previous = nullptr;
  bool m_installed = false;
};

#endif  // AMBIT_TESTS_SUPPORT_RECORDING_HOOK_H_
