// The system log: messages with a tag, a printf-style format, an explanation and a recommended
// action. Each message definition is a constant table row; `Syslog::log` formats it once and hands
// the record to every registered sink (standard error, an in-memory capture for the host and
// tests).
#pragma once

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

class Sink {
 public:
   virtual ~Sink();
   virtual void onRecord(const MessageDef& def, const Record& record) = 0;
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

void sinkIs(Sink* sink);
void sinkDel(Sink* sink);

// Formats `def.format` with the arguments (printf conventions) and hands the record to the sinks.
void logf(const MessageDef* def, ...);
// The arguments travel through C varargs: only numbers, enumerations and C strings may be passed
// (a std::string would be undefined behaviour, so it is refused at compile time).
template <class... A>
void log(const MessageDef& def, A... args) {
   static_assert(((std::is_arithmetic_v<A> || std::is_enum_v<A> || std::is_pointer_v<A>)&&...),
                 "Syslog::log takes numbers and C strings only");
   logf(&def, args...);
}

} // namespace Syslog
