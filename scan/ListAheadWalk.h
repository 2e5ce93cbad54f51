#pragma once
// One walk's listings ahead (see ListAhead.h). The walk below one folder
// lists every folder with the same mask, visits a folder's files first and
// then its subfolders in the order of their listing, depth first; a folder is
// named by its place in that order, the indexes of its ancestors' entries
// from the walk's first folder down. Listings are taken in that order. Every
// method but the constructor and destructor is for the walking thread only.
#include <windows.h>

#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/PathString.h"
#include "scan/ListAhead.h"
#include "whitelist/WhiteListTree.h"

struct SFolderListing {
  std::vector<WIN32_FIND_DATAW> folders, files;
  void Clear() {
    folders.clear();
    files.clear();
  }
};

// Listings a scan made before its walk, by their pattern, for the walk to
// take instead of listing those folders again: the progress estimate lists
// the first levels below folder roots with the mask "*", as the walk does.
// Entries beyond the capacity are not kept. Once a walk uses them, only
// under the pool's lock.
class CFolderSeeds {
 public:
  explicit CFolderSeeds(size_t capacity) : m_capacity(capacity) {}
  void Put(const CPathString& pattern, SFolderListing& listing);
  bool Take(const CPathString& pattern, SFolderListing& out);

 private:
  std::unordered_map<std::wstring, SFolderListing> m_listings;
  size_t m_entries = 0;
  size_t m_capacity;
};

// Whether the folder (its trailing separator aside) is still a folder and
// no link, as its listing ahead found it.
bool StillAPlainFolder(const CPathString& folder);

class CListAhead::Walk {
 public:
  // Null when listing ahead is off or no thread of the pool could start.
  // A subfolder whose node's flags hold one of testBits is never listed.
  // Listings in seeds are taken instead of listing their folders.
  static std::unique_ptr<Walk> Begin(const CWhiteListTree* whiteList, unsigned long testBits, const CPathString& mask,
                                     bool system, CFolderSeeds* seeds);
  // Lists each folder (ending with '\') with the mask "*", on the pool and
  // the calling thread together; false, having listed nothing, when
  // listing ahead is off.
  static bool ListEach(const std::list<CPathString>& folders, bool system, std::vector<SFolderListing>& out);
  // Drops what waits and waits for the listings under way for this walk.
  ~Walk();
  Walk(const Walk&) = delete;
  Walk& operator=(const Walk&) = delete;

  // The walk goes into the index-th folder of its folder's listing, and back.
  void Descend(unsigned index) { m_cursor.push_back(index); }
  void Ascend() { m_cursor.pop_back(); }

  // The listing of the walk's folder (ending with '\'; node its whitelist
  // node, pattern the folder with the mask): the one made ahead or before
  // the walk, or, when none was, the folder is gone or no longer a plain
  // folder, or its listing failed, one made here and now as the walk alone
  // would make it.
  void Take(const CPathString& folder, const CWhiteListTree::Folder& node, const CPathString& pattern,
            SFolderListing& out);

  struct Task;
  struct Pool;

 private:
  friend struct Pool;
  struct KeyLess {
    bool operator()(const Task* a, const Task* b) const;
  };
  using Key = std::vector<unsigned>;

  Walk(Pool& pool, const CWhiteListTree* whiteList, unsigned long testBits, const CPathString& mask, bool system,
       CFolderSeeds* seeds);
  // Under the pool's lock: the task's listing and its subfolders' tasks from
  // the seeds, when they hold its folder.
  bool Seeded(Task& task, std::vector<std::unique_ptr<Task>>& children);
  // Lists the task's folder and makes the tasks of its subfolders; no lock held.
  void List(Task& task, std::vector<std::unique_ptr<Task>>& children);
  // Under the pool's lock: hands the listing over, or drops it.
  // The tasks of a listing's subfolders, but for protected ones.
  void Children(const Key& key, const CPathString& folder, const CWhiteListTree::Folder& node,
                const std::vector<WIN32_FIND_DATAW>& folders, std::vector<std::unique_ptr<Task>>& children);
  void Finish(Task* task, std::vector<std::unique_ptr<Task>>& children);
  void Queue(std::vector<std::unique_ptr<Task>>& children);
  // Under the pool's lock: drops one task (a task being listed is left to its thread).
  void Drop(std::map<Key, std::unique_ptr<Task>>::iterator it);
  // Under the pool's lock: the tasks before the cursor, or below it.
  void DropPassed();
  void DropBelow();

  Pool& m_pool;
  const CWhiteListTree* m_whiteList;
  unsigned long m_testBits;
  CPathString m_mask;
  bool m_system;
  CFolderSeeds* m_seeds;
  Key m_cursor;
  // Everything below is the pool's to guard.
  std::map<Key, std::unique_ptr<Task>> m_tasks;
  std::set<Task*, KeyLess> m_pending;
  unsigned m_listing = 0;  // listings of this walk under way, dropped ones too
  bool m_ended = false;
  bool m_flat = false;  // no subfolder is listed (ListEach)
};
