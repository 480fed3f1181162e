#include "agent/Script.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <istream>
#include <ostream>
#include <utility>
#include <vector>

#include "agent/Host.h"

namespace Agent {

namespace {
constexpr const char* kPrompt = "srte> ";
constexpr const char* kContinuationPrompt = "....> ";

// A line ending in a backslash (before any comment) continues on the next one.
bool continues(std::string& line) {
   size_t end = line.find('#');
   if (end == std::string::npos) end = line.size();
   while (end > 0 && (line[end - 1] == ' ' || line[end - 1] == '\t' || line[end - 1] == '\r')) {
      --end;
   }
   if (end == 0 || line[end - 1] != '\\') return false;
   line.resize(end - 1);
   line += ' ';
   return true;
}

// The physical lines of one command and the index of the first word each holds.
struct Piece {
   size_t lineNo;
   size_t firstToken;
};

size_t lineOf(const std::vector<Piece>& pieces, size_t token) {
   size_t line = pieces.front().lineNo;
   if (token == ScriptError::noToken) return line;
   for (const Piece& p : pieces) {
      if (p.firstToken > token) break;
      line = p.lineNo;
   }
   return line;
}
} // namespace

LineSource::Read StreamLines::next(std::string& line, bool continued) {
   if (ended_) return Read::end;
   if (promptOut_) *promptOut_ << (continued ? kContinuationPrompt : kPrompt) << std::flush;
   if (std::getline(*in_, line)) return Read::line;
   // End the prompt's line so the caller's shell starts on a fresh one.
   if (promptOut_) *promptOut_ << "\n";
   ended_ = true;
   return Read::end;
}

bool FileLines::fill() {
   if (pos_ > 0) {
      buffer_.erase(0, pos_);
      pos_ = 0;
   }
   char chunk[65536];
   for (;;) {
      const ssize_t n = ::read(fd_, chunk, sizeof chunk);
      if (n > 0) {
         buffer_.append(chunk, static_cast<size_t>(n));
         return true;
      }
      if (n == 0) return false;
      if (errno == EINTR) continue;
      throw ReadError("cannot read " + what_ + ": " + std::strerror(errno));
   }
}

LineSource::Read FileLines::next(std::string& line, bool continued) {
   if (promptOut_) *promptOut_ << (continued ? kContinuationPrompt : kPrompt) << std::flush;
   size_t searched = pos_;
   for (;;) {
      const size_t end = buffer_.find('\n', searched);
      if (end != std::string::npos) {
         if (std::exchange(skipping_, false)) {
            pos_ = end + 1;
            searched = pos_;
            continue;
         }
         if (end - pos_ > maxLineBytes) {
            pos_ = end + 1;
            return Read::tooLong;
         }
         line.assign(buffer_, pos_, end - pos_);
         pos_ = end + 1;
         return Read::line;
      }
      searched = buffer_.size();
      if (buffer_.size() - pos_ > maxLineBytes) {
         // No end in sight: drop what we have and the rest of the line as it comes.
         const bool wasSkipping = std::exchange(skipping_, true);
         buffer_.clear();
         pos_ = searched = 0;
         if (!wasSkipping) return Read::tooLong;
      }
      // fill() moves the unread bytes to the front: what was searched moves with them.
      const size_t consumed = pos_;
      if (eof_ || !fill()) {
         if (promptOut_ && pos_ >= buffer_.size()) *promptOut_ << "\n";
         if (std::exchange(skipping_, false)) pos_ = buffer_.size();
         eof_ = true;
         if (pos_ >= buffer_.size()) return Read::end;
         if (buffer_.size() - pos_ > maxLineBytes) {
            pos_ = buffer_.size();
            return Read::tooLong;
         }
         line.assign(buffer_, pos_, std::string::npos); // a last line without its newline
         pos_ = buffer_.size();
         return Read::line;
      }
      searched -= consumed;
   }
}

namespace {
// Where a script's messages go: the error stream, or, for `load`, the first error kept for the
// exception that stops it.
struct Reporter {
   std::ostream* err = nullptr;
   std::string name;
   bool located = true; // with the script's name and line
   Host* warningsTo = nullptr;
   std::string* firstError = nullptr;

   void report(size_t line, const char* kind, std::string_view what) const {
      const std::string where = located ? name + ":" + std::to_string(line) + ": " : std::string();
      if (firstError) {
         *firstError = name + ":" + std::to_string(line) + ": " + std::string(what);
         return;
      }
      *err << where << kind << ": " << what << std::endl;
   }
   void warn(size_t line, const std::string& what) const {
      if (warningsTo) {
         warningsTo->warn(name + ":" + std::to_string(line) + ": " + what);
         return;
      }
      report(line, "warning", what);
   }
};

constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";

int runLines(Host& host, LineSource& lines, const Reporter& reporter) {
   const bool interactive = lines.interactive();
   std::string line, command, typed;
   std::vector<Piece> pieces;
   size_t lineNo = 0;
   for (;;) {
      LineSource::Read r;
      try {
         r = lines.next(line, !command.empty());
      } catch (const ReadError& e) {
         if (reporter.firstError) throw ScriptError(e.what());
         *reporter.err << "srte: " << printable(e.what()) << std::endl;
         return exitCannotRun;
      }
      if (r == LineSource::Read::cancelled) {
         command.clear();
         typed.clear();
         pieces.clear();
         continue;
      }
      if (r == LineSource::Read::end) {
         if (command.empty()) break;
         // A backslash on the last line promised more: say so rather than guess.
         reporter.report(lineNo, "error",
                         "the command continued with '\\' but the input ends here");
         return interactive ? exitOk : exitRefused;
      }
      ++lineNo;
      if (r == LineSource::Read::tooLong) {
         reporter.report(lineNo, "error",
                         "line longer than " + std::to_string(maxLineBytes) +
                             " bytes: refused (is this a script?)");
         command.clear();
         typed.clear();
         pieces.clear();
         if (!interactive) return exitRefused;
         continue;
      }
      if (lineNo == 1 && line.starts_with(kByteOrderMark)) line.erase(0, kByteOrderMark.size());
      // Echoed as written, a continued command on its lines.
      if (host.echo()) {
         typed += (command.empty() ? kPrompt : kContinuationPrompt) + printable(line) + "\n";
      }
      pieces.push_back(Piece{lineNo, tokenize(command).size()});
      const bool more = continues(line);
      command += line;
      if (more) continue;
      bool failed = false;
      if (host.echo() && !tokenize(command).empty()) host.out() << typed;
      typed.clear();
      try {
         host.execute(command);
      } catch (const ScriptError& e) {
         reporter.report(lineOf(pieces, e.token()), "error", e.what());
         failed = true;
      } catch (const std::exception& e) {
         // Parsing validates every value, so this is a fault of the host or the core; say so
         // rather than pretend it was the script's.
         reporter.report(pieces.front().lineNo, "internal error", printable(e.what()));
         failed = true;
      }
      for (const std::string& w : host.takeWarnings()) reporter.warn(pieces.front().lineNo, w);
      host.out().flush();
      lines.commandDone(command);
      command.clear();
      pieces.clear();
      if (failed && !interactive) return exitRefused;
      if (host.quitRequested()) break;
   }
   return exitOk;
}
} // namespace

int runScript(Host& host, LineSource& lines, std::ostream& err, const ScriptOptions& options) {
   Reporter reporter;
   reporter.err = &err;
   reporter.name = options.name;
   // At a prompt the session's line count means nothing; a file's line does.
   reporter.located = !lines.interactive() || options.name != "<stdin>";
   const bool echo = host.echo();
   host.echoIs(options.echo);
   const int status = runLines(host, lines, reporter);
   host.echoIs(echo);
   return status;
}

void loadFile(Host& host, const std::string& path) {
   if (host.loadDepth() >= maxLoadDepth) {
      throw ScriptError("'load' nested more than " + std::to_string(maxLoadDepth) +
                        " deep: do the files load each other?");
   }
   const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
   if (fd < 0) throw ScriptError("cannot open '" + path + "': " + std::strerror(errno));
   std::string firstError;
   Reporter reporter;
   reporter.name = path;
   reporter.warningsTo = &host;
   reporter.firstError = &firstError;
   ++host.loadDepth();
   int status = exitOk;
   try {
      FileLines lines(fd, "'" + path + "'");
      status = runLines(host, lines, reporter);
   } catch (...) {
      --host.loadDepth();
      ::close(fd);
      throw;
   }
   --host.loadDepth();
   ::close(fd);
   if (status != exitOk) {
      throw ScriptError(firstError + " (the load stopped there; the lines before it have run)");
   }
}

int runScript(Host& host, std::istream& in, std::ostream& err, const ScriptOptions& options,
              bool interactive) {
   if (interactive) {
      StreamLines lines(in, host.out());
      return runScript(host, lines, err, options);
   }
   StreamLines lines(in);
   return runScript(host, lines, err, options);
}

} // namespace Agent
