#include "scan/ListAhead.h"

#include <algorithm>
#include <cwchar>
#include <list>

#include "clean/FileSystemOps.h"
#include "core/Handles.h"
#include "scan/ListAheadWalk.h"

namespace {

constexpr size_t kDefaultEntriesAhead = 8192;

unsigned Clamp(unsigned threads) {
  if (threads == 0) return CListAhead::DefaultThreads();
  return std::min(threads, CListAhead::kMaxThreads);
}

// Whether count more characters fit in the path. Checked before appending:
// an exception thrown on a pool thread would make its C++ runtime hold
// handles for the thread from then on.
bool Fits(const CPathString& path, size_t count) { return path.GetLength() + count < MAX_PATH + 1u; }

}  // namespace

bool StillAPlainFolder(const CPathString& folder) {
  // asked without the trailing separator, so that a link answers for itself
  CPathString path(folder);
  if (path.GetLength() > 0 && path.c_str()[path.GetLength() - 1] == L'\\') path.RemoveFileName(nullptr);
  DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) &&
         !(attributes & FILE_ATTRIBUTE_REPARSE_POINT);
}

void CFolderSeeds::Put(const CPathString& pattern, SFolderListing& listing) {
  const size_t entries = listing.folders.size() + listing.files.size();
  if (m_entries + entries > m_capacity) return;
  auto put = m_listings.emplace(std::wstring(pattern.c_str(), pattern.GetLength()), SFolderListing());
  if (!put.second) return;
  put.first->second = std::move(listing);
  listing.Clear();
  m_entries += entries;
}

bool CFolderSeeds::Take(const CPathString& pattern, SFolderListing& out) {
  auto it = m_listings.find(std::wstring(pattern.c_str(), pattern.GetLength()));
  if (it == m_listings.end()) return false;
  out = std::move(it->second);
  m_entries -= out.folders.size() + out.files.size();
  m_listings.erase(it);
  return true;
}

struct CListAhead::Walk::Task {
  Key key;
  CPathString folder;  // as the walk builds it, ending with '\'
  CWhiteListTree::Folder node;
  enum EState { queued, running, finished } state = queued;
  bool listed = false;   // the listing went through to its end
  bool dropped = false;  // the walk went past it while it was being listed
  SFolderListing listing;
  size_t Entries() const { return listing.folders.size() + listing.files.size(); }
};

bool CListAhead::Walk::KeyLess::operator()(const Task* a, const Task* b) const { return a->key < b->key; }

// The threads and what they share. Everything but the threads' own listing
// work happens under one lock; walks take it once per folder.
struct CListAhead::Walk::Pool {
  SRWLOCK lock = SRWLOCK_INIT;
  CONDITION_VARIABLE work = CONDITION_VARIABLE_INIT;  // a task to list, or room to list it
  CONDITION_VARIABLE done = CONDITION_VARIABLE_INIT;  // a listing ended
  std::list<Walk*> walks;
  std::list<Walk*>::iterator next = walks.end();  // where the round over the walks goes on
  std::vector<broom::unique_thread> threads;
  unsigned size = 0;  // 0 until set: the default
  size_t entriesAhead = kDefaultEntriesAhead;
  size_t held = 0;  // entries listed and not yet taken, over every walk
  size_t peak = 0;
  // Threads asleep on each condition: a wake-up nobody waits for is not
  // sent, since under Wine it costs a call into the system.
  unsigned idle = 0;
  unsigned waiting = 0;

  void WakeWorkers(bool all) {
    if (idle == 0) return;
    // a thread beyond a size made smaller would take the one wake-up and stay idle
    if (all || threads.size() > Size())
      WakeAllConditionVariable(&work);
    else
      WakeConditionVariable(&work);
  }
  // Under the lock: waits for a listing of some walk to end.
  void WaitForListing() {
    ++waiting;
    SleepConditionVariableSRW(&done, &lock, INFINITE, 0);
    --waiting;
  }

  static Pool& Get() {
    // Never destroyed: its threads wait on it until the process ends.
    static Pool* pool = new Pool();
    return *pool;
  }

  unsigned Size() const { return size ? size : Clamp(0); }

  // Under the lock: starts threads up to the size in force; false when none runs.
  bool Start() {
    const unsigned wanted = Size();
    while (threads.size() < wanted) {
      if (threads.empty()) {
        // the threads run the engine's code until the process ends
        HMODULE self = nullptr;
        GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                           reinterpret_cast<LPCWSTR>(&Pool::Get), &self);
      }
      auto index = static_cast<ULONG_PTR>(threads.size());
      broom::unique_thread thread(CreateThread(nullptr, 256 * 1024, &Pool::ThreadProc, reinterpret_cast<void*>(index),
                                               STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr));
      if (!thread) break;
      threads.push_back(std::move(thread));
    }
    return !threads.empty();
  }

  void Hold(size_t entries) {
    held += entries;
    peak = std::max(peak, held);
  }
  void Release(size_t entries) {
    bool full = held >= entriesAhead;
    held -= entries;
    if (full && held < entriesAhead) WakeWorkers(true);
  }

  // Under the lock: the first task in walking order of the next walk that has one.
  bool FindWork(Walk*& walk, Task*& task) {
    if (walks.empty()) return false;
    if (next == walks.end()) next = walks.begin();
    auto start = next;
    do {
      Walk* candidate = *next;
      if (++next == walks.end()) next = walks.begin();
      if (!candidate->m_pending.empty()) {
        walk = candidate;
        task = *candidate->m_pending.begin();
        candidate->m_pending.erase(candidate->m_pending.begin());
        return true;
      }
    } while (next != start);
    return false;
  }

  static DWORD WINAPI ThreadProc(void* param) {
    const auto index = static_cast<unsigned>(reinterpret_cast<ULONG_PTR>(param));
    Pool& pool = Get();
    AcquireSRWLockExclusive(&pool.lock);
    for (;;) {
      Walk* walk = nullptr;
      Task* task = nullptr;
      // a thread beyond a size made smaller since it started stays idle
      if (index < pool.Size() && pool.held < pool.entriesAhead && pool.FindWork(walk, task)) {
        task->state = Task::running;
        ++walk->m_listing;
        ReleaseSRWLockExclusive(&pool.lock);
        std::vector<std::unique_ptr<Task>> children;
        walk->List(*task, children);
        AcquireSRWLockExclusive(&pool.lock);
        walk->Finish(task, children);
        if (pool.waiting) WakeAllConditionVariable(&pool.done);
        continue;
      }
      ++pool.idle;
      SleepConditionVariableSRW(&pool.work, &pool.lock, INFINITE, 0);
      --pool.idle;
    }
  }
};

// ---- settings ----

void CListAhead::SetThreads(unsigned threads) {
  Walk::Pool& pool = Walk::Pool::Get();
  broom::srw_exclusive lock(pool.lock);
  pool.size = Clamp(threads);
  WakeAllConditionVariable(&pool.work);
}

unsigned CListAhead::GetThreads() {
  Walk::Pool& pool = Walk::Pool::Get();
  broom::srw_exclusive lock(pool.lock);
  return pool.Size();
}

unsigned CListAhead::DefaultThreads() {
  SYSTEM_INFO info;
  GetSystemInfo(&info);
  return std::max(1u, std::min(static_cast<unsigned>(info.dwNumberOfProcessors), kMaxThreads));
}

void CListAhead::SetEntriesAhead(size_t entries) {
  Walk::Pool& pool = Walk::Pool::Get();
  broom::srw_exclusive lock(pool.lock);
  pool.entriesAhead = entries ? entries : kDefaultEntriesAhead;
  WakeAllConditionVariable(&pool.work);
}

size_t CListAhead::GetEntriesAhead() {
  Walk::Pool& pool = Walk::Pool::Get();
  broom::srw_exclusive lock(pool.lock);
  return pool.entriesAhead;
}

size_t CListAhead::TakePeakEntriesAhead() {
  Walk::Pool& pool = Walk::Pool::Get();
  broom::srw_exclusive lock(pool.lock);
  return std::exchange(pool.peak, pool.held);
}

// ---- one walk ----

CListAhead::Walk::Walk(Pool& pool, const CWhiteListTree* whiteList, unsigned long testBits, const CPathString& mask,
                       bool system, CFolderSeeds* seeds)
    : m_pool(pool), m_whiteList(whiteList), m_testBits(testBits), m_mask(mask), m_system(system), m_seeds(seeds) {}

std::unique_ptr<CListAhead::Walk> CListAhead::Walk::Begin(const CWhiteListTree* whiteList, unsigned long testBits,
                                                          const CPathString& mask, bool system, CFolderSeeds* seeds) {
  Pool& pool = Pool::Get();
  broom::srw_exclusive lock(pool.lock);
  if (pool.Size() < 2 || !pool.Start()) return nullptr;
  std::unique_ptr<Walk> walk(new Walk(pool, whiteList, testBits, mask, system, seeds));
  pool.walks.push_back(walk.get());
  return walk;
}

bool CListAhead::Walk::ListEach(const std::list<CPathString>& folders, bool system, std::vector<SFolderListing>& out) {
  out.clear();
  std::unique_ptr<Walk> walk = Begin(nullptr, 0, CPathString(L"*"), system, nullptr);
  if (!walk) return false;
  out.resize(folders.size());
  std::vector<std::unique_ptr<Task>> tasks;
  unsigned index = 0;
  for (const CPathString& folder : folders) {
    std::unique_ptr<Task> task(new Task());
    task->folder = folder;
    task->folder.AddBackslash();
    task->key.push_back(index++);
    tasks.push_back(std::move(task));
  }
  {
    broom::srw_exclusive lock(walk->m_pool.lock);
    walk->m_flat = true;
    walk->Queue(tasks);
  }
  // taken in order: a folder no thread has started is listed here
  for (unsigned i = 0; i < out.size(); ++i) {
    walk->Descend(i);
    bool listed = false;
    CPathString folder;
    {
      broom::srw_exclusive lock(walk->m_pool.lock);
      auto it = walk->m_tasks.find(walk->m_cursor);
      Task* task = it->second.get();
      while (task->state == Task::running) walk->m_pool.WaitForListing();
      if (task->state == Task::finished && task->listed) {
        out[i] = std::move(task->listing);
        task->listing.Clear();
        walk->m_pool.Release(out[i].folders.size() + out[i].files.size());
        listed = true;
      }
      folder = task->folder;
      walk->Drop(it);
    }
    walk->Ascend();
    if (listed) continue;
    out[i].Clear();
    folder.Append(L"*", 1);
    CFileSystemOps::ListDirectory(out[i].folders, &out[i].files, folder.c_str(), system);
  }
  return true;
}

CListAhead::Walk::~Walk() {
  broom::srw_exclusive lock(m_pool.lock);
  m_ended = true;
  m_pending.clear();
  while (m_listing > 0) m_pool.WaitForListing();
  for (auto& entry : m_tasks)
    if (entry.second->state == Task::finished) m_pool.Release(entry.second->Entries());
  m_tasks.clear();
  auto self = std::find(m_pool.walks.begin(), m_pool.walks.end(), this);
  if (m_pool.next == self) ++m_pool.next;
  m_pool.walks.erase(self);
}

void CListAhead::Walk::List(Task& task, std::vector<std::unique_ptr<Task>>& children) {
  try {
    if (!Fits(task.folder, m_mask.GetLength())) return;  // the walk meets it on its own
    CPathString pattern(task.folder);
    pattern.Append(m_mask.c_str(), m_mask.GetLength());
    task.listed = CFileSystemOps::ListDirectory(task.listing.folders, &task.listing.files, pattern.c_str(), m_system);
    if (task.listed && !m_flat) Children(task.key, task.folder, task.node, task.listing.folders, children);
  } catch (...) {
    // the walk lists this folder itself, and meets the failure there
    task.listed = false;
    task.listing.Clear();
    children.clear();
  }
}

void CListAhead::Walk::Children(const Key& key, const CPathString& folder, const CWhiteListTree::Folder& node,
                                const std::vector<WIN32_FIND_DATAW>& folders,
                                std::vector<std::unique_ptr<Task>>& children) {
  unsigned index = 0;
  for (const WIN32_FIND_DATAW& entry : folders) {
    const unsigned at = index++;
    const size_t length = wcsnlen(entry.cFileName, MAX_PATH);
    const bool separator = folder.GetLength() > 0 && folder.c_str()[folder.GetLength() - 1] != L'\\';
    if (!Fits(folder, length + (separator ? 2 : 1))) continue;  // the walk meets it on its own
    try {
      unsigned long flags = 0;
      CWhiteListTree::Folder sub = m_whiteList->GetSubFolder(node, entry.cFileName, flags);
      if (flags & m_testBits) continue;  // protected: never listed
      std::unique_ptr<Task> child(new Task());
      child->folder = folder;
      child->folder.AddBackslash();
      child->folder.Append(entry.cFileName, static_cast<unsigned short>(length));
      child->folder.AddBackslash();
      child->node = sub;
      child->key = key;
      child->key.push_back(at);
      children.push_back(std::move(child));
    } catch (...) {
      // out of memory: the walk lists it when it gets there
    }
  }
}

void CListAhead::Walk::Finish(Task* task, std::vector<std::unique_ptr<Task>>& children) {
  --m_listing;
  if (task->dropped) {
    delete task;
    return;
  }
  task->state = Task::finished;
  if (!task->listed) return;
  m_pool.Hold(task->Entries());
  if (!m_ended) Queue(children);
}

void CListAhead::Walk::Queue(std::vector<std::unique_ptr<Task>>& children) {
  size_t pending = 0;
  for (auto& child : children) {
    Task* raw = child.get();
    std::vector<std::unique_ptr<Task>> grandchildren;
    const bool seeded = Seeded(*raw, grandchildren);
    if (!m_tasks.emplace(raw->key, std::move(child)).second) continue;
    if (seeded) {
      m_pool.Hold(raw->Entries());
      Queue(grandchildren);
    } else {
      m_pending.insert(raw);
      ++pending;
    }
  }
  if (pending) m_pool.WakeWorkers(pending > 1);
}

bool CListAhead::Walk::Seeded(Task& task, std::vector<std::unique_ptr<Task>>& children) {
  if (!m_seeds || !Fits(task.folder, m_mask.GetLength())) return false;
  CPathString pattern(task.folder);
  pattern.Append(m_mask.c_str(), m_mask.GetLength());
  if (!m_seeds->Take(pattern, task.listing)) return false;
  task.state = Task::finished;
  task.listed = true;
  Children(task.key, task.folder, task.node, task.listing.folders, children);
  return true;
}

void CListAhead::Walk::Drop(std::map<Key, std::unique_ptr<Task>>::iterator it) {
  Task* task = it->second.get();
  if (task->state == Task::running) {
    task->dropped = true;  // its thread frees it
    it->second.release();
  } else if (task->state == Task::finished) {
    m_pool.Release(task->Entries());
  } else {
    m_pending.erase(task);
  }
  m_tasks.erase(it);
}

void CListAhead::Walk::DropPassed() {
  while (!m_tasks.empty() && m_tasks.begin()->first < m_cursor) Drop(m_tasks.begin());
}

void CListAhead::Walk::DropBelow() {
  auto it = m_tasks.upper_bound(m_cursor);
  while (it != m_tasks.end() && it->first.size() > m_cursor.size() &&
         std::equal(m_cursor.begin(), m_cursor.end(), it->first.begin()))
    Drop(it++);
}

void CListAhead::Walk::Take(const CPathString& folder, const CWhiteListTree::Folder& node, const CPathString& pattern,
                            SFolderListing& out) {
  out.Clear();
  bool listed = false;  // a listing made ahead, whose subfolders are queued
  bool seeded = false;  // one made before the walk, whose subfolders are not
  {
    broom::srw_exclusive lock(m_pool.lock);
    DropPassed();
    auto it = m_tasks.find(m_cursor);
    if (it != m_tasks.end()) {
      Task* task = it->second.get();
      if (wcscmp(task->folder.c_str(), folder.c_str()) == 0) {
        while (task->state == Task::running) m_pool.WaitForListing();
        if (task->state == Task::finished && task->listed) {
          out = std::move(task->listing);
          task->listing.Clear();
          m_pool.Release(out.folders.size() + out.files.size());
          listed = true;
        }
      }
      Drop(it);
    }
    if (!listed && m_seeds) seeded = m_seeds->Take(pattern, out);
  }
  // The folder may have gone, or become a link, since it was listed: then
  // it is listed here, as the walk alone would find it now.
  if ((listed || seeded) && !StillAPlainFolder(folder)) listed = seeded = false;
  if (listed) return;
  std::vector<std::unique_ptr<Task>> children;
  if (!seeded) {
    out.Clear();
    {
      broom::srw_exclusive lock(m_pool.lock);
      DropBelow();  // made from a listing that is not used
    }
    CFileSystemOps::ListDirectory(out.folders, &out.files, pattern.c_str(), m_system);
  }
  // the subfolders of a listing made here are listed ahead all the same
  try {
    Children(m_cursor, folder, node, out.folders, children);
  } catch (...) {
    children.clear();  // the walk lists them when it gets there
  }
  broom::srw_exclusive lock(m_pool.lock);
  Queue(children);
}
