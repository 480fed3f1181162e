// The system log: messages with a tag, a printf-style format, an explanation and a recommended
// action. Each message definition is a constant table row; a `Log` formats it once and hands the
// record to each of its sinks (standard error, an in-memory capture for the host and tests).
//
// Every policy core has a `Log` of its own, so two cores in one process never see each other's
// messages. `processLog()` is the log of code outside any core; the free `log` and `sinkIs`
// forms use it.
#pragma once

#include <chrono>
#include <string>
#include <type_traits>
#include <vector>

namespace Syslog {

enum class Severity { emergency, alert, critical, error, warning, notice, info, debug };
const char* severityName(Severity s);

struct MessageDef {
   const char* tag;
   Severity severity;
   const char* format;
   const char* explanation;
   const char* recommendedAction;
};

struct Record {
   std::string tag;
   Severity severity;
   std::string text;
};

class Log;

// A sink may outlive its logs or die first: either way the pair forgets each other.
class Sink {
 public:
   Sink() = default;
   Sink(const Sink&) = delete;
   Sink& operator=(const Sink&) = delete;
   virtual ~Sink();
   virtual void onRecord(const MessageDef& def, const Record& record) = 0;

 private:
   friend class Log;
   std::vector<Log*> logs_;
};

// Keeps every record (the host's `show syslog`, tests).
class Capture : public Sink {
 public:
   void onRecord(const MessageDef& def, const Record& record) override;
   const std::vector<Record>& records() const { return records_; }
   void clear() { records_.clear(); }

 private:
   std::vector<Record> records_;
};

// Writes "%TAG-severity: text" lines to standard error.
class StderrSink : public Sink {
 public:
   void onRecord(const MessageDef& def, const Record& record) override;
};

// Hands each record to the host's system log (syslog(3)) as "%TAG-severity: text", at the
// record's own severity (the two scales are the same, emergency 0 to debug 7). The ident is given
// once, for the whole process (openlog); `write` is ::syslog unless a test hands another.
//
// A host without a system log (no socket at `socket`, /dev/log unless a test names another file;
// containers and build machines often have none) gets nothing: syslog(3) would try to connect
// again for every record, four system calls each, which at a few hundred thousand records is
// seconds of an agent's start. Whether the socket is there is asked again once a second, so a
// system log started later is written from then on. A test that hands `write` and no `socket`
// has every record written.
class SystemSink : public Sink {
 public:
   using Write = void (*)(int priority, const char* format, ...);
   explicit SystemSink(const char* ident, Write write = nullptr, const char* socket = nullptr);
   ~SystemSink() override;
   void onRecord(const MessageDef& def, const Record& record) override;

 private:
   bool systemLogThere();

   Write write_;
   bool opened_;
   const char* socket_;
   bool there_ = false;
   std::chrono::steady_clock::time_point askAgainAt_{};
};

class Log {
 public:
   Log() = default;
   Log(const Log&) = delete;
   Log& operator=(const Log&) = delete;
   ~Log();

   // A sink is registered once however often it is given.
   void sinkIs(Sink* sink);
   void sinkDel(Sink* sink);
   bool sinkHas(const Sink* sink) const;

   // Formats `def.format` with the arguments (printf conventions) and hands the record to the
   // sinks. A sink may unregister itself or another while records are handed out.
   void logf(const MessageDef* def, ...);
   // The arguments travel through C varargs: only numbers, enumerations and C strings may be
   // passed (a std::string would be undefined behaviour, so it is refused at compile time).
   template <class... A>
   void log(const MessageDef& def, A... args) {
      static_assert(((std::is_arithmetic_v<A> || std::is_enum_v<A> || std::is_pointer_v<A>)&&...),
                    "Syslog::log takes numbers and C strings only");
      logf(&def, args...);
   }

 private:
   std::vector<Sink*> sinks_;
};

// The log of code that runs outside any policy core.
Log& processLog();

inline void sinkIs(Sink* sink) { processLog().sinkIs(sink); }
inline void sinkDel(Sink* sink) { processLog().sinkDel(sink); }
template <class... A>
void log(const MessageDef& def, A... args) {
   processLog().log(def, args...);
}

} // namespace Syslog
