// KvrsBridgeTopic.h - how node names become MQTT topic levels and back.
//
// A node name is any run of bytes without NUL, including the empty name, ".",
// "/" and bytes that are not UTF-8. A topic level must be UTF-8 without "/",
// and a published topic may not hold the wildcards "+" and "#". So each name is
// escaped on its own, and every name round-trips exactly:
//   - bytes 0x21..0x7e other than '%', '/', '+', '#' stand for themselves;
//   - every other byte (space, control bytes, '%', '/', '+', '#', 0x7f..0xff)
//     is '%' and two upper-case hex digits ("a/b" -> "a%2F b" without space);
//   - the empty name is the level "%" alone, which no other name produces.
// Levels are decoded leniently: lower-case hex digits are accepted, and bytes
// that would be escaped are taken as they come (a plain client publishing
// "kvrs/plant/température" reaches the node named in UTF-8). A '%' that is
// neither alone nor followed by two hex digits makes the topic unusable.
#pragma once

#include <string>
#include <vector>

// One node name as one topic level.
std::string KvrsBridgeEscapeName(const std::string& strName);
// One topic level back to the node name; false when it is malformed.
bool KvrsBridgeUnescapeLevel(const std::string& strLevel, std::string& strName);

// Names from the root to a node (a dotted path's names, or a walk's) as the
// topic levels joined with "/", the key by which the bridge knows a node.
std::string KvrsBridgeKeyOf(const std::vector<std::string>& vstrNames);
// The key back to names; false when a level is malformed. The empty key is no
// names (the root).
bool KvrsBridgeNamesOf(const std::string& strKey, std::vector<std::string>& vstrNames);

// The key of a topic under strRoot ("kvrs/plant/x" -> "plant/x"); false when
// the topic is not below the root.
bool KvrsBridgeKeyOfTopic(const std::string& strRoot, const std::string& strTopic, std::string& strKey);
// True when strKey is strPrefix itself or lies below it.
bool KvrsBridgeKeyWithin(const std::string& strKey, const std::string& strPrefix);
