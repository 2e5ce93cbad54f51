#pragma once
// The tree of scan groups: categories and the items a user ticks. Five
// tri-state switches inherit from the parent when not set.
#include <list>

#include "atl/CString.h"
#include "core/Export.h"
#include "core/RefCounting.h"
#include "scan/ScanOperation.h"

enum EBoolProperty { bpDefaultScan = 0, bpDefaultClean = 1, bpEnabled = 2, bpQScan = 3, bpSafe = 4 };
enum AttributeBoolState : unsigned char { abFalse = 0, abTrue = 1, abNotSet = 2 };

class BROOM_API CScanGroup {
 public:
  CScanGroup();
  CScanGroup(const CScanGroup&) = default;
  CScanGroup& operator=(const CScanGroup&) = default;
  virtual ~CScanGroup() = default;

  virtual void GetChildren(CRefPtr<TIteratorIface<CScanGroup>>& out) const = 0;
  virtual void GetScanOps(CRefPtr<TIteratorIface<CRefPtr<IScanOperation>>>& out) const = 0;
  virtual const wchar_t* GetName() const = 0;
  virtual const wchar_t* GetDescription() const = 0;
  virtual const wchar_t* GetTip() const = 0;
  virtual const wchar_t* GetIcon() const = 0;
  virtual const wchar_t* GetTabIcon() const = 0;
  virtual const wchar_t* GetReport() const = 0;  // null when empty
  virtual int GetChildCount() const = 0;
  virtual int GetScanOpCount() const = 0;

  bool HasChildren() const { return GetChildCount() > 0; }
  bool HasScanOps() const { return GetScanOpCount() > 0; }
  int GetOrder() const { return m_order; }
  void* GetUIData() const { return m_uiData; }
  void SetUIData(void* data) { m_uiData = data; }
  // Null for top-level groups (whose parent is the hidden root).
  CScanGroup* GetParent() const;

  AttributeBoolState IsDefaultScan() const { return Effective(bpDefaultScan); }
  AttributeBoolState IsDefaultClean() const { return Effective(bpDefaultClean); }
  AttributeBoolState IsEnabled() const { return Effective(bpEnabled); }
  AttributeBoolState IsSafe() const { return Effective(bpSafe); }
  AttributeBoolState GetQScan() const;
  AttributeBoolState GetInheritedBoolProperty(EBoolProperty p) const;
  void SetBoolProperty(EBoolProperty p, AttributeBoolState s);
  static AttributeBoolState MakeBoolState(bool isSet, bool value) {
    return !isSet ? abNotSet : (value ? abTrue : abFalse);
  }

  int m_order;
  CScanGroup* m_parent;
  void* m_uiData;
  AttributeBoolState m_boolProps[5];

 private:
  AttributeBoolState Effective(EBoolProperty p) const;
};

class BROOM_API CScanGroup_imp : public CScanGroup {
 public:
  CScanGroup_imp() = default;
  // Copying, assigning and destroying walk the tree without recursion, so
  // a tree of any depth can be copied and freed.
  CScanGroup_imp(const CScanGroup_imp& other);
  CScanGroup_imp& operator=(const CScanGroup_imp& other);
  ~CScanGroup_imp() override;

  void GetChildren(CRefPtr<TIteratorIface<CScanGroup>>& out) const override;
  void GetScanOps(CRefPtr<TIteratorIface<CRefPtr<IScanOperation>>>& out) const override;
  const wchar_t* GetName() const override { return m_name; }
  const wchar_t* GetDescription() const override { return m_desc; }
  const wchar_t* GetTip() const override { return m_tip; }
  const wchar_t* GetIcon() const override { return m_icon; }
  const wchar_t* GetTabIcon() const override { return m_tabIcon; }
  const wchar_t* GetReport() const override { return m_report.IsEmpty() ? nullptr : m_report.GetString(); }
  int GetChildCount() const override { return static_cast<int>(m_children.size()); }
  int GetScanOpCount() const override { return static_cast<int>(m_scanOps.size()); }

  CScanGroup_imp* FindChild(const wchar_t* name);
  CScanGroup_imp* FindChild(const wchar_t* name, size_t length);
  // Resolves "a/b/c" below start, creating missing groups; null without any segment.
  static CScanGroup_imp* FindOrAddGroupPath(const CString& path, CScanGroup_imp& start);
  static CScanGroup_imp* FindOrAddGroupPath(const wchar_t* path, size_t length, CScanGroup_imp& start);
  // The same resolution with the look-up of a child by name supplied by the
  // caller: find(parent, name, length) answers what FindChild would.
  template <class Find>
  static CScanGroup_imp* ResolvePath(const wchar_t* path, size_t length, CScanGroup_imp& start, Find find);
  static void AddScanOp(CScanGroup_imp& group, CRefPtr<IScanOperation> op);
  // Stable sort by order, then name (case-insensitive), all levels (without recursion).
  void SortChildren();

  std::list<CScanGroup_imp> m_children;
  std::list<CRefPtr<IScanOperation>> m_scanOps;
  CString m_name, m_desc, m_tip, m_icon, m_tabIcon, m_report;

 private:
  // Everything but the children.
  void CopyOwnFields(const CScanGroup_imp& other);
  void CopyChildren(const CScanGroup_imp& other);
};

template <class Find>
CScanGroup_imp* CScanGroup_imp::ResolvePath(const wchar_t* path, size_t length, CScanGroup_imp& start, Find find) {
  CScanGroup_imp* current = &start;
  CScanGroup_imp* result = nullptr;
  // Split at '/' as CString::Tokenize does, without making a string per
  // token: a run of '/' before a token is skipped, the token ends at the next
  // '/' or NUL, and the next search starts one past that character.
  size_t pos = 0;
  while (pos < length) {
    size_t from = pos;
    while (path[from] == L'/') ++from;  // the terminator (or an embedded NUL) stops the run
    if (from >= length) break;
    size_t end = from;
    while (path[end] != L'/' && path[end] != L'\0') ++end;
    const wchar_t* token = path + from;
    size_t tokenLength = end - from;
    pos = end + 1;

    CScanGroup_imp* child = find(*current, token, tokenLength);
    if (!child) {
      current->m_children.emplace_back();
      child = &current->m_children.back();
    }
    if (child->m_name.IsEmpty()) {
      child->m_name = CString(token, static_cast<int>(tokenLength));
      child->m_parent = current;
    }
    current = result = child;
  }
  return result;
}
