#include "registry/RegistryScanFactory.h"

#include <string>

#include "core/Names.h"
#include "registry/RegistryScan.h"

CRefPtr<IScanOperationFactory> CRegistryScanFactory::Create() {
  return CRefPtr<IScanOperationFactory>(new IUnknownNoQIImp<CRegistryScanFactory>());
}

CRefPtr<IScanOperation> CRegistryScanFactory::CreateOperation(const wchar_t* kind, xml::NodePtr node) {
  if (!kind || (broom::CompareNoCase(kind, L"reg") != 0 && broom::CompareNoCase(kind, L"registry") != 0))
    return nullptr;
  CRefPtr<CRegistryScan> scan(new IUnknownNoQIImp<CRegistryScan>());
  const wchar_t* text = node.Text();
  if (!scan->AddPath(text ? text : L"")) return nullptr;
  if (const wchar_t* keep = node.Attribute(L"keep")) {
    std::wstring list(keep);
    for (size_t start = 0; start <= list.size();) {
      size_t end = list.find(L';', start);
      if (end == std::wstring::npos) end = list.size();
      std::wstring entry = list.substr(start, end - start);
      if (entry.find_first_not_of(L" \t\r\n") != std::wstring::npos && !scan->AddKeep(entry.c_str())) return nullptr;
      start = end + 1;
    }
  }
  return CRefPtr<IScanOperation>(scan.Get());
}
