#pragma once
// Builds CRecycleBinScan operations for the "recyclebin" kind of definition
// files; a host registers it with IConfig::AddFactory.
//
//   <clean kind="recyclebin"/>
//   <clean kind="recyclebin" olderThan="30"/>
//
// olderThan takes only what was deleted that many days ago or earlier (1 to
// 36500). An age that is not such a number, an ageBy (the deletion time is
// the only age an entry has) or a text in the element gives no operation,
// with a note (TakeNotes), rather than clean more than the rule says.
#include <string>
#include <vector>

#include "core/Export.h"
#include "core/RefCounting.h"
#include "scandefs/ConfigStore.h"

class BROOM_API CRecycleBinScanFactory : public IScanOperationFactory {
 public:
  static CRefPtr<IScanOperationFactory> Create();
  CRefPtr<IScanOperation> CreateOperation(const wchar_t* kind, xml::NodePtr node) override;
  virtual ~CRecycleBinScanFactory() = default;

  // Why rules of this kind were skipped since the last call, oldest first.
  std::vector<std::wstring> TakeNotes();

 protected:
  std::vector<std::wstring> m_notes;
};
