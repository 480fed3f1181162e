#include "platform/Syslog.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include "platform/Mox.h"

namespace Syslog {

const char* severityName(Severity s) {
   static const char* names[] = {"EMERG",   "ALERT",  "CRIT", "ERR",
                                 "WARNING", "NOTICE", "INFO", "DEBUG"};
   return names[static_cast<int>(s)];
}

Sink::~Sink() {
   // sinkDel edits logs_, so walk a copy.
   for (Log* log : std::vector<Log*>(logs_)) log->sinkDel(this);
}

void Capture::onRecord(const MessageDef&, const Record& record) { records_.push_back(record); }

void StderrSink::onRecord(const MessageDef&, const Record& record) {
   std::fprintf(stderr, "%%%s-%d: %s\n", record.tag.c_str(), static_cast<int>(record.severity),
                record.text.c_str());
}

static_assert(static_cast<int>(Severity::emergency) == LOG_EMERG &&
                  static_cast<int>(Severity::error) == LOG_ERR &&
                  static_cast<int>(Severity::debug) == LOG_DEBUG,
              "severities are the system log's levels");

SystemSink::SystemSink(const char* ident, Write write, const char* socket)
    : write_(write ? write : &::syslog), opened_(write == nullptr),
      socket_(socket ? socket : (write ? nullptr : _PATH_LOG)) {
   if (opened_) ::openlog(ident, LOG_PID | LOG_NDELAY, LOG_DAEMON);
}

bool SystemSink::systemLogThere() {
   if (!socket_) return true;
   const auto now = std::chrono::steady_clock::now();
   if (now >= askAgainAt_) {
      there_ = ::access(socket_, F_OK) == 0;
      askAgainAt_ = now + std::chrono::seconds(1);
   }
   return there_;
}

SystemSink::~SystemSink() {
   if (opened_) ::closelog();
}

void SystemSink::onRecord(const MessageDef&, const Record& record) {
   if (!systemLogThere()) return;
   write_(LOG_DAEMON | static_cast<int>(record.severity), "%%%s-%d: %s", record.tag.c_str(),
          static_cast<int>(record.severity), record.text.c_str());
}

Log::~Log() {
   for (Sink* s : sinks_) std::erase(s->logs_, this);
}

void Log::sinkIs(Sink* sink) {
   if (sinkHas(sink)) return;
   sinks_.push_back(sink);
   sink->logs_.push_back(this);
}

void Log::sinkDel(Sink* sink) {
   if (!sinkHas(sink)) return;
   std::erase(sinks_, sink);
   std::erase(sink->logs_, this);
}

bool Log::sinkHas(const Sink* sink) const {
   return std::find(sinks_.begin(), sinks_.end(), sink) != sinks_.end();
}

void Log::logf(const MessageDef* def, ...) {
   if (sinks_.empty()) return;
   va_list args;
   va_start(args, def);
   Record r{def->tag, def->severity, Mox::vformat(def->format, args)};
   va_end(args);
   for (Sink* s : std::vector<Sink*>(sinks_)) {
      if (sinkHas(s)) s->onRecord(*def, r);
   }
}

Log& processLog() {
   // Never destroyed: a sink with static storage may unregister after this would otherwise have
   // been torn down at exit.
   static Log* log = new Log;
   return *log;
}

} // namespace Syslog
