// line_reader.h -- lines from a file, a socket or memory, each at most
// `maxLine` bytes.  The scenario files of `hyksim run` and the requests of
// `hyksim serve` are read with it, so that neither a line without end
// (`run /dev/zero`, a peer that never sends a newline) nor a read error can
// pass for something else: a line too long is refused and skipped up to its
// newline without being kept, a read error is an error and never an end of
// file.  Each byte is looked at once: finding a line's end costs its length,
// however many reads it came in.
#pragma once

#include <sys/types.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>

namespace hyksimtool {

class LineReader {
  public:
   // Fills up to `n` bytes: returns how many, 0 at the end, -1 with errno on an error.
   using Source = std::function<ssize_t(char *buf, size_t n)>;

   enum Result {
      kLine,      // *line holds the next line, without its newline
      kEnd,       // the source ended
      kTooLong,   // the next line is longer than maxLine bytes: skipped up to its newline
      kError,     // the source failed: error() is its errno
   };

   // `lastLineWithoutNewline`: bytes after the last newline are a line of
   // their own (a file's last line); otherwise they are dropped (a request
   // whose sender went away before it ended it).
   LineReader(Source source, size_t maxLine, bool lastLineWithoutNewline = true)
      : source_(std::move(source)), maxLine_(maxLine), lastLine_(lastLineWithoutNewline) {}

   Result Next(std::string *line) {
      for (;;) {
         const size_t nl = buf_.find('\n', scan_);
         if (nl != std::string::npos) {
            const size_t from = pos_;
            pos_ = scan_ = nl + 1;
            const bool skipped = skipping_;
            skipping_ = false;
            if (skipped) continue;   // the end of a line refused already
            if (nl - from > maxLine_) return kTooLong;
            line->assign(buf_, from, nl - from);
            return kLine;
         }
         // No newline in [pos_, end): keep the partial line alone, or drop it.
         if (skipping_) {
            buf_.clear();
         } else if (buf_.size() - pos_ > maxLine_) {
            skipping_ = true;
            buf_.clear();
            pos_ = scan_ = 0;
            return kTooLong;
         } else {
            buf_.erase(0, pos_);
         }
         pos_ = 0;
         scan_ = buf_.size();
         // A long line's memory goes back once it has gone.
         if (buf_.capacity() > 4 * kChunk && buf_.size() < kChunk) std::string(buf_).swap(buf_);
         if (ended_) {
            if (buf_.empty() || skipping_ || !lastLine_) return kEnd;
            line->swap(buf_);
            buf_.clear();
            scan_ = 0;
            return kLine;
         }
         char chunk[kChunk];
         const ssize_t n = source_(chunk, sizeof chunk);
         if (n < 0) {
            if (errno == EINTR) continue;
            error_ = errno;
            return kError;
         }
         if (n == 0) {
            ended_ = true;
            continue;
         }
         buf_.append(chunk, static_cast<size_t>(n));
      }
   }

   int error() const { return error_; }
   // Bytes held now (a partial line): what the reader costs its owner.
   size_t held() const { return buf_.capacity(); }

  private:
   static constexpr size_t kChunk = 16384;
   Source source_;
   size_t maxLine_;
   bool lastLine_;
   std::string buf_;
   size_t pos_ = 0;     // where the next line begins
   size_t scan_ = 0;    // bytes before this have no newline (from pos_ on)
   bool skipping_ = false;
   bool ended_ = false;
   int error_ = 0;
};

}  // namespace hyksimtool
