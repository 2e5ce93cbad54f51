#pragma once
// Keys that no registry item may be: hive roots, the keys right below a
// root (a user's hive under HKU and a classes root count as roots), and the
// keys Windows and every program depend on, listed in one table, with every
// key above them.
#include "core/Export.h"
#include "registry/RegistryPath.h"

class BROOM_API CRegistrySafety {
 public:
  // True when the key (a path in normal form; its value part is ignored)
  // must never be deleted whole.
  static bool IsRefusedKey(const CRegistryPath& key);
  // True when no value may be deleted from the key: only hive roots.
  static bool IsRefusedValueKey(const CRegistryPath& key);
};
