#pragma once
// One walk's listings ahead (see ListAhead.h). The walk below one folder
// lists every folder with the same mask, visits a folder's files first and
// then its subfolders in the order of their listing, depth first; a folder is
// named by its place in that order, the indexes of its ancestors' entries
// from the walk's first folder down. Listings are taken in that order. Every
// method but the constructor and destructor is for the walking thread only.
#include <windows.h>

#include <map>
#include <memory>
#include <set>
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

class CListAhead::Walk {
 public:
  // Null when listing ahead is off or no thread of the pool could start.
  // A subfolder whose node's flags hold one of testBits is never listed.
  static std::unique_ptr<Walk> Begin(const CWhiteListTree* whiteList, unsigned long testBits, const CPathString& mask,
                                     bool system);
  // Drops what waits and waits for the listings under way for this walk.
  ~Walk();
  Walk(const Walk&) = delete;
  Walk& operator=(const Walk&) = delete;

  // The walk goes into the index-th folder of its folder's listing, and back.
  void Descend(unsigned index) { m_cursor.push_back(index); }
  void Ascend() { m_cursor.pop_back(); }

  // The listing of the walk's folder (ending with '\'; node its whitelist
  // node, pattern the folder with the mask): the one made ahead, or, when
  // none was, the folder is gone or no longer a plain folder, or its listing
  // failed, one made here and now as the walk alone would make it.
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

  Walk(Pool& pool, const CWhiteListTree* whiteList, unsigned long testBits, const CPathString& mask, bool system);
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
  Key m_cursor;
  // Everything below is the pool's to guard.
  std::map<Key, std::unique_ptr<Task>> m_tasks;
  std::set<Task*, KeyLess> m_pending;
  unsigned m_listing = 0;  // listings of this walk under way, dropped ones too
  bool m_ended = false;
};
