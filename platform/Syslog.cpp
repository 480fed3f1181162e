#include "platform/Syslog.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include "platform/Mox.h"

namespace Syslog {

namespace {
// Never destroyed: a sink with static storage may unregister itself after this list would
// otherwise have been torn down at exit.
std::vector<Sink*>& sinks() {
   static auto* s = new std::vector<Sink*>;
   return *s;
}
} // namespace

const char* severityName(Severity s) {
   static const char* names[] = {"EMERG",   "ALERT",  "CRIT", "ERR",
                                 "WARNING", "NOTICE", "INFO", "DEBUG"};
   return names[static_cast<int>(s)];
}

Sink::~Sink() { sinkDel(this); }

void Capture::onRecord(const MessageDef&, const Record& record) { records_.push_back(record); }

void StderrSink::onRecord(const MessageDef&, const Record& record) {
   std::fprintf(stderr, "%%%s-%d: %s\n", record.tag.c_str(), static_cast<int>(record.severity),
                record.text.c_str());
}

void sinkIs(Sink* sink) {
   if (std::find(sinks().begin(), sinks().end(), sink) == sinks().end()) sinks().push_back(sink);
}

void sinkDel(Sink* sink) { std::erase(sinks(), sink); }

void logf(const MessageDef* def, ...) {
   if (sinks().empty()) return;
   va_list args;
   va_start(args, def);
   Record r{def->tag, def->severity, Mox::vformat(def->format, args)};
   va_end(args);
   // A sink may unregister (itself or another) while records are handed out.
   for (Sink* s : std::vector<Sink*>(sinks())) {
      if (std::find(sinks().begin(), sinks().end(), s) != sinks().end()) s->onRecord(*def, r);
   }
}

} // namespace Syslog
