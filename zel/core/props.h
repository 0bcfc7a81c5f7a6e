// CProps: a set of string-keyed properties with a text form.
//
// Properties keep the order in which their keys were first set. The text
// form (toString / fromString) round-trips any keys and values, including
// empty ones and ones containing quotes, backslashes, separators and line
// breaks:
//
//   "key1"="value1","key2"="value2"
//
// Each key and value is enclosed in double quotes; inside them a double quote
// is written \" and a backslash \\ (no other escapes exist). Entries are
// separated by a single comma; the empty set is the empty text. The form
// travels between processes inside stored errors, so it is part of the wire
// format and must not change.
#pragma once

#include <utility>
#include <vector>

#include "zel/core/string.h"

namespace zel {

class ZEL_API CProps {
 public:
  CProps() = default;

  bool has(const String& key) const;
  // The value of key, or defaultValue when it is not set.
  String get(const String& key, const String& defaultValue = String()) const;
  // The value of key as a decimal integer (an optional '-' and digits, in
  // range); defaultValue when it is not set or not such a number.
  int64 getInt64(const String& key, int64 defaultValue) const;
  // Sets key, replacing a previous value in place (keeping its position).
  void set(const String& key, const String& value);
  void setInt64(const String& key, int64 value);
  bool remove(const String& key);
  void clear() { m_entries.clear(); }

  int getCount() const { return static_cast<int>(m_entries.size()); }
  bool isEmpty() const { return m_entries.empty(); }
  const String& getKey(int index) const { return m_entries[index].first; }
  const String& getValue(int index) const { return m_entries[index].second; }

  String toString() const;
  // Throws CParseError (naming the offending offset, in characters, in its
  // message and in its parameter "offset") for text not produced by
  // toString(): a missing quote or separator, an unknown escape, a duplicate
  // key or trailing text. Blanks are not skipped anywhere, so a text that
  // parses is the canonical form of its properties: toString() gives it back.
  static CProps fromString(const String& text);

  bool operator==(const CProps& other) const { return m_entries == other.m_entries; }
  bool operator!=(const CProps& other) const { return !(*this == other); }

 private:
  std::vector<std::pair<String, String>> m_entries;
};

}  // namespace zel
