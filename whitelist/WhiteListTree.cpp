#include "whitelist/WhiteListTree.h"

#include <algorithm>
#include <cwchar>
#include <string>

#include "core/Exceptions.h"
#include "core/Handles.h"
#include "core/Names.h"

namespace {

// Holds the tree's lock for a scope, exclusively or shared. A slim
// reader/writer lock costs no call into the system unless it is contended,
// which matters because hosts check protection for every file they find.
class TreeLock {
 public:
  TreeLock(SRWLOCK& lock, bool exclusive) : m_lock(lock), m_exclusive(exclusive) {
    if (m_exclusive)
      AcquireSRWLockExclusive(&m_lock);
    else
      AcquireSRWLockShared(&m_lock);
  }
  ~TreeLock() {
    if (m_exclusive)
      ReleaseSRWLockExclusive(&m_lock);
    else
      ReleaseSRWLockShared(&m_lock);
  }
  TreeLock(const TreeLock&) = delete;
  TreeLock& operator=(const TreeLock&) = delete;

 private:
  SRWLOCK& m_lock;
  bool m_exclusive;
};

CString Component(const CPathString& text, unsigned short start, unsigned short count) {
  CPathString part;
  text.Mid(start, count, part);
  broom::UpperCase(part.GetBuffer(), part.GetLength());
  return part.ToCString();
}

}  // namespace

// ---- path splitting ----

CWhiteListTree::CParsedString::CParsedString(const wchar_t* path) {
  CPathString text(path);
  if (text.GetLength() > 0 && text.GetBuffer()[text.GetLength() - 1] == L'\\')
    text.Assign(text.GetBuffer(), static_cast<unsigned short>(text.GetLength() - 1));
  const unsigned short length = text.GetLength();
  unsigned short position = 0;
  for (;;) {
    if (position >= length) throw PositionOutOfStringException(position, length);
    const wchar_t* separator = wcschr(text.GetBuffer() + position, L'\\');
    if (!separator) {
      m_components.push_back(Component(text, position, static_cast<unsigned short>(length - position)));
      break;
    }
    unsigned short index = static_cast<unsigned short>(separator - text.GetBuffer());
    m_components.push_back(Component(text, position, static_cast<unsigned short>(index - position)));
    position = static_cast<unsigned short>(index + 1);
  }
  m_current = 0;
  m_last = static_cast<int>(m_components.size()) - 1;
}

// ---- tree ----

CWhiteListTree::CWhiteListTree() { InitializeSRWLock(&m_lock); }

CWhiteListTree::~CWhiteListTree() = default;

namespace {

// Siblings are kept sorted by name: the first one from `cur` on whose name
// is not below `name` (the ring's sentinel when there is none), and whether
// it is equal.
template <class Node, class Name>
Node* SeekSibling(Node* cur, const Name& name, bool& found) {
  found = false;
  while (cur->item) {
    int order = cur->item->name.Compare(name);
    if (order >= 0) {
      found = order == 0;
      break;
    }
    cur = cur->next;
  }
  return cur;
}

}  // namespace

SWhiteListTreeNode* CWhiteListTree::InsertChild(SWhiteListTreeNode* before, const CString& name) {
  auto* item = new SWhiteListItem{name, 0};
  SWhiteListTreeNode* node;
  try {
    node = NewNode(item);
  } catch (...) {
    delete item;
    throw;
  }
  InsertBefore(before, node);
  return node;
}

bool CWhiteListTree::FindNode(Iterator& it, const CString& name, bool create) {
  bool found;
  SWhiteListTreeNode* cur = SeekSibling(it.node()->link->next, name, found);
  it = Iterator(cur);
  if (found || !create) return found;
  it = Iterator(InsertChild(cur, name));
  return false;
}

bool CWhiteListTree::FindNode(ConstIterator& it, const CString& name) {
  bool found;
  it = ConstIterator(SeekSibling(it.node()->link->next, name, found));
  return found;
}

void CWhiteListTree::SafeGuardSubPath(CParsedString& parsed, unsigned long flags) {
  Iterator it = root();
  for (; parsed.m_current <= parsed.m_last; ++parsed.m_current)
    FindNode(it, parsed.m_components[parsed.m_current], true);
  it->flags |= flags;
}

bool CWhiteListTree::FromParsedString(CParsedString& parsed, Iterator& it, bool create) {
  Iterator cur = root();
  bool found = false;
  for (; parsed.m_current <= parsed.m_last; ++parsed.m_current) {
    found = FindNode(cur, parsed.m_components[parsed.m_current], create);
    if (!found && !create) return false;
  }
  it = cur;
  return found;
}

bool CWhiteListTree::FromParsedString(ConstIterator& it, CParsedString& parsed, unsigned long& flags) {
  bool found = false;
  for (; parsed.m_current <= parsed.m_last; ++parsed.m_current) {
    found = FindNode(it, parsed.m_components[parsed.m_current]);
    if (!found) break;
    flags |= it->flags;
  }
  return found;
}

unsigned long CWhiteListTree::CheckProtection(ConstIterator node, CParsedString& parsed) {
  unsigned long result = 0;
  ConstIterator it = node;
  while (parsed.m_current <= parsed.m_last) {
    if (!FindNode(it, parsed.m_components[parsed.m_current])) break;
    result |= it->flags;
    ++parsed.m_current;
    if (result & 0x1) break;
  }
  return result;
}

void CWhiteListTree::SafeGuardPath(const wchar_t* path, unsigned long flags) {
  CParsedString parsed(path);
  TreeLock lock(m_lock, true);
  SafeGuardSubPath(parsed, flags);
}

void CWhiteListTree::SafeGuardBatch(std::vector<CParsedString>& paths, unsigned long flags) {
  auto begin = [](const CParsedString* p) { return p->m_components.begin() + p->m_current; };
  auto end = [](const CParsedString* p) { return p->m_components.begin() + (p->m_last + 1); };
  auto less = [&](const CParsedString* a, const CParsedString* b) {
    return std::lexicographical_compare(begin(a), end(a), begin(b), end(b),
                                        [](const CString& x, const CString& y) { return x.Compare(y) < 0; });
  };
  // Sorted, the paths below one node come together and the names each
  // sibling list is searched for ascend; a saved file is sorted already.
  std::vector<CParsedString*> order;
  order.reserve(paths.size());
  for (CParsedString& path : paths)
    if (path.m_current <= path.m_last) order.push_back(&path);
  if (!std::is_sorted(order.begin(), order.end(), less)) std::sort(order.begin(), order.end(), less);

  // One lock for the batch: the trail holds nodes from one path to the next.
  TreeLock lock(m_lock, true);
  std::vector<SWhiteListTreeNode*> trail;  // the previous path's nodes, from the top level down
  std::vector<CString>::const_iterator previous;
  for (CParsedString* path : order) {
    const size_t depth = static_cast<size_t>(path->m_last - path->m_current + 1);
    const auto components = begin(path);
    size_t same = 0;
    while (same < depth && same < trail.size() && previous[same] == components[same]) ++same;
    for (size_t d = same; d < depth; ++d) {
      const CString& name = components[d];
      SWhiteListTreeNode* owner = d == 0 ? this : trail[d - 1];
      // Below the same parent the previous path's name is the smaller one,
      // so the search goes on after it.
      SWhiteListTreeNode* start = d == same && d < trail.size() ? trail[d]->next : owner->link->next;
      bool found;
      SWhiteListTreeNode* node = SeekSibling(start, name, found);
      if (!found) node = InsertChild(node, name);
      trail.resize(d);
      trail.push_back(node);
    }
    trail.resize(depth);
    trail.back()->item->flags |= flags;
    path->m_current = path->m_last + 1;
    previous = components;
  }
}

unsigned long CWhiteListTree::CheckProtection(const wchar_t* path) const {
  // As CParsedString splits the path, without a string per component: hosts
  // ask about every file a scan finds.
  size_t length = wcslen(path);
  if (length > kMaxPathChars) throw BufferOverflowException();
  if (length > 0 && path[length - 1] == L'\\') --length;  // one trailing separator
  if (length == 0 || path[length - 1] == L'\\')
    throw PositionOutOfStringException(static_cast<int>(length), static_cast<int>(length));
  wchar_t name[kMaxPathChars + 1];
  unsigned long result = 0;
  TreeLock lock(m_lock, false);  // checks only read: they may run side by side
  const SWhiteListTreeNode* node = this;
  for (size_t start = 0;;) {
    size_t end = start;
    while (end < length && path[end] != L'\\') ++end;
    const size_t count = end - start;
    wmemcpy(name, path + start, count);
    name[count] = 0;
    broom::UpperCase(name, count);
    bool found;
    node = SeekSibling(node->link->next, static_cast<const wchar_t*>(name), found);
    if (!found) break;
    result |= node->item->flags;
    if ((result & 0x1) || end == length) break;
    start = end + 1;
  }
  return result;
}

void CWhiteListTree::RemovePath(const wchar_t* path, unsigned long flags) {
  CParsedString parsed(path);
  TreeLock lock(m_lock, true);
  Iterator it;
  if (!FromParsedString(parsed, it, false)) return;
  it->flags &= ~flags;
  SWhiteListTreeNode* node = it.node();
  while (node != this) {
    if ((node->item->flags & 0x3) || HasChildren(node)) break;
    SWhiteListTreeNode* parent = ParentOf(node);
    Unlink(node);
    FreeNode(node);
    node = parent;
  }
}

CWhiteListTree::Folder CWhiteListTree::GetFolder(const wchar_t* path, unsigned long& flags) const {
  CParsedString parsed(path);
  ConstIterator it = root();
  return FromParsedString(it, parsed, flags) ? Folder(it) : Folder();
}

CWhiteListTree::Folder CWhiteListTree::GetSubFolder(const Folder& parent, const wchar_t* name,
                                                    unsigned long& flags) const {
  flags = 0;
  if (!parent) return Folder();
  CPathString upper(name);
  broom::UpperCase(upper.GetBuffer(), upper.GetLength());
  TreeLock lock(m_lock, false);
  bool found;
  const SWhiteListTreeNode* node = SeekSibling(parent.Position().node()->link->next, upper.c_str(), found);
  if (!found) return Folder();
  flags = node->item->flags;
  return Folder(ConstIterator(node));
}

bool CWhiteListTree::FromPath(const wchar_t* path, Iterator& it, bool create) {
  CParsedString parsed(path);
  return FromParsedString(parsed, it, create);
}

CString CWhiteListTree::PathFromIterator(ConstIterator node) {
  const SWhiteListTreeNode* parent = ParentOf(node.node());
  if (!IsSentinel(parent)) return PathFromIterator(ConstIterator(parent)) + L"\\" + node->name;
  return node->name;
}

// ---- folders ----

unsigned long CWhiteListTree::Folder::GetFlags() const { return m_it.IsValid() ? m_it->flags : 0; }

CWhiteListTree::Folder CWhiteListTree::Folder::GetSubFolder(const wchar_t* name) const {
  if (!m_it.IsValid()) return Folder();
  CPathString upper(name);
  broom::UpperCase(upper.GetBuffer(), upper.GetLength());
  bool found;
  const SWhiteListTreeNode* node = SeekSibling(m_it.node()->link->next, upper.c_str(), found);
  return found ? Folder(ConstIterator(node)) : Folder();
}

CWhiteListTree::Folder CWhiteListTree::Folder::GetSubFolder(const wchar_t* path, unsigned long& flags) const {
  if (!m_it.IsValid()) return Folder();
  CParsedString parsed(path);
  ConstIterator it = m_it;
  return FromParsedString(it, parsed, flags) ? Folder(it) : Folder();
}

unsigned long CWhiteListTree::Folder::FollowPath(const wchar_t* path) {
  if (!m_it.IsValid()) return 0;
  CParsedString parsed(path);
  ++parsed.m_current;  // the empty component before the leading separator
  if (parsed.m_current > parsed.m_last) return 0;
  unsigned long flags = 0;
  ConstIterator it = m_it;
  m_it = FromParsedString(it, parsed, flags) ? it : ConstIterator();
  return flags;
}

unsigned long CWhiteListTree::Folder::TestItem(const wchar_t* name) const {
  if (!m_it.IsValid()) return 0;
  CParsedString parsed(name);
  return CheckProtection(m_it, parsed);
}

// ---- persistence ----

template <class F>
void CWhiteListTree::Walk(F f) const {
  std::vector<const SWhiteListTreeNode*> chain;
  std::vector<size_t> ends;  // the length of the path at each depth
  std::wstring path;
  const SWhiteListTreeNode* cur = this->next;
  size_t depth = 0;
  while (cur != this) {
    path.resize(depth == 0 ? 0 : ends[depth - 1]);
    if (depth > 0) path += L'\\';
    path.append(cur->item->name.GetString(), static_cast<size_t>(cur->item->name.GetLength()));
    ends.resize(depth);
    ends.push_back(path.size());
    chain.resize(depth);
    chain.push_back(cur);
    f(cur, path, chain);
    // first child, else the next sibling of the nearest ancestor that has one
    cur = cur->link->next;
    ++depth;
    while (IsSentinel(cur) && cur != this) {
      cur = cur->link->next;
      --depth;
    }
  }
}

bool CWhiteListTree::LoadsBackAs(const CString& line, const std::vector<const SWhiteListTreeNode*>& chain) {
  // Only what the loader can read back exactly: one byte per character, no
  // line breaks or end-of-text mark inside, and no more than a line holds.
  if (line.GetLength() > kMaxLineLength) return false;
  for (int i = 0; i < line.GetLength(); ++i) {
    const wchar_t ch = line[i];
    if (ch > 0xFF || ch == L'\r' || ch == L'\n' || ch == 0x1A) return false;
  }
  // The loader splits and upper-cases the line again; it must come back to
  // this very node (a trailing empty name, for one, would be dropped and
  // the line would protect the parent instead).
  try {
    CParsedString parsed(line);
    if (static_cast<size_t>(parsed.m_last + 1) != chain.size()) return false;
    for (size_t i = 0; i < chain.size(); ++i)
      if (chain[i]->item->name != parsed.m_components[i]) return false;
    return true;
  } catch (const Exception&) {
    return false;
  }
}

bool CWhiteListTree::SaveToFile(const wchar_t* path, unsigned long mask) const {
  std::string bytes;
  bool representable = true;
  Walk([&](const SWhiteListTreeNode* node, const std::wstring& listed,
           const std::vector<const SWhiteListTreeNode*>& chain) {
    if (!representable || (node->item->flags & mask) != mask) return;
    CString line(listed.c_str());
    if (!LoadsBackAs(line, chain)) {
      representable = false;
      return;
    }
    for (int i = 0; i < line.GetLength(); ++i) bytes.push_back(static_cast<char>(static_cast<unsigned char>(line[i])));
    bytes += "\r\n";
  });
  if (!representable) return false;
  broom::unique_hfile file(CreateFileW(path, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                       CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) return false;
  if (bytes.empty()) return true;
  DWORD written = 0;
  return ::WriteFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) &&
         written == bytes.size();
}

void CWhiteListTree::LoadFromFile(const wchar_t* path) {
  broom::unique_hfile file(CreateFileW(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                       OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) return;
  std::string bytes;
  char chunk[4096];
  DWORD got = 0;
  while (::ReadFile(file.get(), chunk, sizeof chunk, &got, nullptr) && got > 0) bytes.append(chunk, got);
  file.reset();

  // Read as a text stream does: CR LF is one line end, Ctrl+Z ends the text,
  // and a line keeps at most kMaxLineLength characters; a longer one is
  // added cut and ends the loading.
  size_t end = bytes.find('\x1A');
  if (end == std::string::npos) end = bytes.size();
  // Paths are collected and added as one batch; one the splitter rejects
  // still leaves the paths before it added.
  std::vector<CParsedString> paths;
  size_t pos = 0;
  while (pos < end) {
    std::wstring line;
    bool lineEnd = false, tooLong = false;
    while (pos < end) {
      char c = bytes[pos];
      if (c == '\r' && pos + 1 < end && bytes[pos + 1] == '\n') {
        ++pos;
        continue;
      }
      if (c == '\n') {
        ++pos;
        lineEnd = true;
        break;
      }
      if (line.size() == static_cast<size_t>(kMaxLineLength)) {
        tooLong = true;
        break;
      }
      line.push_back(static_cast<wchar_t>(static_cast<unsigned char>(c)));
      ++pos;
    }
    if (!line.empty() || lineEnd) {
      try {
        paths.emplace_back(line.c_str());
      } catch (...) {
        SafeGuardBatch(paths, 0x1);
        throw;
      }
    }
    if (tooLong) break;
  }
  SafeGuardBatch(paths, 0x1);
}

CRefPtr<IConstTArray<CString>> CWhiteListTree::SaveToArray(unsigned long mask) const {
  auto* array = new IUnknownNoQIImp<CConstTArray<CString>>();
  CRefPtr<IConstTArray<CString>> result(array);
  Walk([&](const SWhiteListTreeNode* node, const std::wstring& listed, const std::vector<const SWhiteListTreeNode*>&) {
    if ((node->item->flags & mask) == mask) array->Items().push_back(CString(listed.c_str()));
  });
  return result;
}

void CWhiteListTree::LoadFromArray(const std::vector<CString>& paths) {
  std::vector<CParsedString> parsed;
  parsed.reserve(paths.size());
  for (const auto& path : paths) {
    try {
      parsed.emplace_back(path);
    } catch (...) {
      SafeGuardBatch(parsed, 0x1);
      throw;
    }
  }
  SafeGuardBatch(parsed, 0x1);
}
