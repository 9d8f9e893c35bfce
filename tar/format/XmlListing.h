// The frame around the elements of an XML listing (tar/format/XmlEntry.h makes the elements).
#pragma once

#include "runtime/text/XString.h"

namespace morvane {

// Lines end in CR LF. The encoding is always UTF-8, because names are decoded before they are listed.
constexpr char kXmlListingStart[] = "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\r\n<tar>\r\n";
constexpr char kXmlListingEnd[] = "</tar>\r\n";

// Nothing leaves it: it also runs while an exception does. Without memory for it the listing stays open,
// which a parser tells. It is called behind a failure, too, so that what was listed before is well-formed.
inline void endXmlListing(XString& listing) noexcept {
  try {
    listing.appendUtf8(kXmlListingEnd);
  } catch (...) {
  }
}

}  // namespace morvane
