#include "browserdb/BrowserDbScanFactory.h"

#include <string>

#include "browserdb/BrowserDbScan.h"
#include "core/Names.h"

CRefPtr<IScanOperationFactory> CBrowserDbScanFactory::Create(const CCookieKeepList& keep) {
  auto* factory = new IUnknownNoQIImp<CBrowserDbScanFactory>();
  CRefPtr<IScanOperationFactory> held(factory);
  factory->m_keep = std::make_shared<const CCookieKeepList>(keep);
  return held;
}

CRefPtr<IScanOperation> CBrowserDbScanFactory::CreateOperation(const wchar_t* kind, xml::NodePtr node) {
  if (!kind) return nullptr;
  EBrowserDbKind dbKind;
  if (broom::CompareNoCase(kind, L"cookies") == 0)
    dbKind = EBrowserDbKind::cookies;
  else if (broom::CompareNoCase(kind, L"history") == 0)
    dbKind = EBrowserDbKind::history;
  else
    return nullptr;
  const wchar_t* browser = node.Attribute(L"browser");
  EBrowserFamily family;
  if (browser && broom::CompareNoCase(browser, L"chromium") == 0)
    family = EBrowserFamily::chromium;
  else if (browser && broom::CompareNoCase(browser, L"firefox") == 0)
    family = EBrowserFamily::firefox;
  else
    return nullptr;
  const wchar_t* text = node.Text();
  std::wstring pattern(text ? text : L"");
  size_t first = pattern.find_first_not_of(L" \t\r\n");
  if (first == std::wstring::npos) return nullptr;
  pattern = pattern.substr(first, pattern.find_last_not_of(L" \t\r\n") - first + 1);
  CRefPtr<CBrowserDbScan> scan(new IUnknownNoQIImp<CBrowserDbScan>());
  scan->Init(dbKind, family, m_keep);
  scan->AddProfiles(pattern.c_str());
  return CRefPtr<IScanOperation>(scan.Get());
}
