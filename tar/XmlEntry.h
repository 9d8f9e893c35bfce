// One header as an XML element.
#pragma once

namespace morvane {

class CharsetDecoder;
class LogBase;
class StringBuffer;
class TarHeader;
class XString;

// Appends the element of a header. `extensionData` (may be null) is the NUL-terminated data of an 'x' or 'L'
// header; names go through the decoder. Well-formed for any bytes: docs/xml-listing.md tells how they are
// written.
void toXmlEntry(const TarHeader& header, XString& xml, const char* extensionData, CharsetDecoder& decoder);

// The fields of a raw block in quoted-printable form, "name=...;" and so on. Never holds "]]>".
void getFieldsQP(const unsigned char* block, StringBuffer& out);

// Logs the fields of a block that could not be parsed.
void debugLogTarHeader(const unsigned char* block, LogBase& log);

}  // namespace morvane
