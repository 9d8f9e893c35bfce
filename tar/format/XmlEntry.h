// One header as an XML element.
#pragma once

namespace morvane {

class CharsetDecoder;
struct Member;
class XString;

// Appends the element of a header: a member, or a record. `extensionData` (may be null) is the NUL-terminated
// data of an 'x' or 'L' header; names go through the decoder. For runs over many headers;
// TarHeader::toXmlEntry makes its own decoder.
void toXmlEntry(const Member& member, XString& xml, const char* extensionData, CharsetDecoder& decoder);

}  // namespace morvane
