#pragma once
// A pool of character blocks for texts that cross threads: blocks are carved
// one after another out of fixed units, and a unit is reused from its start
// as soon as every block handed out from it has come back. Alloc and Free are
// callable from any thread.
#include <windows.h>

#include <cstddef>
#include <iterator>
#include <list>
#include <memory>

#include "core/Handles.h"

template <class T, size_t N>
struct TStorageUnit {
  TStorageUnit() : m_buffer(new T[N]), m_pCur(m_buffer.get()), m_liveBlocks(0) {}

  size_t FreeCount() const { return N - static_cast<size_t>(m_pCur - m_buffer.get()); }
  bool Holds(const T* p) const { return p >= m_buffer.get() && p < m_buffer.get() + N; }

  std::unique_ptr<T[]> m_buffer;
  T* m_pCur;            // first free element
  LONG m_liveBlocks;    // blocks handed out and not yet returned
};

template <class T>
class TCharArrayAlloc {
 public:
  static constexpr size_t kUnitSize = 4096;
  using Unit = TStorageUnit<T, kUnitSize>;

  TCharArrayAlloc() = default;
  TCharArrayAlloc(const TCharArrayAlloc&) = delete;
  TCharArrayAlloc& operator=(const TCharArrayAlloc&) = delete;

  // A block of count elements. A request larger than a unit gets a block of
  // its own, released as soon as it is freed.
  T* Alloc(size_t count) {
    if (count == 0) count = 1;  // every block must lie inside its unit to be found again
    if (count > kUnitSize) {
      std::unique_ptr<T[]> block(new T[count]);
      broom::critical_section_lock lock(m_cs);
      m_large.push_front(std::move(block));
      return m_large.front().get();
    }
    broom::critical_section_lock lock(m_cs);
    for (Unit& unit : m_units)
      if (unit.FreeCount() >= count) return Carve(unit, count);
    m_units.emplace_front();
    return Carve(m_units.front(), count);
  }

  // Returns a block from Alloc; anything else is ignored.
  void Free(T* block) {
    std::unique_ptr<T[]> large;  // released after the lock is left
    broom::critical_section_lock lock(m_cs);
    for (auto it = m_units.begin(); it != m_units.end(); ++it) {
      if (!it->Holds(block)) continue;
      if (--it->m_liveBlocks == 0) {
        it->m_pCur = it->m_buffer.get();
        m_units.splice(m_units.begin(), m_units, it);
      }
      return;
    }
    for (auto it = m_large.begin(); it != m_large.end(); ++it) {
      if (it->get() != block) continue;
      large = std::move(*it);
      m_large.erase(it);
      return;
    }
  }

  // Inspection, for diagnostics: units in list order.
  size_t UnitCount() {
    broom::critical_section_lock lock(m_cs);
    return m_units.size();
  }
  bool GetUnitInfo(size_t index, const T*& buffer, size_t& freeCount, LONG& liveBlocks) {
    broom::critical_section_lock lock(m_cs);
    if (index >= m_units.size()) return false;
    const Unit& unit = *std::next(m_units.begin(), static_cast<std::ptrdiff_t>(index));
    buffer = unit.m_buffer.get();
    freeCount = unit.FreeCount();
    liveBlocks = unit.m_liveBlocks;
    return true;
  }
  size_t LargeBlockCount() {
    broom::critical_section_lock lock(m_cs);
    return m_large.size();
  }

 private:
  static T* Carve(Unit& unit, size_t count) {
    T* block = unit.m_pCur;
    unit.m_pCur += count;
    ++unit.m_liveBlocks;
    return block;
  }

  broom::critical_section m_cs;
  std::list<Unit> m_units;
  std::list<std::unique_ptr<T[]>> m_large;
};
