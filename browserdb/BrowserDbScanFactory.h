#pragma once
// Builds CBrowserDbScan operations for the "cookies" and "history" kinds of
// definition files; a host registers it with IConfig::AddFactory.
//
//   <clean kind="cookies" browser="chromium">%LocalAppData%\Google\Chrome\User Data</clean>
//   <clean kind="history" browser="firefox">%AppData%\Mozilla\Firefox\Profiles\*</clean>
//
// browser is "chromium" or "firefox" (any case); the text is a folder pattern
// of profiles (CBrowserProfiles). A missing or unknown browser, or an empty
// pattern, gives no operation. Every cookie operation uses the keep list the
// factory was made with; an unusable one makes them find nothing.
#include <memory>

#include "browserdb/CookieKeepList.h"
#include "core/Export.h"
#include "core/RefCounting.h"
#include "scandefs/ConfigStore.h"

class BROOM_API CBrowserDbScanFactory : public IScanOperationFactory {
 public:
  static CRefPtr<IScanOperationFactory> Create(const CCookieKeepList& keep);
  CRefPtr<IScanOperation> CreateOperation(const wchar_t* kind, xml::NodePtr node) override;
  virtual ~CBrowserDbScanFactory() = default;

 private:
  std::shared_ptr<const CCookieKeepList> m_keep;
};
