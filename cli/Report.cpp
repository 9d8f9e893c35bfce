// Everything that mvtar says goes through here, so that no message stands in the progress bar and no problem
// leaves the status at 0.
#include "cli/Report.h"

#include <cerrno>
#include <cstring>

#include "cli/Names.h"
#include "cli/StandardStreams.h"
#include "tar/ClsTar.h"

namespace mvtar {

namespace {

// Long lists scroll away; this line is the last one.
constexpr char kClosingLine[] = "mvtar: not everything could be done; see the messages above\n";

bool startsWith(std::string_view text, std::string_view start) {
  return text.substr(0, start.size()) == start;
}

// Memory that ran out is called the same wherever it did. The system and the component have sentences of
// their own for it.
std::string_view plainReason(std::string_view reason) {
  const bool noMemory = startsWith(reason, "Out of memory") || reason == std::strerror(ENOMEM);
  return noMemory ? kOutOfMemory : reason;
}

// A line with a name as it is shown. In one piece, so that lines of several processes do not mix, but for a
// name so long that a copy of it is not to be made. `before` and `behind` are ours and stand as they are.
void writeLine(void (*write)(std::string_view), const std::string& before, std::string_view name,
               const std::string& behind) {
  constexpr size_t kInOnePiece = 4096;
  if (name.size() <= kInOnePiece) {
    write(before + shown(name) + behind + "\n");
    return;
  }
  // Piece by piece: a copy with its escapes would take four times the memory of the name.
  write(before);
  printShown(name, write);
  write(behind + "\n");
}

}  // namespace

// The bar is drawn anew with the next progress.
void Report::notice(std::string_view path, std::string_view text) {
  m_bar.clear();
  writeLine(writeToStandardError, "mvtar: ", path, ": " + std::string(text));
}

// What is named is named once; the closing line says that there was something.
void Report::problem(std::string_view path, std::string_view reason) {
  m_status = kNotAllDone;  // first: saying it takes memory
  notice(path, plainReason(reason));
}

// Without a path of its own a failure is about the archive.
void Report::failure(morvane::ClsTar& tar, const std::string& archive) {
  morvane::XString path, reason;
  tar.get_FailureCause(path, reason);
  // What is merely missing was named when it was left out.
  if (tar.get_OnlyLeftOut() && m_status == kNotAllDone) return;
  // The component may not even have been asked.
  if (reason.isEmpty() && m_status == kNotAllDone) return;
  problem(path.isEmpty() ? archive : path.str(), reason.isEmpty() ? "it failed" : reason.str());
}

// Both streams may be terminals, so the bar is cleared for either.
void Report::name(std::string_view name, const std::string& before, const std::string& behind) {
  m_bar.clear();
  writeLine(m_outputCarriesData ? writeToStandardError : StandardOutput::write, before, name, behind);
}

void Report::line(const std::string& text) { name("", text); }

void Report::text(std::string_view text) {
  m_bar.clear();
  StandardOutput::write(text);
}

// A problem goes before a difference: what was not done may hide more of them.
void Report::difference(std::string_view path, const std::string& what) {
  if (m_status == kDone) m_status = kDiffers;
  name(path, "", ": " + what);
}

// Standard error, since standard output may be the archive or a listing for a program.
void Report::totals(long long members, long long bytes) {
  m_bar.clear();
  writeToStandardError("mvtar: " + std::to_string(members) + " members, " + std::to_string(bytes) +
                       " bytes\n");
}

// The log ends in a line end of its own, and has escaped all but C1.
void Report::log(morvane::ClsTar& tar) {
  morvane::XString text;
  tar.get_LogText(text);
  m_bar.clear();
  writeToStandardError(withoutC1(text.str()));
}

// What could not be printed is a problem too, and known only now.
int Report::finish() {
  m_bar.clear();
  if (!StandardOutput::flush()) problem("standard output", std::strerror(StandardOutput::error()));
  if (m_status == kNotAllDone) writeToStandardError(kClosingLine);
  return m_status;
}

// Literals only.
int finishWithoutMemory() {
  StandardOutput::flush();
  writeToStandardError("mvtar: out of memory\n");
  writeToStandardError(kClosingLine);
  return kNotAllDone;
}

}  // namespace mvtar
