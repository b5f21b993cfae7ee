// SPDX-License-Identifier: MIT
#include "log.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>

namespace vela::daemon {
namespace {

// Set once by main() before the loop starts; velad has one thread.
bool& verbose() {
  static bool on = false;
  return on;
}

// Enough to recognise a value by; a client cannot flood the log with one.
constexpr std::size_t kMaxPrintableLength = 200;

constexpr std::string_view kHex = "0123456789abcdef";

// A pipe takes a write of up to PIPE_BUF bytes whole.
static_assert(kMaxLogLineBytes <= PIPE_BUF, "a log line must reach a pipe in one piece");

void appendEscaped(std::string& out, unsigned char byte) {
  out += "\\x";
  out += kHex[byte >> 4U];
  out += kHex[byte & 0xfU];
}

// The length of the well-formed UTF-8 sequence at the start of `text`, or 0.
// C1 controls (U+0080..U+009F) count as malformed: some terminals take
// U+009B as the start of an escape sequence, as they take ESC [.
std::size_t utf8SequenceLength(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text[0]);
  std::size_t length = 0;
  char32_t codePoint = 0;
  if (lead >= 0xc2 && lead <= 0xdf) {
    length = 2;
    codePoint = lead & 0x1fU;
  } else if (lead >= 0xe0 && lead <= 0xef) {
    length = 3;
    codePoint = lead & 0x0fU;
  } else if (lead >= 0xf0 && lead <= 0xf4) {
    length = 4;
    codePoint = lead & 0x07U;
  } else {
    return 0;
  }
  if (text.size() < length) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    const auto next = static_cast<unsigned char>(text[i]);
    if ((next & 0xc0U) != 0x80U) return 0;
    codePoint = (codePoint << 6U) | (next & 0x3fU);
  }
  // Overlong forms, surrogates, and C1 controls.
  static constexpr std::array<char32_t, 5> kSmallest = {0, 0, 0x80, 0x800, 0x10000};
  if (codePoint < kSmallest.at(length) || (codePoint >= 0xd800 && codePoint <= 0xdfff) || codePoint > 0x10ffff ||
      (codePoint >= 0x80 && codePoint <= 0x9f)) {
    return 0;
  }
  return length;
}

// Appends `text` with every byte that could end, forge or colour a line
// escaped. `escapeBackslash` makes the escaping reversible, for text of
// unknown origin; velad's own lines keep their backslashes as they are.
void appendSafe(std::string& out, std::string_view text, bool escapeBackslash) {
  for (std::size_t i = 0; i < text.size();) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte >= 0x80) {
      const std::size_t length = utf8SequenceLength(text.substr(i));
      if (length == 0) {
        appendEscaped(out, byte);
        ++i;
      } else {
        out.append(text.substr(i, length));
        i += length;
      }
      continue;
    }
    if (text[i] == '\\' && escapeBackslash) {
      out += "\\\\";
    } else if (text[i] == '\n') {
      out += "\\n";
    } else if (byte < 0x20 || byte == 0x7f) {
      appendEscaped(out, byte);
    } else {
      out += text[i];
    }
    ++i;
  }
}

// Cuts `line` to at most `limit` bytes, on a character boundary.
void cutTo(std::string& line, std::size_t limit) {
  if (line.size() <= limit) return;
  std::size_t end = limit;
  while (end > 0 && (static_cast<unsigned char>(line[end]) & 0xc0U) == 0x80U) --end;
  line.resize(end);
}

}  // namespace

std::string printable(std::string_view text) {
  std::string out;
  std::string_view kept = text.substr(0, kMaxPrintableLength);
  // Not in the middle of a character: the cut part would read as malformed.
  if (kept.size() < text.size()) {
    std::size_t end = kept.size();
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xc0U) == 0x80U) --end;
    kept = kept.substr(0, end);
  }
  appendSafe(out, kept, true);
  if (kept.size() < text.size()) out += "... (" + std::to_string(text.size()) + " bytes)";
  return out;
}

void setVerboseLogging(bool on) { verbose() = on; }

bool logs(LogLevel level) { return level <= LogLevel::kNotice || verbose(); }

void log(LogLevel level, std::string_view text) {
  if (!logs(level)) return;
  std::string line = "<";
  line.append(std::to_string(static_cast<int>(level))).append(">");
  appendSafe(line, text, false);
  static constexpr std::string_view kCut = " [cut]";
  // Room for the line break.
  if (line.size() > kMaxLogLineBytes - 1) {
    cutTo(line, kMaxLogLineBytes - 1 - kCut.size());
    line += kCut;
  }
  line += '\n';
  // One write per line: a line shorter than PIPE_BUF reaches a pipe whole,
  // never interleaved with another writer's. Nowhere to report a failed
  // write to the log.
  std::string_view left = line;
  while (!left.empty()) {
    const ssize_t written = ::write(STDERR_FILENO, left.data(), left.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    left.remove_prefix(static_cast<std::size_t>(written));
  }
}

void logLines(LogLevel level, std::string_view text) {
  if (!logs(level)) return;
  std::size_t written = 0;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    if (!line.empty()) {
      if (written == kMaxLogLines) {
        log(level, "[further lines left out]");
        return;
      }
      log(level, line);
      ++written;
    }
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
}

}  // namespace vela::daemon
