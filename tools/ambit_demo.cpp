// ambit-demo: the library at work, in a private IPC + mount namespace (it
// re-executes itself through scripts/run-isolated.sh), so that it never
// touches this machine's own registries.
//
// First the identifiers, clocks and one trace line (the log directory is
// taken from "QKLogFilePath" when the library loads). Then a producer and a
// consumer process exchange numbered messages through a shared-memory ring
// guarded by a named mutex and signalled by a named event. The producer is
// killed with SIGKILL while it holds the mutex, half-way through writing a
// message; the consumer stays blocked until a new producer opens the mutex,
// which runs the crash recovery that unlocks a dead holder's mutex; the new
// producer resumes from the ring's own state. At the end the inspector shows
// the registries before and after its cleanup pass, and a summary counts the
// messages sent, received and lost.
//
// The parent only coordinates (pipes, fork, kill): it never attaches
// anything through the library, so each child registers as a fresh process.
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "ambit/ambit.h"
#include "common/cli.h"
#include "common/isolation.h"

namespace {

constexpr char kRingName[] = "ambit-demo-ring";
constexpr char kMutexName[] = "ambit-demo-ring-mutex";
constexpr char kEventName[] = "ambit-demo-ring-event";
constexpr uint32_t kSlots = 8;
constexpr uint32_t kMessages = 300;
constexpr uint32_t kKillAt = 120;  // the first producer dies writing this one
constexpr int kChildLimitMs = 10000;

// The ring in shared memory. Message n (from 1) goes to slot (n - 1) % kSlots;
// head counts the messages written, tail those read. Both change only under
// the named mutex, and a message counts as sent only once head covers it.
struct Ring {
  uint32_t head;
  uint32_t tail;
  uint32_t slots[kSlots];
};

using Clock = std::chrono::steady_clock;

long MsSince(Clock::time_point start) {
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

void PrintSystemTime(const char* label, const CPortable::SYSTEMTIME& st) {
  std::printf("%-22s %04u-%02u-%02u %02u:%02u:%02u.%03u (day of week %u)\n", label, st.wYear,
              st.wMonth, st.wDay, st.wHour, st.wMinute, st.wSecond, st.wMilliseconds,
              st.wDayOfWeek);
}

std::string LastLineOf(const std::string& path) {
  std::ifstream in(path);
  std::string line, last;
  while (std::getline(in, line)) last = line;
  return last;
}

// The identifiers, clocks and trace log of the earlier demo. False when the
// trace log cannot be written.
bool ShowBasics() {
  std::printf("ambit %s\n", CPortable::getBuildVersion().c_str());
  std::printf("%-22s %lu\n", "process id", CPortable::GetCurrentProcessId());
  std::printf("%-22s %lu\n", "kernel thread id", CPortable::GetCurrentThreadId());
  std::printf("%-22s %lu ms\n", "tick count", CPortable::GetTickCount());

  CPortable::FILETIME ft;
  CPortable::GetSystemTimeAsFileTime(&ft);
  const unsigned long long ull =
      (static_cast<unsigned long long>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
  std::printf("%-22s %llu (high 0x%08lX, low 0x%08lX)\n", "FILETIME (UTC)", ull,
              ft.dwHighDateTime, ft.dwLowDateTime);

  CPortable::SYSTEMTIME st;
  CPortable::GetSystemTime(&st);
  PrintSystemTime("SYSTEMTIME UTC", st);
  CPortable::GetLocalTime(&st);
  char zone[16];
  CPortable::GetTimeZone(zone, sizeof zone);
  PrintSystemTime((std::string("SYSTEMTIME local ") + zone).c_str(), st);

  if (g_pAmbitTrace == nullptr) {
    std::printf("trace log: not available\n");
    return false;
  }
  std::printf("%-22s %s (level %lu)\n", "log directory", g_pAmbitTrace->dir, AmbitTrace::m_level);
  g_pAmbitTrace->trace("ambit-demo: hello from process %lu\n", CPortable::GetCurrentProcessId());
  if (g_pAmbitTrace->file == nullptr) {
    std::printf("trace log: cannot open a file in %s (set QKLogFilePath)\n", g_pAmbitTrace->dir);
    return false;
  }
  tm now;
  AmbitTrace::GetCurTime(&now);
  char path[300];
  std::snprintf(path, sizeof path, "%s/AmbitTrace-%02d%02d%02d.Log", g_pAmbitTrace->dir,
                (now.tm_year + 1900) % 100, now.tm_mon + 1, now.tm_mday);
  std::printf("%-22s %s\n", "trace file", path);
  std::printf("%-22s %s\n", "last line", LastLineOf(path).c_str());
  return true;
}

// --- Children -----------------------------------------------------------------

// A line from a child to the parent over a pipe.
void Report(int fd, const std::string& line) {
  const std::string text = line + "\n";
  ssize_t n;
  do n = ::write(fd, text.data(), text.size());
  while (n < 0 && errno == EINTR);
}

// Reads one line from fd within timeoutMs; false on time-out or end.
bool ReadLine(int fd, int timeoutMs, std::string* line) {
  line->clear();
  const auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    const long left = static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count());
    if (left <= 0) return false;
    pollfd p = {fd, POLLIN, 0};
    const int r = ::poll(&p, 1, static_cast<int>(left));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    char c;
    const ssize_t n = ::read(fd, &c, 1);
    if (n <= 0) return false;
    if (c == '\n') return true;
    *line += c;
  }
}

// The consumer: takes every message in order until all kMessages arrived,
// then reports "received R out-of-order O" and waits for the parent's word
// to leave.
int Consumer(int report, int ready, int leave) {
  CPSharedMemory memory(kRingName, sizeof(Ring));
  CPMutex mutex(1, 0, kMutexName, 0, 1);
  CPEvent event(1, kEventName, 1);
  Ring* ring = static_cast<Ring*>(memory.getAddress());
  Report(ready, "ready");

  uint32_t received = 0, outOfOrder = 0;
  const auto start = Clock::now();
  while (received < kMessages && MsSince(start) < kChildLimitMs) {
    const auto askedAt = Clock::now();
    bool said = false;
    while (mutex.wait(100, nullptr) != 0) {
      if (!said)
        std::printf("  consumer  (pid %d): the ring's mutex is held; waiting for it\n",
                    static_cast<int>(::getpid()));
      said = true;
      if (MsSince(start) >= kChildLimitMs) break;
    }
    if (MsSince(start) >= kChildLimitMs) break;
    if (said)
      std::printf("  consumer  (pid %d): got the mutex after %ld ms of waiting\n",
                  static_cast<int>(::getpid()), MsSince(askedAt));
    uint32_t got = 0;
    while (ring->tail < ring->head) {
      const uint32_t message = ring->slots[ring->tail % kSlots];
      if (message != ring->tail + 1) ++outOfOrder;
      ++ring->tail;
      ++received;
      ++got;
    }
    mutex.release();
    if (got != 0 && received % 100 < got)
      std::printf("  consumer  (pid %d): %u messages received\n", static_cast<int>(::getpid()),
                  received);
    if (got == 0) event.wait(100, nullptr);
  }
  Report(report, "received " + std::to_string(received) + " out-of-order " +
                     std::to_string(outOfOrder));
  std::string word;
  ReadLine(leave, kChildLimitMs, &word);
  return received == kMessages && outOfOrder == 0 ? 0 : 1;
}

// A producer: opens the ring, its mutex and its event (the open is what
// runs the crash recovery), resumes at the ring's head and writes messages
// until kMessages are out. The first producer stops for good half-way
// through message kKillAt, holding the mutex, and tells the parent.
// Reports "resumed N" first, then "sent S" when done; then waits for the
// parent's word to leave.
int Producer(int index, int report, int leave) {
  const int pid = static_cast<int>(::getpid());
  CPSharedMemory memory(kRingName, sizeof(Ring));
  CPMutex mutex(0, 0, kMutexName, 0, 1);  // open only
  CPEvent event(0, kEventName, 1);
  Ring* ring = static_cast<Ring*>(memory.getAddress());
  std::printf("  producer %d (pid %d): opened the ring, its mutex and its event\n", index, pid);

  uint32_t sent = 0;
  bool first = true;
  const auto start = Clock::now();
  while (MsSince(start) < kChildLimitMs) {
    if (mutex.wait(1000, nullptr) != 0) continue;
    if (first) {
      Report(report, "resumed " + std::to_string(ring->head + 1));
      std::printf("  producer %d (pid %d): resuming at message %u\n", index, pid, ring->head + 1);
      first = false;
    }
    if (ring->head >= kMessages) {
      mutex.release();
      break;
    }
    const bool room = ring->head - ring->tail < kSlots;
    if (room) {
      const uint32_t message = ring->head + 1;
      ring->slots[ring->head % kSlots] = message;
      if (index == 1 && message == kKillAt) {
        // Written into its slot but not yet counted by head: the new
        // producer will write it again.
        std::printf("  producer %d (pid %d): holding the mutex, message %u half written\n",
                    index, pid, message);
        Report(report, "holding");
        ::sleep(30);  // killed long before
        return 3;
      }
      ++ring->head;
      ++sent;
    }
    mutex.release();
    if (room)
      event.wake(1);
    else
      ::usleep(500);
    if (room && sent % 8 == 0) ::usleep(1000);  // let the consumer interleave
  }
  Report(report, "sent " + std::to_string(sent));
  std::string word;
  ReadLine(leave, kChildLimitMs, &word);
  return 0;
}

struct Child {
  pid_t pid = -1;
  int report = -1;  // the parent reads the child's lines here
  int leave = -1;   // the parent writes here to let the child go
};

template <typename Body>
Child Start(Body body) {
  int report[2], leave[2];
  Child c;
  if (::pipe(report) != 0 || ::pipe(leave) != 0) return c;
  std::fflush(nullptr);
  const pid_t parent = ::getpid();
  c.pid = ::fork();
  if (c.pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(100);
    ::close(report[0]);
    ::close(leave[1]);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    int code = 2;
    try {
      code = body(report[1], leave[0]);
    } catch (const QKException& e) {
      std::printf("  child (pid %d): exception 0x%08lX\n", static_cast<int>(::getpid()),
                  static_cast<unsigned long>(e.code));
    }
    std::fflush(nullptr);
    ::_exit(code);
  }
  ::close(report[1]);
  ::close(leave[0]);
  c.report = report[0];
  c.leave = leave[1];
  return c;
}

// Lets the child go and reaps it within timeoutMs (killing it after).
int Finish(Child* c, int timeoutMs) {
  if (c->pid <= 0) return -1;
  Report(c->leave, "leave");
  const auto start = Clock::now();
  int status = 0;
  pid_t r;
  while ((r = ::waitpid(c->pid, &status, WNOHANG)) == 0 && MsSince(start) < timeoutMs)
    ::usleep(2000);
  if (r == 0) {
    ::kill(c->pid, SIGKILL);
    ::waitpid(c->pid, &status, 0);
  }
  ::close(c->report);
  ::close(c->leave);
  c->pid = -1;
  return r == 0 ? -1 : (WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
}

void Kill(Child* c) {
  ::kill(c->pid, SIGKILL);
  ::waitpid(c->pid, nullptr, 0);
  ::close(c->report);
  ::close(c->leave);
  c->pid = -1;
}

uint32_t NumberAfter(const std::string& line, const char* word) {
  const size_t at = line.find(word);
  return at == std::string::npos ? 0 : static_cast<uint32_t>(std::stoul(line.substr(at + std::strlen(word))));
}

bool Fail(const char* what) {
  std::printf("demo: FAILED: %s\n", what);
  return false;
}

void Inspector(const char* title, const std::vector<std::string>& args) {
  std::printf("\n---- %s ----\n", title);
  std::vector<std::string> argv = {tools::SiblingProgram("ambit-ipcs")};
  argv.insert(argv.end(), args.begin(), args.end());
  const int code = tools::RunProgram(argv, 10000, nullptr);
  if (code != 0) std::printf("(ambit-ipcs exited with %d)\n", code);
}

bool RunExchange() {
  std::printf("\n== Producer and consumer through a shared ring (%u messages, %u slots)\n",
              kMessages, kSlots);
  const auto start = Clock::now();
  int readyPipe[2];
  if (::pipe(readyPipe) != 0) return Fail("pipe");
  Child consumer = Start([&](int report, int leave) { return Consumer(report, readyPipe[1], leave); });
  ::close(readyPipe[1]);
  std::string line;
  if (!ReadLine(readyPipe[0], 5000, &line)) return Fail("the consumer did not start");
  ::close(readyPipe[0]);

  Child producer1 = Start([](int report, int leave) { return Producer(1, report, leave); });
  if (!ReadLine(producer1.report, 5000, &line) || line.rfind("resumed", 0) != 0)
    return Fail("the first producer did not start");
  const uint32_t resumed1 = NumberAfter(line, "resumed ");
  if (!ReadLine(producer1.report, 5000, &line) || line != "holding")
    return Fail("the first producer never reached the kill point");
  std::printf("  parent: SIGKILL to producer 1 (pid %d) while it holds the ring's mutex\n",
              static_cast<int>(producer1.pid));
  Kill(&producer1);
  // Nobody opens a named object for a moment: the consumer stays blocked.
  ::usleep(300000);

  std::printf("  parent: starting producer 2; opening the mutex runs the crash recovery\n");
  Child producer2 = Start([](int report, int leave) { return Producer(2, report, leave); });
  if (!ReadLine(producer2.report, 5000, &line) || line.rfind("resumed", 0) != 0)
    return Fail("the second producer did not start");
  const uint32_t resumed2 = NumberAfter(line, "resumed ");
  if (!ReadLine(producer2.report, kChildLimitMs, &line) || line.rfind("sent", 0) != 0)
    return Fail("the second producer did not finish");
  const uint32_t sent2 = NumberAfter(line, "sent ");
  if (!ReadLine(consumer.report, kChildLimitMs, &line) || line.rfind("received", 0) != 0)
    return Fail("the consumer did not finish");
  const uint32_t received = NumberAfter(line, "received ");
  const uint32_t outOfOrder = NumberAfter(line, "out-of-order ");
  const long exchangeMs = MsSince(start);

  // The second producer is killed too, with nobody opening anything after
  // it: its records stay in the registries until a cleanup pass.
  std::printf("  parent: SIGKILL to producer 2 (pid %d) as well, leaving its records behind\n",
              static_cast<int>(producer2.pid));
  Kill(&producer2);
  Inspector("ambit-ipcs (before --clean)", {});
  Inspector("ambit-ipcs --clean", {"--clean"});
  Inspector("ambit-ipcs (after --clean)", {});
  Inspector("ambit-ipcs --check", {"--check"});
  const int consumerCode = Finish(&consumer, 5000);

  const uint32_t sent1 = resumed2 - resumed1;  // producer 1's messages, counted by head
  const uint32_t sent = sent1 + sent2;
  const long long lost = static_cast<long long>(sent) - received;
  std::printf("\n== Summary\n");
  std::printf("messages sent: %u (producer 1: %u, killed at message %u; producer 2: %u, from %u)\n",
              sent, sent1, kKillAt, sent2, resumed2);
  std::printf("messages received: %u (out of order: %u)\n", received, outOfOrder);
  std::printf("exchange took %ld ms\n", exchangeMs);
  if (sent != kMessages || received != kMessages || outOfOrder != 0 || consumerCode != 0)
    return Fail("messages went missing or arrived out of order");
  std::printf("lost: %lld\n", lost);
  return true;
}

}  // namespace

constexpr char kUsage[] =
    "usage: ambit-demo [--help] [--version]\n"
    "\n"
    "Shows libambit at work in a private IPC and mount namespace of its own, so\n"
    "that it never touches this machine's registries: identifiers, clocks and a\n"
    "trace line; then a producer and a consumer exchange messages through named\n"
    "shared memory guarded by a named mutex and signalled by a named event. The\n"
    "producer is killed while it holds the mutex; crash recovery gives the lock\n"
    "back and a new producer resumes. ambit-ipcs shows the registries before and\n"
    "after its cleanup pass. The summary ends with \"lost: 0\"; exit status 0.\n"
    "\n"
    "The trace log goes to the directory named by QKLogFilePath.\n"
    "\n"
    "  --help     print this text and exit\n"
    "  --version  print the version and exit\n";

int main(int argc, char** argv) {
  const int answered = tools::AnswerHelpOrVersion(argc, argv, "ambit-demo", kUsage);
  if (answered >= 0) return answered;
  if (argc > 1) {
    std::fprintf(stderr, "ambit-demo: unknown argument %s\n%s", argv[1], kUsage);
    return 2;
  }
  const std::string script = tools::HelperPath(AMBIT_HELPER_DIR, "run-isolated.sh");
  if (!tools::EnsureIsolated(argc, argv, script.c_str())) return 2;
  setvbuf(stdout, nullptr, _IOLBF, 0);
  std::printf("(running in a private IPC and mount namespace)\n");
  const bool basics = ShowBasics();
  const bool exchange = RunExchange();
  return basics && exchange ? 0 : 1;
}
