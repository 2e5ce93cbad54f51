#pragma once
// A temporary byte buffer: inside the object up to N bytes, on the heap above.
// Used by the registry code for value data of unknown size.
#include <windows.h>

#include <cstddef>
#include <new>

template <size_t N>
class TTempBuffer {
 public:
  TTempBuffer() = default;
  TTempBuffer(const TTempBuffer&) = delete;
  TTempBuffer& operator=(const TTempBuffer&) = delete;
  ~TTempBuffer() { delete[] m_heap; }

  // Room for size bytes; null when the heap allocation failed. A size of 0
  // gives null as well: there is nothing to hold.
  BYTE* Allocate(size_t size) noexcept {
    delete[] m_heap;
    m_heap = nullptr;
    if (size == 0) return nullptr;
    if (size <= N) return m_stack;
    m_heap = new (std::nothrow) BYTE[size];
    return m_heap;
  }
  bool OnHeap() const noexcept { return m_heap != nullptr; }

 private:
  alignas(8) BYTE m_stack[N];
  BYTE* m_heap = nullptr;
};
