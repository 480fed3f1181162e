#include "agent/Script.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <istream>
#include <ostream>
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

LineSource::Read FileLines::next(std::string& line, bool) {
   for (;;) {
      const size_t end = buffer_.find('\n', pos_);
      if (end != std::string::npos) {
         line.assign(buffer_, pos_, end - pos_);
         pos_ = end + 1;
         return Read::line;
      }
      if (eof_ || !fill()) {
         eof_ = true;
         if (pos_ >= buffer_.size()) return Read::end;
         line.assign(buffer_, pos_, std::string::npos); // a last line without its newline
         pos_ = buffer_.size();
         return Read::line;
      }
   }
}

int runScript(Host& host, LineSource& lines, std::ostream& err, const ScriptOptions& options) {
   const bool interactive = lines.interactive();
   std::string line, command;
   std::vector<Piece> pieces;
   size_t lineNo = 0;
   auto report = [&](size_t at, const char* kind, const char* what) {
      err << options.name << ":" << at << ": " << kind << ": " << what << std::endl;
   };
   for (;;) {
      LineSource::Read r;
      try {
         r = lines.next(line, !command.empty());
      } catch (const ReadError& e) {
         err << "srte: " << printable(e.what()) << std::endl;
         return exitCannotRun;
      }
      if (r == LineSource::Read::cancelled) {
         command.clear();
         pieces.clear();
         continue;
      }
      if (r == LineSource::Read::end) {
         if (command.empty()) break;
         // A backslash on the last line promised more: say so rather than guess.
         report(lineNo, "error", "the command continued with '\\' but the input ends here");
         return interactive ? exitOk : exitRefused;
      }
      ++lineNo;
      pieces.push_back(Piece{lineNo, tokenize(command).size()});
      const bool more = continues(line);
      command += line;
      if (more) continue;
      bool failed = false;
      try {
         host.execute(command);
      } catch (const ScriptError& e) {
         report(lineOf(pieces, e.token()), "error", e.what());
         failed = true;
      } catch (const std::exception& e) {
         // Parsing validates every value, so this is a fault of the host or the core; say so
         // rather than pretend it was the script's.
         report(pieces.front().lineNo, "internal error", printable(e.what()).c_str());
         failed = true;
      }
      host.out().flush();
      lines.commandDone(command);
      command.clear();
      pieces.clear();
      if (failed && !interactive) return exitRefused;
      if (host.quitRequested()) break;
   }
   return exitOk;
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
