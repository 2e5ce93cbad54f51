#pragma once
// Definition files read whole into memory, and a reader that reads the next
// files of a folder on a thread of its own while the caller builds the tree
// from the file before. Opening, reading and closing a file costs several
// round trips to the system (under Wine, to its server) during which the
// caller would otherwise sit idle.
#include <windows.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "core/Handles.h"

struct SFileBytes {
  enum EFailure { fNone, fOpen, fRead, fNoMemory };
  struct Free {
    void operator()(char* p) const { free(p); }
  };
  std::unique_ptr<char, Free> data;  // malloc'd, at least one byte once read
  DWORD size = 0;                    // bytes read
  EFailure failure = fNone;
  DWORD error = 0;  // GetLastError of the step that failed
  // What the reader made of the bytes ahead of their use, when it asked
  // for that; it points into data.
  struct Prepared {
    virtual ~Prepared() = default;
  };
  std::unique_ptr<Prepared> prepared;
};

// Opens the file for reading (others may read it meanwhile), takes its size
// and reads it in one call.
void ReadWholeFile(const wchar_t* path, SFileBytes& out);

class CFilePrefetch {
 public:
  // At most this many files, and this many bytes, are held read ahead of
  // the caller.
  static constexpr size_t kFilesAhead = 4;
  static constexpr size_t kBytesAhead = 8u << 20;
  // Work on a file's bytes that the thread does after reading them. It runs
  // with the thread locale of whoever made the prefetch; what it throws is
  // dropped with what it made.
  using Prepare = void (*)(SFileBytes& bytes);

  // Starts reading paths in order. When no thread can be started, every
  // file is read by Take instead (and left unprepared).
  explicit CFilePrefetch(std::vector<std::wstring> paths, Prepare prepare = nullptr);
  // Stops the thread after the file it is reading, and waits for it.
  ~CFilePrefetch();
  CFilePrefetch(const CFilePrefetch&) = delete;
  CFilePrefetch& operator=(const CFilePrefetch&) = delete;

  // The bytes of the file at index, as ReadWholeFile gives them. Indexes
  // are taken in increasing order, each at most once; one the thread has
  // not reached yet is read here, and the thread goes on after it.
  void Take(size_t index, SFileBytes& out);

 private:
  static DWORD WINAPI ThreadProc(void* self);
  void Run();
  bool MayReadAhead() const;
  // What a file held ahead counts against kBytesAhead: a prepared file
  // holds its text a few times over.
  static size_t Weight(const SFileBytes& bytes) { return bytes.size * (bytes.prepared ? 4u : 1u); }

  std::vector<std::wstring> m_paths;
  Prepare m_prepare;
  LCID m_locale;
  std::vector<SFileBytes> m_files;
  std::vector<char> m_ready;  // the thread has put the file in m_files
  SRWLOCK m_lock = SRWLOCK_INIT;  // everything below, and m_files and m_ready
  CONDITION_VARIABLE m_changed = CONDITION_VARIABLE_INIT;
  size_t m_next = 0;   // the next file the thread reads
  size_t m_taken = 0;  // files before this one are the caller's
  size_t m_bytesAhead = 0;
  bool m_stop = false;
  broom::unique_thread m_thread;
};
