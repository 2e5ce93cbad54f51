#include "recyclebin/RecycleBinScanFactory.h"

#include <utility>

#include "recyclebin/RecycleBinScan.h"
#include "core/Names.h"
#include "scandefs/XmlReader.h"

CRefPtr<IScanOperationFactory> CRecycleBinScanFactory::Create() {
  return CRefPtr<IScanOperationFactory>(new IUnknownNoQIImp<CRecycleBinScanFactory>());
}

std::vector<std::wstring> CRecycleBinScanFactory::TakeNotes() { return std::exchange(m_notes, {}); }

CRefPtr<IScanOperation> CRecycleBinScanFactory::CreateOperation(const wchar_t* kind, xml::NodePtr node) {
  if (!kind || broom::CompareNoCase(kind, L"recyclebin") != 0) return nullptr;
  auto skip = [this](const std::wstring& why) {
    m_notes.push_back(L"<clean kind=\"recyclebin\">: " + why + L"; that rule is skipped");
    return nullptr;
  };
  const wchar_t* text = node.Text();
  if (text && std::wstring(text).find_first_not_of(L" \t\r\n") != std::wstring::npos)
    return skip(L"it takes no text, and has '" + std::wstring(text) + L"'");
  if (node.HasAttribute(L"ageBy"))
    return skip(L"ageBy does not apply: an entry's age is the time it was deleted");
  unsigned long days = 0;
  if (node.HasAttribute(L"olderThan")) {
    std::wstring value = node.Raw().attribute(L"olderThan").value();
    bool digits = !value.empty();
    for (wchar_t c : value) {
      digits = digits && c >= L'0' && c <= L'9';
      if (digits) days = days > XmlReader::kMaxAgeDays ? days : days * 10 + static_cast<unsigned long>(c - L'0');
    }
    if (!digits || days == 0 || days > XmlReader::kMaxAgeDays)
      return skip(L"olderThan=\"" + value + L"\" is not a number of days from 1 to " +
                  std::to_wstring(XmlReader::kMaxAgeDays));
  }
  CRefPtr<CRecycleBinScan> scan(new IUnknownNoQIImp<CRecycleBinScan>());
  if (days) {
    auto* age = new IUnknownNoQIImp<CBaseFileScan::_FilterRejectRecentFiles_Impl>();
    CRefPtr<CBaseFileScan::IFilter> hold(age);
    age->SetAge(days, false);
    scan->AddFilter(age);
  }
  return CRefPtr<IScanOperation>(scan.Get());
}
