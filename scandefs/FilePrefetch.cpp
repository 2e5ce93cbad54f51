#include "scandefs/FilePrefetch.h"

#include <utility>

void ReadWholeFile(const wchar_t* path, SFileBytes& out) {
  out = SFileBytes();
  broom::unique_hfile file(
      CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  auto fail = [&](SFileBytes::EFailure failure) {
    out.failure = failure;
    out.error = GetLastError();
  };
  if (!file) return fail(SFileBytes::fOpen);
  LARGE_INTEGER size;
  if (!GetFileSizeEx(file.get(), &size)) return fail(SFileBytes::fRead);
  out.data.reset(static_cast<char*>(malloc(size.LowPart ? size.LowPart : 1)));
  if (!out.data) return fail(SFileBytes::fNoMemory);
  DWORD read = 0;
  if (!ReadFile(file.get(), out.data.get(), size.LowPart, &read, nullptr)) return fail(SFileBytes::fRead);
  out.size = read;
}

CFilePrefetch::CFilePrefetch(std::vector<std::wstring> paths, Prepare prepare)
    : m_paths(std::move(paths)),
      m_prepare(prepare),
      m_locale(GetThreadLocale()),
      m_files(m_paths.size()),
      m_ready(m_paths.size(), 0) {
  m_thread.reset(CreateThread(nullptr, 0, &CFilePrefetch::ThreadProc, this, 0, nullptr));
}

CFilePrefetch::~CFilePrefetch() {
  if (!m_thread) return;
  {
    broom::srw_exclusive lock(m_lock);
    m_stop = true;
  }
  WakeAllConditionVariable(&m_changed);
  WaitForSingleObject(m_thread.get(), INFINITE);
}

DWORD WINAPI CFilePrefetch::ThreadProc(void* self) {
  static_cast<CFilePrefetch*>(self)->Run();
  return 0;
}

bool CFilePrefetch::MayReadAhead() const {
  return m_next - m_taken < kFilesAhead && m_bytesAhead < kBytesAhead;
}

void CFilePrefetch::Run() {
  // the code page that converts the text is the thread's
  SetThreadLocale(m_locale);
  broom::srw_exclusive lock(m_lock);
  for (;;) {
    while (!m_stop && m_next < m_paths.size() && !MayReadAhead())
      SleepConditionVariableSRW(&m_changed, &m_lock, INFINITE, 0);
    if (m_stop || m_next >= m_paths.size()) return;
    size_t index = m_next++;
    SFileBytes bytes;
    ReleaseSRWLockExclusive(&m_lock);
    ReadWholeFile(m_paths[index].c_str(), bytes);
    if (m_prepare) {
      try {
        m_prepare(bytes);
      } catch (...) {
        bytes.prepared.reset();  // the caller does it again, and meets the failure itself
      }
    }
    AcquireSRWLockExclusive(&m_lock);
    m_bytesAhead += Weight(bytes);
    m_files[index] = std::move(bytes);
    m_ready[index] = 1;
    WakeAllConditionVariable(&m_changed);
  }
}

void CFilePrefetch::Take(size_t index, SFileBytes& out) {
  bool readHere = false;
  {
    broom::srw_exclusive lock(m_lock);
    if (index >= m_next) {
      // not reached: the thread skips it
      m_next = index + 1;
      readHere = true;
    } else {
      while (!m_ready[index]) SleepConditionVariableSRW(&m_changed, &m_lock, INFINITE, 0);
      out = std::move(m_files[index]);
      m_bytesAhead -= Weight(out);
    }
    m_taken = index + 1;
  }
  WakeAllConditionVariable(&m_changed);
  if (readHere) ReadWholeFile(m_paths[index].c_str(), out);
}
