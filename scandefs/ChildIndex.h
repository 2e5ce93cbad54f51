#pragma once
#include <cstddef>
#include <unordered_map>
#include <vector>

#include "core/Names.h"
#include "scandefs/ScanGroup.h"

// Finds the children of large groups by name without walking the sibling
// list, which made merging many items into one group quadratic. It lives
// while one file is read. Before each use a group's table takes in the
// children appended since (a list keeps its elements in place, and groups
// are only ever appended while a file is read), so children added by anyone
// else in between are found too.
class CChildIndex {
 public:
  CScanGroup_imp* Find(CScanGroup_imp& parent, const wchar_t* name, size_t length) {
    if (parent.m_children.size() < kIndexFrom) return parent.FindChild(name, length);
    Table& table = Update(parent);
    size_t mask = table.slots.size() - 1;
    for (size_t i = Hash(name, length) & mask;; i = (i + 1) & mask) {
      CScanGroup_imp* child = table.slots[i];
      if (!child) return nullptr;
      if (broom::EqualNoCase(child->m_name.GetString(), static_cast<size_t>(child->m_name.GetLength()), name,
                             length))
        return child;
    }
  }

 private:
  static constexpr size_t kIndexFrom = 16;  // below that a walk is as quick

  struct Table {
    CScanGroup_imp* parent = nullptr;
    size_t indexed = 0;  // children taken in, from the front of the list
    std::vector<CScanGroup_imp*> slots;  // open addressing, at most half full
  };

  static size_t Hash(const wchar_t* name, size_t length) {
    size_t hash = 2166136261u;
    for (size_t i = 0; i < length; ++i) hash = (hash ^ broom::FoldCase(name[i])) * 16777619u;
    return hash;
  }

  // Takes child in unless an earlier sibling has the same name (FindChild answers the first).
  static void Insert(Table& table, CScanGroup_imp& child) {
    size_t mask = table.slots.size() - 1;
    const CString& name = child.m_name;
    for (size_t i = Hash(name.GetString(), static_cast<size_t>(name.GetLength())) & mask;; i = (i + 1) & mask) {
      CScanGroup_imp*& slot = table.slots[i];
      if (!slot) {
        slot = &child;
        return;
      }
      if (broom::EqualNoCase(slot->m_name.GetString(), static_cast<size_t>(slot->m_name.GetLength()),
                             name.GetString(), static_cast<size_t>(name.GetLength())))
        return;
    }
  }

  Table& Update(CScanGroup_imp& parent) {
    Table* table = &m_tables[&parent];
    table->parent = &parent;
    size_t count = parent.m_children.size();
    if (count == table->indexed) return *table;
    size_t capacity = table->slots.size();
    if (count < table->indexed || count * 2 > capacity) {
      // start again, with room to grow
      while (capacity < count * 4) capacity = capacity ? capacity * 2 : 64;
      table->slots.assign(capacity, nullptr);
      table->indexed = 0;
    }
    // the children not yet taken in are the last count - indexed ones
    auto it = parent.m_children.begin();
    if (table->indexed > 0) {
      it = parent.m_children.end();
      for (size_t i = table->indexed; i < count; ++i) --it;
    }
    for (; it != parent.m_children.end(); ++it) Insert(*table, *it);
    table->indexed = count;
    return *table;
  }

  std::unordered_map<CScanGroup_imp*, Table> m_tables;
};
