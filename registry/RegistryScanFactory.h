#pragma once
// Builds CRegistryScan operations for the "reg" (also "registry") kind of
// definition files; a host registers it with IConfig::AddFactory.
//
//   <clean kind="reg">HKCU\Software\Vendor\App\Recent</clean>
//   <clean kind="reg">HKCU\Software\7-Zip\FM|FolderHistory</clean>
//   <clean kind="reg" keep="Settings;Profiles|Default">HKCU\Software\Vendor\App</clean>
//
// "keep" lists what stays, separated by ';' (see CRegistryScan::AddKeep). A
// path or a keep that does not parse gives no operation at all, so a typing
// mistake can never widen what is deleted.
#include "core/Export.h"
#include "core/RefCounting.h"
#include "scandefs/ConfigStore.h"

class BROOM_API CRegistryScanFactory : public IScanOperationFactory {
 public:
  static CRefPtr<IScanOperationFactory> Create();
  CRefPtr<IScanOperation> CreateOperation(const wchar_t* kind, xml::NodePtr node) override;
  virtual ~CRegistryScanFactory() = default;
};
