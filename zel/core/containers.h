// The library's thin containers over the standard ones. They add
// bounds-checked access (CBadCollPositionError) and the few helpers the
// library uses; everything else is the standard container's own interface.
#pragma once

#include <algorithm>
#include <cstring>
#include <list>
#include <map>
#include <set>
#include <type_traits>
#include <vector>

#include "zel/core/buffer.h"
#include "zel/core/export.h"
#include "zel/core/types.h"

namespace zel {

// Throws CBadCollPositionError; kept out of line so the templates need not
// include the error headers.
[[noreturn]] ZEL_API void throwBadCollPosition();

template <class T>
class TArray : public std::vector<T> {
 public:
  using std::vector<T>::vector;

  int getCount() const { return static_cast<int>(this->size()); }
  bool isEmpty() const { return this->empty(); }
  void add(const T& value) { this->push_back(value); }
  void add(T&& value) { this->push_back(std::move(value)); }

  // Checked access: a position outside [0, getCount()) throws.
  T& getAt(int index) {
    checkIndex(index);
    return (*this)[static_cast<size_t>(index)];
  }
  const T& getAt(int index) const {
    checkIndex(index);
    return (*this)[static_cast<size_t>(index)];
  }
  void removeAt(int index) {
    checkIndex(index);
    this->erase(this->begin() + index);
  }
  void insertAt(int index, const T& value) {
    if (index < 0 || index > getCount()) throwBadCollPosition();
    this->insert(this->begin() + index, value);
  }
  // The index of the first element equal to value, or -1.
  int indexOf(const T& value) const {
    auto it = std::find(this->begin(), this->end(), value);
    return it == this->end() ? -1 : static_cast<int>(it - this->begin());
  }

 private:
  void checkIndex(int index) const {
    if (index < 0 || index >= getCount()) throwBadCollPosition();
  }
};

template <class K, class V, class Compare = std::less<K>>
class TMap : public std::map<K, V, Compare> {
 public:
  using std::map<K, V, Compare>::map;

  int getCount() const { return static_cast<int>(this->size()); }
  bool contains(const K& key) const { return this->find(key) != this->end(); }
  // The value of key, or null.
  V* lookup(const K& key) {
    auto it = this->find(key);
    return it == this->end() ? nullptr : &it->second;
  }
  const V* lookup(const K& key) const {
    auto it = this->find(key);
    return it == this->end() ? nullptr : &it->second;
  }
};

template <class T, class Compare = std::less<T>>
class TSet : public std::set<T, Compare> {
 public:
  using std::set<T, Compare>::set;

  int getCount() const { return static_cast<int>(this->size()); }
  bool contains(const T& value) const { return this->find(value) != this->end(); }
};

template <class T>
class TList : public std::list<T> {
 public:
  using std::list<T>::list;

  int getCount() const { return static_cast<int>(this->size()); }
  bool isEmpty() const { return this->empty(); }
};

}  // namespace zel
