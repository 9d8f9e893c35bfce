// The frame around the elements of an XML listing (tar/XmlEntry.h makes the elements).
#pragma once

namespace morvane {

constexpr char kXmlListingStart[] = "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\r\n<tar>\r\n";
constexpr char kXmlListingEnd[] = "</tar>\r\n";

}  // namespace morvane
