// Uses the public interface the way callers do: through <ambit/ambit.h> and
// libambit.so, and checks what the library exports and hides.
#include "ambit/ambit.h"

#include <dlfcn.h>
#include <elf.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "gtest/gtest.h"
#include "support/forked_child.h"

namespace {

// The path of the loaded libambit.so.
std::string LibraryPath() {
  Dl_info info = {};
  if (dladdr(reinterpret_cast<void*>(&traceImpl), &info) == 0 ||
      info.dli_fname == nullptr)
    return "";
  return info.dli_fname;
}

TEST(PublicApiTest, LibraryIsAnI386SharedObject) {
  const std::string path = LibraryPath();
  ASSERT_NE(std::string::npos, path.find("libambit.so")) << path;
  FILE* f = std::fopen(path.c_str(), "rb");
  ASSERT_NE(nullptr, f);
  Elf32_Ehdr header = {};
  const size_t n = std::fread(&header, sizeof header, 1, f);
  std::fclose(f);
  ASSERT_EQ(1u, n);
  EXPECT_EQ(ELFCLASS32, header.e_ident[EI_CLASS]);
  EXPECT_EQ(EM_386, header.e_machine);
  EXPECT_EQ(ET_DYN, header.e_type);
}

TEST(PublicApiTest, PublicNamesAreExportedAndInternalOnesHidden) {
  void* self = dlopen("libambit.so.1", RTLD_NOW | RTLD_NOLOAD);
  ASSERT_NE(nullptr, self) << dlerror();
  EXPECT_NE(nullptr, dlsym(self, "_Z9traceImplmmPKcz"));
  EXPECT_NE(nullptr, dlsym(self, "g_pambittracing"));
  EXPECT_NE(nullptr, dlsym(self, "g_AmbitTrace"));
  EXPECT_NE(nullptr, dlsym(self, "_ZN9CPortable12GetTickCountEv"));
  // Library internals stay private.
  EXPECT_EQ(nullptr, dlsym(self, "_Z17SystemWallSecondsv"));
  EXPECT_EQ(nullptr, dlsym(self, "g_traceClock"));
  dlclose(self);
}

// A caller compiled against QKException(long, char*, long) links to these
// symbols; the const char* form alone does not satisfy it.
TEST(PublicApiTest, TheExceptionConstructorTakingACharPointerIsExported) {
  void* self = dlopen("libambit.so.1", RTLD_NOW | RTLD_NOLOAD);
  ASSERT_NE(nullptr, self) << dlerror();
  EXPECT_NE(nullptr, dlsym(self, "_ZN11QKExceptionC1ElPcl"));  // complete object
  EXPECT_NE(nullptr, dlsym(self, "_ZN11QKExceptionC2ElPcl"));  // base object
  dlclose(self);
  char file[] = "caller.cpp";
  QKException e(QK_E_OUT_OF_MEMORY, file, 12);
  EXPECT_STREQ("caller.cpp.12", e.where);
  QKException literal(QK_E_OUT_OF_MEMORY, "literal.cpp", 3);
  EXPECT_STREQ("literal.cpp.3", literal.where);
  QKException none(QK_E_OUT_OF_MEMORY, NULL, 3);
  EXPECT_STREQ("", none.where);
}

TEST(PublicApiTest, EveryFoundationNameIsCallableThroughTheSharedLibrary) {
  EXPECT_EQ("19.43.1700.0", CPortable::getBuildVersion());
  CPortable::CPDbgBreak();
  errno = 0;
  EXPECT_EQ(0, CPortable::GetLastError());
  EXPECT_NE(0u, CPortable::GetCurrentProcessId());
  EXPECT_NE(0u, CPortable::GetCurrentThreadId());
  EXPECT_NE(0u, CPortable::GetCurrentPThreadId());
  (void)CPortable::GetCurrentThreadHandle();

  CPortable::FILETIME a = {5, 1}, b = {6, 0};
  const CPortable::FILETIME d = CPortable::SubtractFileTimes(a, b);
  EXPECT_EQ(0xFFFFFFFFUL, d.dwLowDateTime);
  EXPECT_EQ(0UL, d.dwHighDateTime);
  EXPECT_EQ(1, CPortable::CompareFileTime(&a, &b));

  CPortable::SYSTEMTIME st = {};
  unsigned long long ull = 0;
  CPortable::GetCurrentULLFileTimeUTC(&ull);
  CPortable::GetSystemTimeAsFileTime(&a);
  EXPECT_EQ(1, CPortable::ULLFileTimeToSystemTime(&ull, &st));
  EXPECT_EQ(1, CPortable::FileTimeToSystemTime(&a, &st));
  EXPECT_EQ(1, CPortable::ULLSystemTimeToFileTime(&st, &ull));
  EXPECT_EQ(1, CPortable::SystemTimeToFileTime(&st, &a));
  EXPECT_EQ(1, CPortable::ULLFileTimeLocalToULLFileTimeUTC(&ull, &ull));
  EXPECT_EQ(1, CPortable::LocalFileTimeToFileTime(&a, &b));
  EXPECT_EQ(1, CPortable::ULLFileTimeUTCToULLFileTimeLocal(&ull, &ull));
  EXPECT_EQ(1, CPortable::FileTimeToLocalFileTime(&a, &b));
  EXPECT_EQ(1, CPortable::ULLFileDurationToSystemDuration(&ull, &st));
  EXPECT_EQ(1, CPortable::FileDurationToSystemDuration(&a, &st));
  CPortable::GetSystemTime(&st);
  CPortable::GetLocalTime(&st);
  EXPECT_GE(CPortable::GetTickCountULL(), CPortable::GetTickCount() * 0ULL);
  char zone[8];
  EXPECT_EQ(zone, CPortable::GetTimeZone(zone, sizeof zone));
  EXPECT_EQ(1000212480, static_cast<long>(g_timeDayOfInfamy));

  try {
    CPortable::throwQKException(QK_E_OUT_OF_MEMORY, "api", 9);
    FAIL() << "no exception";
  } catch (const QKException& e) {
    EXPECT_EQ(static_cast<long>(0xC1210E10UL), e.code);
    EXPECT_STREQ("api.9", e.where);
  }
  QKException direct(QK_E_QOS_SETSOCKOPT, nullptr, 1);
  EXPECT_STREQ("", direct.where);

  CPCritSec cs("api", 1);
  EXPECT_EQ(0, cs.enter(__LINE__));
  EXPECT_EQ(1, cs.tryEnter(__LINE__));
  EXPECT_EQ(0, cs.test());
  cs.setTrace(1);
  cs.setAllowTrace(0);
  EXPECT_EQ(0, cs.leave(__LINE__));
  EXPECT_EQ(0, cs.leave(__LINE__));

  AmbitTracing* before = AmbitDebug::getTracingHelper();
  const unsigned long level = AmbitTrace::m_level;
  AmbitDebug::setAmbitTrace(12);
  EXPECT_EQ(static_cast<AmbitTracing*>(g_pAmbitTrace), g_pambittracing);
  traceImpl(64, 2, "not written: category off\n");
  AmbitDebug::setAmbitTrace(level);
  AmbitDebug::setTracingHelper(before);
  ASSERT_NE(nullptr, g_pAmbitTrace);
  tm now;
  AmbitTrace::GetCurTime(&now);
  EXPECT_GE(now.tm_year, 100);
}

// A caller's stop check written from the documented layout alone: the check
// is the first virtual function, the destructor comes after it, and the
// class does not derive from the library's CTerminateWait.
class CallerTerminateWait {
 public:
  virtual int shouldStop() {
    ++m_calls;
    return 1;
  }
  virtual ~CallerTerminateWait() {}
  int m_calls = 0;
};

// Runs one wait in a child process with a caller-side stop check that asks
// to stop at once. 0: the wait asked the check once and returned
// 0xC0000000; 1: another result; 2: the check was not asked exactly once. A
// wait that calls another virtual slot ends the child with a signal.
template <typename Wait>
int WaitAbandonedByCallerCheck(Wait wait) {
  ForkedChild child([&] {
    CallerTerminateWait check;
    const unsigned long r = wait(reinterpret_cast<CTerminateWait*>(&check));
    if (r != 0xC0000000UL) return 1;
    return check.m_calls == 1 ? 0 : 2;
  });
  if (!child.Started()) return -2;
  return child.Join(10000);
}

TEST(PublicApiTest, EveryWaitCallsTheFirstVirtualFunctionOfTheStopCheck) {
  EXPECT_EQ(0, WaitAbandonedByCallerCheck([](CTerminateWait* t) {
              CPEvent event(1, "", 0);
              return event.wait(1000, t);
            })) << "CPEvent";
  EXPECT_EQ(0, WaitAbandonedByCallerCheck([](CTerminateWait* t) {
              CPEventEx event(0);
              if (event.Initialize(1, "") != 0) return 0xD0000000UL;
              return event.wait(1000, t);
            })) << "CPEventEx";
  EXPECT_EQ(0, WaitAbandonedByCallerCheck([](CTerminateWait* t) {
              CPMutex mutex(1, 0, "", 1, 0);
              return mutex.wait(1000, t);
            })) << "CPMutex";
  EXPECT_EQ(0, WaitAbandonedByCallerCheck([](CTerminateWait* t) {
              CPSemaphore semaphore(1, 0, 1, "", 0);
              return semaphore.wait(1000, t);
            })) << "CPSemaphore";
  EXPECT_EQ(0, WaitAbandonedByCallerCheck([](CTerminateWait* t) {
              CPMultiEvent multi(0);
              multi.pushEvent(7);
              return static_cast<unsigned long>(multi.wait(1000, t));
            })) << "CPMultiEvent";
}

}  // namespace

TEST(PublicApiTest, ThePackageVersionIsVisibleToCodeAndNamesTheLoadedLibrary) {
  EXPECT_EQ(std::to_string(AMBIT_VERSION_MAJOR) + "." + std::to_string(AMBIT_VERSION_MINOR) + "." +
                std::to_string(AMBIT_VERSION_PATCH),
            AMBIT_VERSION_STRING);
  EXPECT_EQ(std::string("1.0.0"), AMBIT_VERSION_STRING);
  EXPECT_EQ(10000, AMBIT_VERSION);
  // The library this test runs with is libambit.so.<that version>.
  Dl_info info;
  ASSERT_NE(0, dladdr(reinterpret_cast<void*>(&CPortable::GetTickCount), &info));
  char* real = realpath(info.dli_fname, nullptr);
  ASSERT_NE(nullptr, real) << info.dli_fname;
  const std::string file(real);
  free(real);
  EXPECT_EQ(file.size() - std::string("libambit.so.").size() - std::string(AMBIT_VERSION_STRING).size(),
            file.rfind(std::string("libambit.so.") + AMBIT_VERSION_STRING))
      << file;
  // The product build text is a different thing and keeps its value.
  EXPECT_EQ("19.43.1700.0", CPortable::getBuildVersion());
}
