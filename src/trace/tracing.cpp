// The tracing hook and its control surface.
#include "ambit/trace.h"
#include "trace/trace_impl.h"

namespace {
constexpr long kHighestSettableLevel = 256;
constexpr unsigned long kCategoryBits = 0xFC;
}  // namespace

AmbitTracing::AmbitTracing() = default;
AmbitTracing::~AmbitTracing() = default;

void AmbitDebug::setTracingHelper(AmbitTracing* hook) { g_pambittracing = hook; }

AmbitTracing* AmbitDebug::getTracingHelper() { return g_pambittracing; }

void AmbitDebug::setAmbitTrace(unsigned long newLevel) {
  // Read as signed: above 256 is ignored, negative values are kept as given.
  if (static_cast<long>(newLevel) > kHighestSettableLevel) return;
  if (newLevel == AmbitTrace::m_level) return;
  AmbitTrace::m_level = newLevel;
  g_pambittracing = (newLevel & kCategoryBits) ? g_pAmbitTrace : nullptr;
}

void traceImpl(unsigned long category, unsigned long level, const char* format,
               ...) {
  AmbitTracing* hook = AmbitDebug::getTracingHelper();
  if (hook == nullptr) return;
  va_list args;
  va_start(args, format);
  hook->traceConditional(category, level, format, args);
  va_end(args);
}
