// Runs scenario lines against a Host.
//
// Lines come from a LineSource: a file or standard input read as a script, a string (tests, the
// built-in demo) or the interactive shell (agent/Shell.h). A script stops at its first error; the
// shell reports errors and reads on. Errors are written as "<name>:<line>: error: <what>" (at the
// shell's prompt as "error: <what>": the session's line count means nothing to the person typing).
// A line that ends in a backslash continues on the next one; an error names the line holding the
// word at fault, and input that ends in the middle of a continued command is an error. A byte-order
// mark at the start of the input is skipped; a line longer than maxLineBytes is refused.
#pragma once

#include <iosfwd>
#include <stdexcept>
#include <string>

namespace Agent {

class Host;

// The exit statuses of srte.
enum ExitStatus : int {
   exitOk = 0,        // every command ran
   exitRefused = 1,   // the script stopped at a command it refused
   exitCannotRun = 2, // bad arguments, or the input could not be opened or read
};

// The input cannot be read (a directory, an I/O error): not the script's fault, and not an
// empty script either.
class ReadError : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

// The longest line a script may have: garbage without newlines (a device, a binary) must not
// grow the process without bound.
constexpr size_t maxLineBytes = size_t{1} << 20;

class LineSource {
 public:
   // `tooLong`: the line exceeds maxLineBytes; its bytes are dropped up to its end.
   enum class Read { line, end, cancelled, tooLong };
   virtual ~LineSource() = default;
   // Reads the next line, without its end, into `line`. `continued`: the line before asked for
   // more (a shell shows another prompt). `cancelled` (an interactive interrupt) drops the
   // command being typed. Throws ReadError.
   virtual Read next(std::string& line, bool continued) = 0;
   // Errors do not end an interactive session.
   virtual bool interactive() const { return false; }
   // Called once a command has run: a shell takes its interrupt back and keeps history here.
   virtual void commandDone(const std::string& /*command*/) {}
};

// Lines of a C++ stream (strings in tests, the demo). With `prompt`, an interactive session that
// prints prompts on `promptOut`.
class StreamLines : public LineSource {
 public:
   explicit StreamLines(std::istream& in) : in_(&in) {}
   StreamLines(std::istream& in, std::ostream& promptOut) : in_(&in), promptOut_(&promptOut) {}
   Read next(std::string& line, bool continued) override;
   bool interactive() const override { return promptOut_ != nullptr; }

 private:
   std::istream* in_;
   std::ostream* promptOut_ = nullptr;
   bool ended_ = false;
};

// Lines of a file descriptor, read with read(2) so that a directory or an I/O error is reported
// rather than taken for the end of the input. `what` names the input in errors. With `promptOut`,
// an interactive session (errors do not end it) that prints prompts there.
class FileLines : public LineSource {
 public:
   FileLines(int fd, std::string what, std::ostream* promptOut = nullptr)
       : fd_(fd), what_(std::move(what)), promptOut_(promptOut) {}
   Read next(std::string& line, bool continued) override;
   bool interactive() const override { return promptOut_ != nullptr; }

 private:
   bool fill();
   int fd_;
   std::string what_;
   std::ostream* promptOut_;
   std::string buffer_;
   size_t pos_ = 0;
   bool eof_ = false;
   bool skipping_ = false; // dropping the rest of an overlong line
};

struct ScriptOptions {
   std::string name; // shown in error messages: a file name, or "<stdin>"
   // Each command is printed (after the prompt string) before its output, as shells trace.
   bool echo = false;
};

// Returns the exit status (ExitStatus).
int runScript(Host& host, LineSource& lines, std::ostream& err, const ScriptOptions& options);

// A stream as a script, or, when `interactive`, as a session with prompts on host.out().
int runScript(Host& host, std::istream& in, std::ostream& err, const ScriptOptions& options,
              bool interactive = false);

// `load FILE`: runs the file's commands in the host's session. Its warnings become the host's.
// The first refused line stops it: throws ScriptError naming the file and line (the lines before
// it have run). Files that load each other stop at a depth of maxLoadDepth.
constexpr int maxLoadDepth = 16;
void loadFile(Host& host, const std::string& path);

} // namespace Agent
