// One header as an XML element.
#pragma once

namespace morvane {

class CharsetDecoder;
struct Member;
class XString;

// Appends the element of a header: a member, or a record. `extensionData` (may be null) is the NUL-terminated
// data of an 'x' or 'L' header; names go through the decoder. For runs over many headers;
// TarHeader::toXmlEntry makes its own decoder. The result is well-formed for any bytes. A name that holds
// what XML 1.0 cannot (control characters, bytes that are no UTF-8) has its element marked escaped="true" and
// such bytes written \xHH. Throws std::bad_alloc only; `xml` may then end in part of an element.
void toXmlEntry(const Member& member, XString& xml, const char* extensionData, CharsetDecoder& decoder);

}  // namespace morvane
