#include <kel/logfiles.h>
#include <kel/logging.h>

AutoTrace::AutoTrace(const std::string& name) : name_(name) {
  if (TraceOn() != 0) __Trace("%s: enter", name_.c_str());
}

AutoTrace::~AutoTrace() {
  if (TraceOn() != 0) __Trace("%s: exit", name_.c_str());
}

AutoDebug::AutoDebug(int level, const std::string& name) : level_(level), name_(name) {}

AutoDebug::~AutoDebug() = default;
