#pragma once
// The set of protected paths: a tree of upper-cased path components, each
// with a flag word that is inherited downwards. Bit 0x1 covers everything
// below its node; bits 0x1 and 0x2 keep a node alive when others are removed.
#include <windows.h>

#include <vector>

#include "atl/CString.h"
#include "core/Export.h"
#include "core/Handles.h"
#include "core/PathString.h"
#include "core/RefCounting.h"
#include "whitelist/FCNSTree.h"

struct SWhiteListItem {
  CString name;
  unsigned long flags = 0;
};

struct SWhiteListTreeNode {
  SWhiteListItem* item = nullptr;
  SWhiteListTreeNode* link = nullptr;
  SWhiteListTreeNode* next = nullptr;
  SWhiteListTreeNode* prev = nullptr;
};

class BROOM_API CWhiteListTree : public TFCNSTree<SWhiteListItem, SWhiteListTreeNode> {
 public:
  using Tree = TFCNSTree<SWhiteListItem, SWhiteListTreeNode>;

  // A path split into upper-cased components. Empty components are kept
  // (a UNC path starts with two); one trailing separator is dropped.
  class BROOM_API CParsedString {
   public:
    explicit CParsedString(const wchar_t* path);

    std::vector<CString> m_components;
    int m_current = 0;
    int m_last = -1;
  };

  // A position in the tree; invalid when the path is not in the tree.
  class BROOM_API Folder {
   public:
    Folder() = default;
    explicit Folder(ConstIterator it) : m_it(it) {}

    explicit operator bool() const { return m_it.IsValid(); }
    bool IsValid() const { return m_it.IsValid(); }
    unsigned long GetFlags() const;
    Folder GetSubFolder(const wchar_t* name) const;
    Folder GetSubFolder(const wchar_t* path, unsigned long& flags) const;
    // Moves down along "\NAME\NAME..."; returns the flags met. With nothing
    // after the leading separator the folder stays where it is.
    unsigned long FollowPath(const wchar_t* path);
    unsigned long TestItem(const wchar_t* name) const;
    ConstIterator Position() const { return m_it; }

   private:
    ConstIterator m_it;
  };

  CWhiteListTree();
  ~CWhiteListTree();

  void SafeGuardPath(const wchar_t* path, unsigned long flags);
  void RemovePath(const wchar_t* path, unsigned long flags);
  unsigned long CheckProtection(const wchar_t* path) const;
  Folder GetFolder(const wchar_t* path, unsigned long& flags) const;
  // The node of name below parent and its own flags (0 when it has none),
  // read under the tree's shared lock, for threads that read the tree while
  // another may protect paths. Nodes stay valid while paths are added; a
  // path removed frees its nodes, so none is removed while a scan runs.
  Folder GetSubFolder(const Folder& parent, const wchar_t* name, unsigned long& flags) const;
  bool FromPath(const wchar_t* path, Iterator& it, bool create);

  // Saving lists the paths of the nodes whose flags hold every bit of mask
  // (0 lists all), parents before children, one per line.
  // The file holds one byte per character and lines of at most
  // kMaxLineLength characters. A path that would not load back as itself (a
  // character above U+00FF, a CR, LF or Ctrl+Z inside, a line too long, a
  // trailing empty name) could only be written shortened, mapped or split,
  // which would protect a different path: SaveToFile then refuses the whole
  // save and leaves an existing file untouched. Returns false when nothing
  // was written; the array form holds every path unchanged.
  bool SaveToFile(const wchar_t* path, unsigned long mask) const;
  void LoadFromFile(const wchar_t* path);
  CRefPtr<IConstTArray<CString>> SaveToArray(unsigned long mask) const;
  void LoadFromArray(const std::vector<CString>& paths);

  static CString PathFromIterator(ConstIterator node);
  static constexpr int kMaxLineLength = 259;
  static constexpr size_t kMaxPathChars = 260;  // what a CPathString holds

 protected:
  static bool FindNode(Iterator& it, const CString& name, bool create);
  static bool FindNode(ConstIterator& it, const CString& name);
  // A new node named name with flags 0, linked in before the given sibling.
  static SWhiteListTreeNode* InsertChild(SWhiteListTreeNode* before, const CString& name);
  void SafeGuardSubPath(CParsedString& parsed, unsigned long flags);
  bool FromParsedString(CParsedString& parsed, Iterator& it, bool create);
  static bool FromParsedString(ConstIterator& it, CParsedString& parsed, unsigned long& flags);
  static unsigned long CheckProtection(ConstIterator node, CParsedString& parsed);

  // Adds parsed paths in sorted order, each search in a sibling list going
  // on from where the previous path's search in that list ended, so a
  // batch costs a sort and one pass over every list it touches. Holds the
  // lock for the whole batch.
  void SafeGuardBatch(std::vector<CParsedString>& paths, unsigned long flags);

  // True when the loader would read line back as exactly the node whose
  // ancestors, from the top level down, are chain.
  static bool LoadsBackAs(const CString& line, const std::vector<const SWhiteListTreeNode*>& chain);

  // Calls f(node, path, chain) for every node, parents before children,
  // siblings in order; path is the node's full path and chain the nodes
  // from the top level down to it, both kept up as the walk goes.
  template <class F>
  void Walk(F f) const;

  mutable SRWLOCK m_lock;  // taken by SafeGuardPath and RemovePath (exclusive), CheckProtection and GetSubFolder (shared)
};
