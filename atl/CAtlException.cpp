#include "atl/CAtlException.h"

namespace ATL {

void AtlThrow(HRESULT hr) { throw CAtlException(hr); }

}  // namespace ATL
