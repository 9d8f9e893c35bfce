// An 8-bit byte string, UTF-8 in this library. Bytes are kept as they are; a NUL byte inside counts in
// getSize() but ends the text that getString() shows.
//
// Memory: what builds or copies text throws std::bad_alloc when there is none and leaves the old text
// unchanged; nothing between here and the frame of a method swallows that. The results of the building
// operations are true.
#pragma once

#include <string>

#include "runtime/base/MorvaneObject.h"

namespace morvane {

class ExtPtrArraySb;

// A value: copies are independent. One thread at a time. Positions and lengths are bytes. It derives from
// the base of records, so that an owning array can hold it.
class MORVANE_API StringBuffer : public MorvaneObject {
 public:
  StringBuffer() = default;
  // Null counts as empty.
  StringBuffer(const char* text) : m_text(text ? text : "") {}
  StringBuffer(std::string text) : m_text(std::move(text)) {}
  StringBuffer(const StringBuffer&) = default;
  StringBuffer& operator=(const StringBuffer&) = default;
  StringBuffer& operator=(const char* text);
  StringBuffer& operator=(const std::string& text);

  // A new heap buffer, null when there is no memory. The caller hands it to an owning array or deletes it.
  // For callers that handle pointers; nothing is thrown.
  static StringBuffer* createNewSB();
  static StringBuffer* createNewSB(const char* text);

  // Null text counts as empty.
  bool setString(const char* text);
  bool append(const char* text);
  // Numbers are appended in decimal, negative ones with a "-".
  bool append(int value);
  bool append(unsigned value);
  // One byte, a NUL too.
  bool appendChar(char c);
  // n times the same byte.
  bool appendCharN(char c, unsigned n);
  // Decimal.
  bool appendInt64(long long value);
  // Exactly n bytes, NULs included.
  bool appendN(const char* bytes, unsigned n);

  // For long texts that are not needed here any more.
  void swap(std::string& text) noexcept { m_text.swap(text); }

  // Valid until the text changes, never null.
  const char* getString() const { return m_text.c_str(); }
  const std::string& str() const { return m_text; }
  // In bytes, which 32 bits must hold.
  unsigned getSize() const { return static_cast<unsigned>(m_text.size()); }
  bool isEmpty() const { return m_text.empty(); }

  // clear() gives the memory back, weakClear() keeps it for the next text.
  void clear();
  void weakClear() { m_text.clear(); }

  // Null counts as empty.
  bool equals(const char* text) const { return m_text == (text ? text : ""); }
  // Byte for byte. The text must not be null.
  bool beginsWith(const char* text) const;

  void trim2();        // removes white space (ASCII) at both ends
  void toLowerCase();  // ASCII letters only
  // Keeps only what follows the last "/" or back slash.
  void stripDirectory();
  // Removes n bytes from the front, all of them when there are fewer.
  void removeFront(unsigned n);

  // Replaces every / the first occurrence of a non-empty text; the result is the number of replacements.
  // `ignoreCase` compares ASCII letters without regard to case.
  int replaceAllOccurances(const char* from, const char* to);
  bool replaceFirstOccurance(const char* from, const char* to, bool ignoreCase);
  // Bytes: both are to be ASCII. Every occurrence.
  void replaceChar(char from, char to);

  // Appends the parts between separators to the array. `skipEmpty` leaves empty parts out, `trimParts` trims
  // each part first. Text without a separator is one part; empty text has no part.
  bool split(ExtPtrArraySb& parts, char separator, bool skipEmpty, bool trimParts) const;

  // Capacity, in bytes.
  unsigned long long heapUsage() const override;

 private:
  std::string m_text;
};

}  // namespace morvane
